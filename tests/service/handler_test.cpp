// HandlerEx in-process, for the controls Wine's service manager never sends (shutdown, power and
// session events; device events are in the device tests). The effects are real: access log rows,
// threads, the log.
#include <windows.h>

#include <wtsapi32.h>

#include "devicecontrol/device_notifications.h"
#include "service/control_handler.h"
#include "support/service_fixture.h"

namespace {

using korva::test::HasLogLine;
using HandlerTest = korva::test::ServiceHostTest;

// 193 stops the service; the rest of the user range, the policy refresh 134 among it, is refused.
TEST_F(HandlerTest, UserCodesOtherThanTheStopCodeAreRefusedWithOneLine) {
  for (DWORD control : {128u, 134u, 200u, 255u}) EXPECT_EQ(HandlerEx(control, 0, nullptr, nullptr), 0u);
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "User-Defined Contrls are currently not being accepted!"), 4u);
  EXPECT_EQ(log.find("Manual Refresh Policy Message notification is received."), std::string::npos);
  EXPECT_EQ(AccessLog(), "");
  EXPECT_FALSE(StopEventSignalled());
}

// The flag makes every later launch fail (shown with the launchers); code 5 stops the on-demand
// program and then records the orderly shutdown.
TEST_F(HandlerTest, ShutdownSetsTheFlagRunsCodeFiveAndSignalsTheStop) {
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SHUTDOWN, 0, nullptr, nullptr), 0u);
  EXPECT_EQ(ShutdownInProgressFlag.load(), 1);
  EXPECT_TRUE(StopEventSignalled());
  EXPECT_EQ(CountOf(AccessLog(), "\t\t\tMachine_Shutdown_Notification\t"), 1u);
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "Service Control Shutdown notification is received."));
  EXPECT_TRUE(HasLogLine(log, "InvokeShutdown", "lpParam :5"));
  EXPECT_TRUE(HasLogLine(log, "InvokeShutdown", "Log Closed."));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "Service Control Shutdown notification - end of block."));
  const std::size_t stop = log.find("@@@ Inside StopTESKProcess @@@");
  ASSERT_NE(stop, std::string::npos);
  EXPECT_NE(log.find("@@@ Inside UpdatePowerEventStatus @@@", stop), std::string::npos);
}

TEST_F(HandlerTest, StopSequenceRunsTheStopNotificationAndSignalsTheEvent) {
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_STOP, 0, nullptr, nullptr), 0u);
  EXPECT_TRUE(StopEventSignalled());
  EXPECT_EQ(CountOf(AccessLog(), "\t\t\tManual_Service_Stop_Notification\t"), 1u);
  const std::string log = log_->Text();
  const std::size_t stopTesk = log.find("@@@ Inside StopTESKProcess @@@");
  const std::size_t notification = log.find("] [ InvokeShutdown ] lpParam :1");
  const std::size_t end = log.find("SERVICE_CONTROL_STOP Event (Manual Service Stop) - end of block.");
  ASSERT_NE(end, std::string::npos);
  EXPECT_LT(stopTesk, notification);
  EXPECT_LT(notification, end);
}

TEST_F(HandlerTest, SuspendWaitsForTheHibernateNotificationAndResumeDoesNot) {
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_POWEREVENT, PBT_APMSUSPEND, nullptr, nullptr), 0u);
  // The handler returned only after the notification thread wrote its row.
  EXPECT_EQ(CountOf(AccessLog(), "\t\t\tMachine_HibernateOrStandby_Notification\t"), 1u);
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_POWEREVENT, PBT_APMRESUMESUSPEND, nullptr, nullptr), 0u);
  EXPECT_EQ(WaitForAccessRows("Machine_Resume_HibernateOrStandby_Notification", 1, 10000), 1u);
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_POWEREVENT, PBT_APMQUERYSUSPEND, nullptr, nullptr), 0u);
  Sleep(200);
  const std::string log = log_->Text();
  for (const char* event : {"PBT_APMSUSPEND", "PBT_APMRESUMESUSPEND", "PBT_APMQUERYSUSPEND"}) {
    EXPECT_TRUE(HasLogLine(log, "HandlerEx", std::string(event) + " is triggered.")) << event;
  }
  EXPECT_EQ(CountOf(log, "SERVICE_CONTROL_POWEREVENT Event - end of block."), 3u);
  EXPECT_TRUE(HasLogLine(log, "UnRegisterAllDeviceNotification", "@@@ Inside UnRegisterAllDeviceNotification @@@"));
  EXPECT_TRUE(HasLogLine(log, "RegisterAllDeviceNotification", "@@@ Inside RegisterAllDeviceNotification @@@"));
  EXPECT_FALSE(StopEventSignalled());
}

// A hibernate notification that hangs: unregistering a device class takes 25 s.
BOOL WINAPI SlowUnregister(HDEVNOTIFY) {
  Sleep(25000);
  return TRUE;
}

TEST_F(HandlerTest, SuspendWaitsAtMostTwentySecondsForAHangingNotification) {
  const korva::DeviceNotificationCalls system = korva::SystemDeviceNotificationCalls();
  korva::SetDeviceNotificationCalls({system.registerNotification, &SlowUnregister});
  DeviceNotificationHandles[0] = reinterpret_cast<HDEVNOTIFY>(0x1234);  // one class to unregister
  const ULONGLONG started = GetTickCount64();
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_POWEREVENT, PBT_APMSUSPEND, nullptr, nullptr), 0u);
  EXPECT_GE(GetTickCount64() - started, 19000u);
  EXPECT_NE(DeviceNotificationHandles[0], nullptr);  // back while the notification still hangs
  while (DeviceNotificationHandles[0] != nullptr && GetTickCount64() - started < 40000) Sleep(100);
  Sleep(200);  // let the notification thread leave before the globals are reset
  korva::SetDeviceNotificationCalls(system);
  EXPECT_EQ(DeviceNotificationHandles[0], nullptr);
}

// Under the assumed logon, a logon to session 0 is the one start-up already handled: skipped.
TEST_F(HandlerTest, SessionEventsWriteTheirRowsExceptALogonToTheAssumedSession) {
  AssumedLogonFlag.store(1);
  WTSSESSION_NOTIFICATION zero{sizeof(WTSSESSION_NOTIFICATION), 0}, one{sizeof(WTSSESSION_NOTIFICATION), 1};
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGON, &zero, nullptr), 0u);
  EXPECT_EQ(AccessLog(), "");
  for (const DWORD event : {WTS_SESSION_LOGON, WTS_SESSION_LOGOFF, WTS_SESSION_LOCK}) {
    EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SESSIONCHANGE, event, &one, nullptr), 0u);
  }
  const std::string access = AccessLog();
  EXPECT_EQ(CountOf(access, "\t\t\tUser_Logon_Notification\t"), 1u);
  EXPECT_EQ(CountOf(access, "\t\t\tUser_Logoff_Notification\t"), 1u);
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "HandlerEx",
                         "As the User logon event notification received and the assumed logon session id are same we "
                         "have skipped the logon policy for the session id :0"));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "User logon event notification is received for session id :1"));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "User logoff event notification is received for session id :1"));
  EXPECT_EQ(CountOf(log, "@@@ Inside UpdateRegistryForDeviceControlPolicy @@@"), 1u);  // session 1's logon
  EXPECT_EQ(CountOf(log, "SERVICE_CONTROL_SESSIONCHANGE Event - end of block."), 4u);
}

}  // namespace
