// Registration for device-interface notifications and the device event dispatcher.
#pragma once

#include <windows.h>
#include <dbt.h>

#include <cstddef>

inline constexpr std::size_t kDeviceNotificationSlotCount = 17;

// One notification per row of the device interface class table, null when that class is not
// registered. Written only by RegisterAllDeviceNotification and UnRegisterAllDeviceNotification,
// which never overlap (service start-up, stop and the power notifications).
extern HDEVNOTIFY DeviceNotificationHandles[kDeviceNotificationSlotCount];

// Registers every class whose slot is still null against the service status handle.
void RegisterAllDeviceNotification();
// Cancels every registered class (a slot whose cancellation fails stays as it is) and the
// encrypted-volume handler's per-volume notifications.
void UnRegisterAllDeviceNotification();
// Handles one SERVICE_CONTROL_DEVICEEVENT; the result goes back to the service control manager.
DWORD DeviceEventNotify(DWORD eventType, PDEV_BROADCAST_HDR header);

namespace korva {

// The two system calls behind registration. Wine accepts every registration, so a test that must
// see some classes fail puts its own pair here; the service always runs with the system's.
struct DeviceNotificationCalls {
  HDEVNOTIFY(WINAPI* registerNotification)(HANDLE recipient, LPVOID filter, DWORD flags);
  BOOL(WINAPI* unregisterNotification)(HDEVNOTIFY notification);
};

// RegisterDeviceNotificationW and UnregisterDeviceNotification.
DeviceNotificationCalls SystemDeviceNotificationCalls() noexcept;
// Installs `calls` for later registrations and returns the pair in use before.
DeviceNotificationCalls SetDeviceNotificationCalls(DeviceNotificationCalls calls) noexcept;

}  // namespace korva
