// The two system calls behind device notifications, for the device classes and the volume handles.
#pragma once

#include <windows.h>

namespace korva {

// Wine accepts every registration and delivers no event, so a test that must see registrations
// fail, or count them, puts its own pair here; the service always runs with the system's.
struct DeviceNotificationCalls {
  HDEVNOTIFY(WINAPI* registerNotification)(HANDLE recipient, LPVOID filter, DWORD flags);
  BOOL(WINAPI* unregisterNotification)(HDEVNOTIFY notification);
};

// RegisterDeviceNotificationW and UnregisterDeviceNotification.
DeviceNotificationCalls SystemDeviceNotificationCalls() noexcept;
// The pair in use.
DeviceNotificationCalls CurrentDeviceNotificationCalls() noexcept;
// Installs `calls` for later registrations and returns the pair in use before.
DeviceNotificationCalls SetDeviceNotificationCalls(DeviceNotificationCalls calls) noexcept;

}  // namespace korva
