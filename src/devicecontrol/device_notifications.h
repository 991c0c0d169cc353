// Registration for device-interface notifications and the device event dispatcher.
#pragma once

#include <windows.h>
#include <dbt.h>

#include <cstddef>

#include "shared/notification_calls.h"  // the calls behind registration, replaceable by tests

inline constexpr std::size_t kDeviceNotificationSlotCount = 17;

// One notification per row of the device interface class table, null when that class is not
// registered. Written only by RegisterAllDeviceNotification and UnRegisterAllDeviceNotification
// (ServiceMain's start-up and the notification threads of stop, suspend and resume), under one
// lock of theirs, since the resume thread may run while a stop or suspend does.
extern HDEVNOTIFY DeviceNotificationHandles[kDeviceNotificationSlotCount];

// Registers every class whose slot is still null against the service status handle.
void RegisterAllDeviceNotification();
// Cancels every registered class (a slot whose cancellation fails stays as it is) and the
// encrypted-volume handler's per-volume notifications.
void UnRegisterAllDeviceNotification();
// Handles one SERVICE_CONTROL_DEVICEEVENT; the result goes back to the service control manager.
[[nodiscard]] DWORD DeviceEventNotify(DWORD eventType, PDEV_BROADCAST_HDR header);
