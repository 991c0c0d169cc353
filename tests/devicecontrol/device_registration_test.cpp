// Registration for the seventeen device interface classes: against Wine's real calls, and with a
// stand-in pair of calls where classes must fail, which Wine never does.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "device_control_fixture.h"
#include "devicecontrol/core/device_classes.h"
#include "service/service_main.h"

namespace korva::test {
namespace {

GUID TableGuid(std::size_t i) {
  GUID guid;
  std::memcpy(&guid, &devicecontrol::DeviceInterfaceClassTable[i], sizeof guid);
  return guid;
}

// What the stand-in calls saw and what they are to refuse.
std::vector<DEV_BROADCAST_DEVICEINTERFACE_W> g_registrations;
std::vector<GUID> g_refusedClasses;
std::vector<HDEVNOTIFY> g_unregistered;
HDEVNOTIFY g_refusedHandle = nullptr;

HDEVNOTIFY WINAPI StandInRegister(HANDLE, LPVOID filter, DWORD) {
  g_registrations.push_back(*static_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(filter));
  for (const GUID& refused : g_refusedClasses) {
    if (IsEqualGUID(refused, g_registrations.back().dbcc_classguid)) {
      SetLastError(ERROR_ACCESS_DENIED);
      return nullptr;
    }
  }
  return reinterpret_cast<HDEVNOTIFY>(static_cast<INT_PTR>(0x1000 + g_registrations.size()));
}
BOOL WINAPI StandInUnregister(HDEVNOTIFY notification) {
  g_unregistered.push_back(notification);
  return notification != g_refusedHandle;
}
HDEVNOTIFY WINAPI ThrowingRegister(HANDLE, LPVOID, DWORD) { throw std::runtime_error("register"); }

std::size_t FilledSlots() {
  return std::count_if(std::begin(DeviceNotificationHandles), std::end(DeviceNotificationHandles),
                       [](HDEVNOTIFY slot) { return slot != nullptr; });
}

class DeviceRegistrationTest : public DeviceControlTest {
 protected:
  void SetUp() override {
    DeviceControlTest::SetUp();
    g_registrations.clear();
    g_refusedClasses.clear();
    g_unregistered.clear();
    g_refusedHandle = nullptr;
  }
  void TearDown() override {
    // Whatever a stand-in handed out is no real notification: drop it without the system's call.
    SetDeviceNotificationCalls(SystemDeviceNotificationCalls());
    std::fill(std::begin(DeviceNotificationHandles), std::end(DeviceNotificationHandles), nullptr);
    DeviceControlTest::TearDown();
  }
};

TEST_F(DeviceRegistrationTest, WinesRealCallsRegisterEveryClassAndUnregisterThemAll) {
  RegisterAllDeviceNotification();
  EXPECT_EQ(FilledSlots(), kDeviceNotificationSlotCount);
  UnRegisterAllDeviceNotification();
  EXPECT_EQ(FilledSlots(), 0u);
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "RegisterDeviceNotification is succeeded to receive device notification."), 17u);
  EXPECT_EQ(CountOf(log, "] [ UnRegisterAllDeviceNotification ] SuccessFully Unregistered the device events.\r\n"),
            17u);
}

TEST_F(DeviceRegistrationTest, AfterAFailureOnlyTheFailedClassesAreRetriedAndExceptionsStayInside) {
  SetDeviceNotificationCalls({StandInRegister, StandInUnregister});
  g_refusedClasses = {TableGuid(3), TableGuid(15)};
  RegisterAllDeviceNotification();
  // Every class in table order with an interface filter; one failure does not stop the others.
  ASSERT_EQ(g_registrations.size(), 17u);
  for (std::size_t i = 0; i < g_registrations.size(); ++i) {
    EXPECT_EQ(g_registrations[i].dbcc_devicetype, static_cast<DWORD>(DBT_DEVTYP_DEVICEINTERFACE));
    EXPECT_TRUE(IsEqualGUID(g_registrations[i].dbcc_classguid, TableGuid(i))) << i;
    EXPECT_EQ(DeviceNotificationHandles[i] == nullptr, i == 3 || i == 15) << i;
  }
  g_refusedClasses.clear();
  g_registrations.clear();
  RegisterAllDeviceNotification();
  ASSERT_EQ(g_registrations.size(), 2u);
  EXPECT_TRUE(IsEqualGUID(g_registrations[0].dbcc_classguid, TableGuid(3)));
  EXPECT_TRUE(IsEqualGUID(g_registrations[1].dbcc_classguid, TableGuid(15)));
  EXPECT_EQ(FilledSlots(), 17u);

  // A slot whose unregistration fails is kept for the next try.
  g_refusedHandle = DeviceNotificationHandles[8];
  UnRegisterAllDeviceNotification();
  EXPECT_EQ(g_unregistered.size(), 17u);
  EXPECT_EQ(FilledSlots(), 1u);
  g_refusedHandle = nullptr;
  UnRegisterAllDeviceNotification();
  EXPECT_EQ(g_unregistered.size(), 18u);
  EXPECT_EQ(FilledSlots(), 0u);
  SetDeviceNotificationCalls({ThrowingRegister, StandInUnregister});  // an exception stays inside
  RegisterAllDeviceNotification();
  EXPECT_EQ(FilledSlots(), 0u);
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ RegisterAllDeviceNotification ] RegisterDeviceNotification is failed.\r\n"), 2u);
  EXPECT_EQ(CountOf(log, "] [ UnRegisterAllDeviceNotification ] UnregisterDeviceNotification is failed.\r\n"), 1u);
  EXPECT_TRUE(HasLogLine(log, "RegisterAllDeviceNotification", "Exception Occured."));
}

}  // namespace
}  // namespace korva::test
