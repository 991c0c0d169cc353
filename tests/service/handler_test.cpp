// HandlerEx in-process, for the controls Wine's service manager never sends (shutdown, power and
// session events, device events). The effects are real: access log rows, threads, the log.
#include <windows.h>
#include <dbt.h>
#include <wtsapi32.h>

#include <cstdlib>

#include "devicecontrol/device_notifications.h"
#include "process/launcher.h"
#include "service/control_handler.h"
#include "support/service_fixture.h"
#include "settings/agent_parameters.h"

namespace {

using korva::test::HasLogLine;

class HandlerTest : public korva::test::ServiceHostTest {};

TEST_F(HandlerTest, UserCodesOtherThanTheStopCodeAreRefusedWithOneLine) {
  for (DWORD control : {128u, 134u, 200u, 255u}) EXPECT_EQ(HandlerEx(control, 0, nullptr, nullptr), 0u);
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "User-Defined Contrls are currently not being accepted!"), 4u);
  EXPECT_FALSE(HasLogLine(log, "HandlerEx", "Manual Refresh Policy Message notification is received."));
  EXPECT_EQ(AccessLog(), "");
  EXPECT_FALSE(StopEventSignalled());
}

TEST_F(HandlerTest, ShutdownSetsTheFlagRunsCodeFiveAndAfterwardsNothingIsLaunched) {
  bin_->Add(L"korvaOnDemand");
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SHUTDOWN, 0, nullptr, nullptr), 0u);
  EXPECT_EQ(ShutdownInProgressFlag.load(), 1);
  EXPECT_TRUE(StopEventSignalled());
  EXPECT_EQ(CountOf(AccessLog(), "\t\t\tMachine_Shutdown_Notification\t"), 1u);

  char* remarks = nullptr;
  const std::string command = "\"" + dir_.NarrowPath() + "\\bin\\korvaOnDemand.exe\"";
  EXPECT_EQ(executeFile(dir_.NarrowPath().c_str(), command.c_str(), &remarks, 0), 1237u);
  ASSERT_NE(remarks, nullptr);
  EXPECT_STREQ(remarks, "Machine is shutdown. Installation will retried in the next reboot");
  std::free(remarks);
  Sleep(300);
  EXPECT_TRUE(bin_->Journal().empty());

  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "Service Control Shutdown notification is received."));
  EXPECT_TRUE(HasLogLine(log, "InvokeShutdown", "lpParam :5"));
  EXPECT_TRUE(HasLogLine(log, "InvokeShutdown", "Log Closed."));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "Service Control Shutdown notification - end of block."));
  // Code 5 stops the on-demand program and records the orderly shutdown, in that order.
  const std::size_t stop = log.find("@@@ Inside StopTESKProcess @@@");
  ASSERT_NE(stop, std::string::npos);
  EXPECT_NE(log.find("@@@ Inside UpdatePowerEventStatus @@@", stop), std::string::npos);
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
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "PBT_APMSUSPEND is triggered."));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "PBT_APMRESUMESUSPEND is triggered."));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "PBT_APMQUERYSUSPEND is triggered."));
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
  const ULONGLONG returnedAfter = GetTickCount64() - started;
  EXPECT_GE(returnedAfter, 19000u);
  EXPECT_LT(returnedAfter, 24000u);  // back before the notification finished
  while (DeviceNotificationHandles[0] != nullptr && GetTickCount64() - started < 40000) Sleep(100);
  Sleep(200);  // let the notification thread leave before the globals are reset
  korva::SetDeviceNotificationCalls(system);
  EXPECT_EQ(DeviceNotificationHandles[0], nullptr);
}

TEST_F(HandlerTest, LogonToSessionZeroUnderTheAssumedLogonIsSkipped) {
  AssumedLogonFlag.store(1);
  WTSSESSION_NOTIFICATION session{sizeof(WTSSESSION_NOTIFICATION), 0};
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGON, &session, nullptr), 0u);
  EXPECT_EQ(AccessLog(), "");
  std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "HandlerEx",
                         "As the User logon event notification received and the assumed logon session id are same we "
                         "have skipped the logon policy for the session id :0"));
  EXPECT_FALSE(HasLogLine(log, "UpdateRegistryForDeviceControlPolicy", "@@@ Inside UpdateRegistryForDeviceControlPolicy @@@"));
}

TEST_F(HandlerTest, LogonToSessionOneAndLogoffWriteTheirRows) {
  AssumedLogonFlag.store(1);
  WTSSESSION_NOTIFICATION session{sizeof(WTSSESSION_NOTIFICATION), 1};
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGON, &session, nullptr), 0u);
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGOFF, &session, nullptr), 0u);
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOCK, &session, nullptr), 0u);
  const std::string access = AccessLog();
  EXPECT_EQ(CountOf(access, "\t\t\tUser_Logon_Notification\t"), 1u);
  EXPECT_EQ(CountOf(access, "\t\t\tUser_Logoff_Notification\t"), 1u);
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "User logon event notification is received for session id :1"));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "User logoff event notification is received for session id :1"));
  EXPECT_TRUE(HasLogLine(log, "UpdateRegistryForDeviceControlPolicy", "@@@ Inside UpdateRegistryForDeviceControlPolicy @@@"));
  EXPECT_EQ(CountOf(log, "SERVICE_CONTROL_SESSIONCHANGE Event - end of block."), 3u);
}

TEST_F(HandlerTest, DeviceEventsAreLoggedAndHandedToTheDeviceDispatcher) {
  DEV_BROADCAST_HDR header{sizeof(DEV_BROADCAST_HDR), DBT_DEVTYP_VOLUME, 0};
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &header, nullptr), 0u);
  EXPECT_EQ(CountOf(AccessLog(), "\t\t\tDevice_Event_Notification\t"), 1u);
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "Device Notification Event is received."));
  EXPECT_TRUE(HasLogLine(log, "DeviceEventNotify", "@@@ Inside DeviceEventNotify @@@"));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "Device Notification Event - end of block."));
}

TEST_F(HandlerTest, StopSequenceRunsTheStopNotificationAndSignalsTheEvent) {
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_STOP, 0, nullptr, nullptr), 0u);
  EXPECT_TRUE(StopEventSignalled());
  EXPECT_EQ(CountOf(AccessLog(), "\t\t\tManual_Service_Stop_Notification\t"), 1u);
  const std::string log = log_->Text();
  const std::size_t stopTesk = log.find("@@@ Inside StopTESKProcess @@@");
  const std::size_t notification = log.find("] [ InvokeShutdown ] lpParam :1");
  const std::size_t end = log.find("SERVICE_CONTROL_STOP Event (Manual Service Stop) - end of block.");
  ASSERT_NE(stopTesk, std::string::npos);
  ASSERT_NE(notification, std::string::npos);
  ASSERT_NE(end, std::string::npos);
  EXPECT_LT(stopTesk, notification);
  EXPECT_LT(notification, end);
}

}  // namespace
