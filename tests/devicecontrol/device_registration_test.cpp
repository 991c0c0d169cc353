// Registration for the seventeen device interface classes: against Wine's real calls, and with a
// stand-in pair of calls where classes must fail, which Wine never does.
#include <initguid.h>

#include <windows.h>
#include <dbt.h>
#include <devguid.h>
#include <hidclass.h>
#include <ioevent.h>
#include <ntddmodm.h>
#include <ntddpar.h>
#include <usbiodef.h>
#include <winioctl.h>

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <vector>

#include "device_control_fixture.h"
#include "devicecontrol/core/device_classes.h"
#include "service/service_main.h"

namespace korva::test {
namespace {

using devicecontrol::DeviceInterfaceClassTable;

GUID TableGuid(std::size_t i) {
  GUID guid;
  std::memcpy(&guid, &DeviceInterfaceClassTable[i], sizeof guid);
  return guid;
}

// What the stand-in calls saw and what they are to refuse.
struct Recorded {
  HANDLE recipient = nullptr;
  DEV_BROADCAST_DEVICEINTERFACE_W filter{};
  DWORD flags = 0;
};
std::vector<Recorded> g_registrations;
std::vector<GUID> g_refusedClasses;
std::vector<HDEVNOTIFY> g_unregistered;
HDEVNOTIFY g_refusedHandle = nullptr;

HDEVNOTIFY WINAPI StandInRegister(HANDLE recipient, LPVOID filter, DWORD flags) {
  Recorded call;
  call.recipient = recipient;
  std::memcpy(&call.filter, filter, sizeof call.filter);
  call.flags = flags;
  g_registrations.push_back(call);
  for (const GUID& refused : g_refusedClasses) {
    if (IsEqualGUID(refused, call.filter.dbcc_classguid)) {
      SetLastError(ERROR_ACCESS_DENIED);
      return nullptr;
    }
  }
  return reinterpret_cast<HDEVNOTIFY>(static_cast<INT_PTR>(0x1000 + g_registrations.size()));
}

BOOL WINAPI StandInUnregister(HDEVNOTIFY notification) {
  g_unregistered.push_back(notification);
  if (notification == g_refusedHandle) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  return TRUE;
}

HDEVNOTIFY WINAPI ThrowingRegister(HANDLE, LPVOID, DWORD) { throw std::runtime_error("register"); }
BOOL WINAPI ThrowingUnregister(HDEVNOTIFY) { throw std::runtime_error("unregister"); }

class DeviceRegistrationTest : public DeviceControlTest {
 protected:
  void SetUp() override {
    DeviceControlTest::SetUp();
    savedStatusHandle_ = ServiceStatusHandle;
    g_registrations.clear();
    g_refusedClasses.clear();
    g_unregistered.clear();
    g_refusedHandle = nullptr;
  }
  void TearDown() override {
    // Whatever a stand-in handed out is no real notification: drop it without the system's call.
    SetDeviceNotificationCalls(SystemDeviceNotificationCalls());
    for (HDEVNOTIFY& slot : DeviceNotificationHandles) slot = nullptr;
    ServiceStatusHandle = savedStatusHandle_;
    DeviceControlTest::TearDown();
  }
  static std::size_t FilledSlots() {
    std::size_t filled = 0;
    for (HDEVNOTIFY slot : DeviceNotificationHandles) filled += slot != nullptr ? 1 : 0;
    return filled;
  }

 private:
  SERVICE_STATUS_HANDLE savedStatusHandle_ = nullptr;
};

TEST_F(DeviceRegistrationTest, TableMatchesThePlatformsClassesAndVolumeEvents) {
  const std::pair<std::size_t, GUID> named[] = {
      {3, GUID_DEVINTERFACE_DISK},     {4, GUID_DEVINTERFACE_CDROM},    {5, GUID_DEVINTERFACE_COMPORT},
      {6, GUID_DEVINTERFACE_FLOPPY},   {7, GUID_DEVINTERFACE_HID},      {9, GUID_DEVINTERFACE_MODEM},
      {11, GUID_DEVINTERFACE_PARALLEL}, {12, GUID_DEVINTERFACE_PARCLASS}, {13, GUID_DEVINTERFACE_SERENUM_BUS_ENUMERATOR},
      {13, GUID_DEVCLASS_PORTS},       {14, GUID_DEVINTERFACE_TAPE},    {15, GUID_DEVINTERFACE_USB_DEVICE},
  };
  for (const auto& [index, guid] : named) EXPECT_TRUE(IsEqualGUID(TableGuid(index), guid)) << index;
  EXPECT_TRUE(IsEqualGUID(*reinterpret_cast<const GUID*>(&devicecontrol::kVolumeChange), GUID_IO_VOLUME_CHANGE));
}

TEST_F(DeviceRegistrationTest, WinesRealCallsRegisterEveryClassOnceAndUnregisterThemAll) {
  RegisterAllDeviceNotification();
  EXPECT_EQ(FilledSlots(), kDeviceNotificationSlotCount);
  std::vector<HDEVNOTIFY> first(std::begin(DeviceNotificationHandles), std::end(DeviceNotificationHandles));
  RegisterAllDeviceNotification();  // nothing new
  EXPECT_TRUE(std::equal(first.begin(), first.end(), std::begin(DeviceNotificationHandles)));
  UnRegisterAllDeviceNotification();
  EXPECT_EQ(FilledSlots(), 0u);

  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "Going to register for device event notifications."), 2u);
  EXPECT_EQ(CountOf(log, "] [ RegisterAllDeviceNotification ] RegisterDeviceNotification is succeeded to receive "
                         "device notification.\r\n"),
            17u);
  EXPECT_EQ(CountOf(log, "] [ UnRegisterAllDeviceNotification ] SuccessFully Unregistered the device events.\r\n"), 17u);
  EXPECT_TRUE(HasLogLine(log, "UnRegisterAllDeviceNotification", "Going to de-register the device notification."));
  EXPECT_TRUE(HasLogLine(log, "EncryptDeviceHandler::UnregisterAllDiskNotification",
                         "@@@ Inside EncryptDeviceHandler::UnregisterAllDiskNotification @@@"));
  EXPECT_EQ(log.find("is failed."), std::string::npos);
}

