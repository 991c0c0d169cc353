// The two system calls behind device notifications.
#include "shared/notification_calls.h"

#include <atomic>

namespace korva {

namespace {
std::atomic<HDEVNOTIFY(WINAPI*)(HANDLE, LPVOID, DWORD)> g_register{RegisterDeviceNotificationW};
std::atomic<BOOL(WINAPI*)(HDEVNOTIFY)> g_unregister{UnregisterDeviceNotification};
}  // namespace

DeviceNotificationCalls SystemDeviceNotificationCalls() noexcept {
  return DeviceNotificationCalls{RegisterDeviceNotificationW, UnregisterDeviceNotification};
}

DeviceNotificationCalls CurrentDeviceNotificationCalls() noexcept {
  return DeviceNotificationCalls{g_register.load(), g_unregister.load()};
}

DeviceNotificationCalls SetDeviceNotificationCalls(DeviceNotificationCalls calls) noexcept {
  const DeviceNotificationCalls previous = CurrentDeviceNotificationCalls();
  g_register.store(calls.registerNotification);
  g_unregister.store(calls.unregisterNotification);
  return previous;
}

}  // namespace korva