TEST_F(DeviceRegistrationTest, AfterAPartialFailureOnlyTheFailedClassesAreRetried) {
  ServiceStatusHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(static_cast<INT_PTR>(0x4242));
  SetDeviceNotificationCalls({StandInRegister, StandInUnregister});
  g_refusedClasses = {TableGuid(3), TableGuid(15)};
  RegisterAllDeviceNotification();
  // Every class in table order, each with the service handle and an interface filter; one
  // failure does not stop the others.
  ASSERT_EQ(g_registrations.size(), 17u);
  for (std::size_t i = 0; i < g_registrations.size(); ++i) {
    const Recorded& call = g_registrations[i];
    EXPECT_EQ(call.recipient, reinterpret_cast<HANDLE>(ServiceStatusHandle));
    EXPECT_EQ(call.flags, static_cast<DWORD>(DEVICE_NOTIFY_SERVICE_HANDLE));
    EXPECT_EQ(call.filter.dbcc_size, 32u);
    EXPECT_EQ(call.filter.dbcc_devicetype, static_cast<DWORD>(DBT_DEVTYP_DEVICEINTERFACE));
    EXPECT_EQ(call.filter.dbcc_reserved, 0u);
    EXPECT_EQ(call.filter.dbcc_name[0], L'\0');
    EXPECT_TRUE(IsEqualGUID(call.filter.dbcc_classguid, TableGuid(i))) << i;
    const bool refused = i == 3 || i == 15;
    EXPECT_EQ(DeviceNotificationHandles[i],
              refused ? nullptr : reinterpret_cast<HDEVNOTIFY>(static_cast<INT_PTR>(0x1001 + i)));
  }

  g_refusedClasses.clear();
  g_registrations.clear();
  RegisterAllDeviceNotification();
  ASSERT_EQ(g_registrations.size(), 2u);
  EXPECT_TRUE(IsEqualGUID(g_registrations[0].filter.dbcc_classguid, TableGuid(3)));
  EXPECT_TRUE(IsEqualGUID(g_registrations[1].filter.dbcc_classguid, TableGuid(15)));
  EXPECT_EQ(FilledSlots(), 17u);

  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ RegisterAllDeviceNotification ] RegisterDeviceNotification is failed.\r\n"), 2u);
  EXPECT_EQ(CountOf(log, "] [ printErrorMsgForID ] Error ID      :5\r\n"), 2u);
  EXPECT_EQ(CountOf(log, "RegisterDeviceNotification is succeeded to receive device notification."), 17u);
}

TEST_F(DeviceRegistrationTest, ASlotWhoseUnregistrationFailsIsKeptForTheNextTry) {
  SetDeviceNotificationCalls({StandInRegister, StandInUnregister});
  RegisterAllDeviceNotification();
  g_refusedHandle = DeviceNotificationHandles[8];
  UnRegisterAllDeviceNotification();
  EXPECT_EQ(g_unregistered.size(), 17u);
  EXPECT_EQ(FilledSlots(), 1u);
  EXPECT_EQ(DeviceNotificationHandles[8], g_refusedHandle);

  g_refusedHandle = nullptr;
  g_unregistered.clear();
  UnRegisterAllDeviceNotification();
  EXPECT_EQ(g_unregistered.size(), 1u);
  EXPECT_EQ(FilledSlots(), 0u);
  UnRegisterAllDeviceNotification();  // nothing left to cancel
  EXPECT_EQ(g_unregistered.size(), 1u);

  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ UnRegisterAllDeviceNotification ] UnregisterDeviceNotification is failed.\r\n"), 1u);
  EXPECT_EQ(CountOf(log, "] [ printErrorMsgForID ] Error ID      :6\r\n"), 1u);
  EXPECT_EQ(CountOf(log, "SuccessFully Unregistered the device events."), 17u);
  EXPECT_EQ(CountOf(log, "@@@ Inside EncryptDeviceHandler::UnregisterAllDiskNotification @@@"), 3u);
}

TEST_F(DeviceRegistrationTest, ExceptionsStayInsideWithTheirOwnLines) {
  SetDeviceNotificationCalls({ThrowingRegister, ThrowingUnregister});
  RegisterAllDeviceNotification();
  EXPECT_EQ(FilledSlots(), 0u);
  DeviceNotificationHandles[0] = reinterpret_cast<HDEVNOTIFY>(static_cast<INT_PTR>(0x99));
  UnRegisterAllDeviceNotification();
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "RegisterAllDeviceNotification", "Exception Occured."));
  EXPECT_TRUE(HasLogLine(log, "UnRegisterAllDeviceNotification", "Exception Occcured."));
  EXPECT_TRUE(HasLogLine(log, "UnRegisterAllDeviceNotification", "@@@ End of UnRegisterAllDeviceNotification @@@"));
}

}  // namespace
}  // namespace korva::test
