// The service host in-process with real effects: the controls Wine never sends, the main thread, notifications.
#include <windows.h>
#include <wtsapi32.h>

#include <ctime>
#include <future>
#include <regex>

#include "devicecontrol/device_notifications.h"
#include "ondemand/module_lock.h"
#include "power/power_tracking.h"
#include "service/control_handler.h"
#include "service/notifications.h"
#include "service/service_main.h"
#include "service/service_status.h"
#include "shared/access_log.h"
#include "support/agent_fixture.h"

namespace korva::test {
namespace {

using HandlerTest = AgentTest;
constexpr const char* kNotificationEnd = "] [ InvokeShutdown ] @@@ End of InvokeShutdown @@@";

// Controls the manager hands over behind a stop under way: neither the stop's steps again nor a report that
// the service runs. The machine's shutdown is still carried out, once: it sets the flag that makes later
// launches fail (see the launchers), runs code 5 (stops on-demand, records the shutdown), signals the stop.
TEST_F(HandlerTest, ControlsBehindAStopUnderWayCarryNothingOutButTheShutdownWhichRunsCodeFiveOnce) {
  ServiceStopRequested.store(true);  // as the first stop sets it before its first step
  const std::string log = LoggedBy([] {
    for (const DWORD control : {DWORD{SERVICE_CONTROL_STOP}, DWORD{193}, DWORD{SERVICE_CONTROL_INTERROGATE}}) {
      EXPECT_EQ(HandlerEx(control, 0, nullptr, nullptr), 0u) << control;
    }
  });
  EXPECT_EQ(CountOf(log, "is not carried out."), 2u);
  const auto absent = [](const std::string& function) { return LogLine{function, "@@@ Inside", LogLine::kAbsent}; };
  EXPECT_LOG_LINES(log, {{"HandlerEx", "The service is already stopping; control 193 is not carried out."},
                         absent("StopTESKProcess"), absent("ChangeServiceStatus"), absent("InvokeShutdown"),
                         absent("PrintAgentServiceAccessLog")});
  EXPECT_FALSE(StopEventSignalled());
  const std::size_t mark = log_->Peek().size();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SHUTDOWN, 0, nullptr, nullptr), 0u);
  EXPECT_EQ(ShutdownInProgressFlag.load(), 1);
  EXPECT_TRUE(StopEventSignalled());
  EXPECT_EQ(Rows("Machine_Shutdown_Notification"), 1u);
  EXPECT_LOG_ORDER(log_->Text().substr(mark), {{"HandlerEx", "Service Control Shutdown notification is received."},
                                  {"InvokeShutdown", "lpParam :5"}, Entered("StopTESKProcess"),
                                  Entered("UpdatePowerEventStatus"), {"InvokeShutdown", "Log Closed."},
                                  {"HandlerEx", "Service Control Shutdown notification - end of block."},
                                  {"HandlerEx", "The service is already stopping; control 5 is not carried out."}});
}

// A hibernate notification that hangs: unregistering a device class waits for the test's release.
HANDLE g_release = nullptr;
BOOL WINAPI HangingUnregister(HDEVNOTIFY /*notification*/) {
  return WaitForSingleObject(g_release, 60000) == WAIT_OBJECT_0;
}

// A resume's re-registration is not waited for; a query is only logged.
TEST_F(HandlerTest, SuspendWaitsAtMostTwentySecondsForTheHibernateNotificationAndResumeDoesNot) {
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_POWEREVENT, PBT_APMSUSPEND, nullptr, nullptr), 0u);
  EXPECT_EQ(Rows("Machine_HibernateOrStandby_Notification"), 1u);
  MonitorEncryptedDevice.store(1);  // the resume then takes the removable volumes anew
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_POWEREVENT, PBT_APMRESUMESUSPEND, nullptr, nullptr), 0u);
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_POWEREVENT, PBT_APMQUERYSUSPEND, nullptr, nullptr), 0u);
  ASSERT_TRUE(WaitForLog(kNotificationEnd, 2));
  EXPECT_EQ(Rows("Machine_Resume_HibernateOrStandby_Notification"), 1u);
  EXPECT_LOG_LINES(log_->Peek(),
                   {{"HandlerEx", "PBT_APMSUSPEND is triggered."}, Entered("UnRegisterAllDeviceNotification"),
                    {"HandlerEx", "PBT_APMRESUMESUSPEND is triggered."},
                    {"HandlerEx", "PBT_APMQUERYSUSPEND is triggered."}, Entered("RegisterAllDeviceNotification"),
                    {"EncryptDeviceHandler::DeviceHandler", "Kind :1 SubKind :0"}});
  EXPECT_EQ(CountOf(log_->Peek(), "SERVICE_CONTROL_POWEREVENT Event - end of block."), 3u);

  const DeviceNotificationCalls system = SystemDeviceNotificationCalls();
  g_release = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SetDeviceNotificationCalls({system.registerNotification, &HangingUnregister});
  DeviceNotificationHandles[0] = reinterpret_cast<HDEVNOTIFY>(0x1234);  // one class to unregister
  const ULONGLONG started = GetTickCount64();
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_POWEREVENT, PBT_APMSUSPEND, nullptr, nullptr), 0u);
  EXPECT_GE(GetTickCount64() - started, 19000u);
  EXPECT_NE(DeviceNotificationHandles[0], nullptr);  // back while the notification still hangs
  SetEvent(g_release);
  EXPECT_TRUE(WaitForLog(kNotificationEnd, 3));  // it then unregisters the class and ends
  SetDeviceNotificationCalls(system);
  CloseHandle(g_release);
  EXPECT_EQ(DeviceNotificationHandles[0], nullptr);
  EXPECT_FALSE(StopEventSignalled());
}

// Under the assumed logon, a logon to session 0 is the one start-up already handled: skipped.
TEST_F(HandlerTest, SessionEventsWriteTheirRowsExceptALogonToTheAssumedSession) {
  AssumedLogonFlag.store(1);
  WTSSESSION_NOTIFICATION zero{sizeof(WTSSESSION_NOTIFICATION), 0};
  WTSSESSION_NOTIFICATION one{sizeof(WTSSESSION_NOTIFICATION), 1};
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGON, &zero, nullptr), 0u);
  for (const DWORD event : {WTS_SESSION_LOGON, WTS_SESSION_LOGOFF, WTS_SESSION_LOCK}) {
    EXPECT_EQ(HandlerEx(SERVICE_CONTROL_SESSIONCHANGE, event, &one, nullptr), 0u);
  }
  EXPECT_EQ(Rows("User_Logon_Notification"), 1u);  // session 1's only
  EXPECT_EQ(Rows("User_Logoff_Notification"), 1u);
  const std::string log = log_->Text();
  EXPECT_LOG_LINES(log, {{"HandlerEx", "As the User logon event notification received and the assumed logon session "
                                       "id are same we have skipped the logon policy for the session id :0"},
                         {"HandlerEx", "User logon event notification is received for session id :1"},
                         {"HandlerEx", "User logoff event notification is received for session id :1"}});
  EXPECT_EQ(CountOf(log, "SERVICE_CONTROL_SESSIONCHANGE Event - end of block."), 4u);
  // Session 1's logon marks the audit settings modified.
  EXPECT_EQ(CountOf(log, "@@@ Inside UpdateRegistryForDeviceControlPolicy @@@"), 1u);
  const std::string audit = std::string(kAgentKey) + "\\QVM\\Settings\\AuditSettings";
  std::string modified;
  EXPECT_EQ(ReadRegSZ(audit, "IsSettingsModified", modified), 0);
  EXPECT_EQ(modified, "1");
  // The user of the session that logged on, whoever sits at the console.
  std::string user;
  EXPECT_EQ(ReadRegSZ(audit, "LoggedOnUser", user), 0);
  EXPECT_EQ(user, win::WideToAnsi(UserName()));  // Wine's one account is every session's user
}

ULONGLONG FiveMinutes() { return 5ULL * 60 * 1000; }
ULONGLONG TenMinutes() { return 10ULL * 60 * 1000; }

using MainThreadTest = AgentTest;

// Within ten minutes of boot, no orderly shutdown since the last boot is a forced one: marked, and the
// lock values reset unless the unhandled-failure mark is set. Either way this boot time is stored and
// the last orderly end forgotten, at the start-up's first step.
TEST_F(MainThreadTest, StartUpChecksForAForcedShutdownAndSendsTheBootRowOnlyWithinTenMinutesOfBoot) {
  const struct { ULONGLONG (*uptime)(); const char* shutdown; DWORD unhandled; bool forced; DWORD lock, retries; }
      cases[] = {{&FiveMinutes, "1000", 0, true, 0, 0}, {&FiveMinutes, "1000", 1, true, 1, 5},
                 {&FiveMinutes, "3000", 0, false, 1, 5}, {&TenMinutes, "1000", 0, false, 1, 5}};
  struct SystemUptime { ~SystemUptime() { SetUptimeSource(nullptr); } } restore;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.uptime()) + " " + c.shutdown + " " + std::to_string(c.unhandled));
    const bool young = c.uptime() < 600000;
    const std::size_t rows = Rows("Machine_Bootup_Notification");
    CleanAgentRegistry();
    SetUptimeSource(c.uptime);
    ASSERT_EQ(writeValue(kAgentKey, "LastBootUpTime", REG_QWORD, "2000"), 0);
    ASSERT_EQ(writeValue(kPowerEventsKey, "LastShutdownTime", REG_QWORD, c.shutdown), 0);
    SetDword(kLockStateKey, "ondemandlock", 1);
    SetDword(kLockStateKey, "ondemandlockretry", 5);
    SetDword(kLockStateKey, "ondemandUnhandlelock", c.unhandled);
    log_.reset();  // the old capture closes the log, so it goes first
    log_ = std::make_unique<LogCapture>(6);
    // Checked or not, the recorded end is gone once the start-up's first step has read it: the next
    // start counts only an orderly end of this run, even if this one never gets to its main thread.
    TakeForcedShutdownInputs();
    EXPECT_EQ(ReadNumber(kPowerEventsKey, "LastShutdownTime", REG_QWORD), std::nullopt);
    // The main thread ends with its last worker, the pipe client, which runs until the stop.
    auto mainThread = std::async(std::launch::async, [] { return InvokeMainThread(nullptr); });
    // It arms the three-minute restore timer (deleted below) and sends the boot row.
    EXPECT_TRUE(WaitForLog("] [ ProcessRestoreBlockedDeviceThread ] Registered the TimerRoutine callback to receive "
                           "the notification in the device restore refresh cycle in next3minutes.\r\n"));
    EXPECT_TRUE(!young || WaitForLog(kNotificationEnd));
    SetEvent(ServiceStopEvent);
    EXPECT_EQ(mainThread.get(), 0u);
    // The monitors end with the stop too; only then may the next case clear it.
    for (const char* monitor : {"MonitorSettingsModified", "MonitorRFCOMMStatus"}) {
      EXPECT_TRUE(WaitForLog(std::string("@@@ End of ") + monitor + " @@@"));
    }
    ResetEvent(ServiceStopEvent);
    DeleteRestoreBlockedDeviceTimerForTest();
    EXPECT_EQ(Rows("Machine_Bootup_Notification"), rows + (young ? 1 : 0));
    EXPECT_EQ(std::pair(ReadNumber(kLockStateKey, "ondemandlock"), ReadNumber(kLockStateKey, "ondemandlockretry")),
              std::pair(std::optional<unsigned long long>(c.lock), std::optional<unsigned long long>(c.retries)));
    const auto boot = static_cast<double>(ReadNumber(kAgentKey, "LastBootUpTime", REG_QWORD).value_or(0));
    EXPECT_NEAR(boot, static_cast<double>(_time64(nullptr) - static_cast<__time64_t>(c.uptime() / 1000)), 5.0);
    const auto when = [](bool present) { return present ? LogLine::kPrefix : LogLine::kAbsent; };
    EXPECT_LOG_LINES(
        log_->Text(),
        {{"InvokeMainThread", "System Bootup time :" + std::to_string(c.uptime())},
         {"InvokeMainThread", "Check for ForceShudown : LastBoot :2000", when(young)},
         {"InvokeMainThread", "Check for ForceShudown : Shutdown :" + std::string(c.shutdown), when(young)},
         {"InvokeMainThread", "Check for ForceShudown", when(young)},
         {"InvokeMainThread", "Check for ForceShudown : ondemandunhandlelock :" + std::to_string(c.unhandled),
          when(c.forced)},
         {"WriteForceShutdownEntry", "@@@ Inside WriteForceShutdownEntry @@@", when(c.forced)},
         {"InvokeMainThread", "Computer Bootup Notification is assigned.", when(young)},
         {"InvokeMainThread", "Power Refresh Notification is assigned.", when(!young)}});
  }
}

using NotificationsTest = AgentTest;

// A sub-product's rows go under its BasePath, else the install folder; a null or unknown code only logs.
TEST_F(NotificationsTest, AccessLogHasOneHeaderThenARowPerNotificationAndNoFinalLineBreak) {
  int unknown = 9;
  EXPECT_EQ(InvokeShutdown(&unknown), 0u);
  EXPECT_EQ(InvokeShutdown(nullptr), 0u);
  EXPECT_EQ(AccessLog(), "");
  EXPECT_LOG_LINES(log_->Peek(), {{"InvokeShutdown", "lpParam :0"}, {"InvokeShutdown", "lpParam :9"},
                                  {"InvokeShutdown", "Root Path :" + dir_.NarrowPath() + "\\\\bin"}});
  PrintAgentServiceAccessLog("Device_Event_Notification");
  PrintAgentServiceAccessLog("User_Logon_Notification");
  // Each run of digits as one '#': the layout is checked, not the time of writing.
  EXPECT_EQ(std::regex_replace(AccessLog(), std::regex("[0-9]+"), "#"),
            "DATE\t\tNOTIFICATION-TIME\tNOTIFICATION-RECEIVED\r\n----\t\t-----------------\t---------------------"
            "\r\n#-#-#\t#:#:#\t\t\tDevice_Event_Notification\t\r\n#-#-#\t#:#:#\t\t\tUser_Logon_Notification\t");

  ASSERT_EQ(writeValue(kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
  const std::string row = "Restore_Device_Notification";
  TempDir bare;  // no "logs" folder yet: it is made
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, bare.NarrowPath()), 0);
  PrintAgentServiceAccessLog(row);
  const std::wstring bareLog = bare.File(L"logs\\korva_agentserviceaccess.log");
  EXPECT_EQ(CountOf(ReadFileBytes(bareLog), row), 1u);
  // Rows that find the file held by another program wait, told once, and follow in their order.
  {
    const win::UniqueFileHandle holder(
        CreateFileW(bareLog.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(holder);
    const std::string held = LoggedBy([] {
      PrintAgentServiceAccessLog("Held_One");
      PrintAgentServiceAccessLog("Held_Two");
      EXPECT_FALSE(FlushAccessLog(300));  // the last chance before the process ends: still held
    });
    EXPECT_EQ(CountOf(held, "] cannot be written (errno "), 1u) << held;
    EXPECT_TRUE(HasLogLine(held, "FlushAccessLog", "2 access-log rows could not be written before the process ended."));
  }
  EXPECT_TRUE(FlushAccessLog(2000));
  PrintAgentServiceAccessLog("After_Release");
  EXPECT_EQ(std::regex_replace(ReadFileBytes(bareLog).substr(ReadFileBytes(bareLog).find(row)), std::regex("[0-9]+"), "#"),
            row + "\t\r\n#-#-#\t#:#:#\t\t\tHeld_One\t\r\n#-#-#\t#:#:#\t\t\tHeld_Two\t\r\n#-#-#\t#:#:#\t\t\tAfter_Release\t");
  // A link in the logs folder's place: the rows wait, told once, until the folder is the agent's own.
  const TempDir linkedBase;
  const TempDir elsewhere;
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, linkedBase.NarrowPath()), 0);
  {
    const FolderLink logs(linkedBase.File(L"logs"), elsewhere.path());
    ASSERT_TRUE(logs.made());
    const std::string linked = LoggedBy([] { PrintAgentServiceAccessLog("Linked_Row"); });
    EXPECT_EQ(CountOf(linked, "] cannot be written (it is reached through a link or folder users may change)"), 1u) << linked;
    EXPECT_EQ(ReadFileBytes(elsewhere.File(L"korva_agentserviceaccess.log")), "");
  }
  PrintAgentServiceAccessLog("After_Link");
  EXPECT_EQ(CountOf(ReadFileBytes(linkedBase.File(L"logs\\korva_agentserviceaccess.log")), "Linked_Row\t\r\n"), 1u);
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, ""), 0);
  PrintAgentServiceAccessLog(row);
  EXPECT_EQ(CountOf(AccessLog(), row), 1u);
}

// A missing program falls back from the user's token to a plain start; one over its time is ended.
TEST_F(NotificationsTest, ConfigurationProgramRunsWithItsArgumentsAndResetsTheAssumedLogon) {
  AddStandIn(L"korvaConfig");
  AssumedLogonFlag.store(1);
  ExecuteConfiguration();
  const std::vector<JournalEntry> journal = bin_.Journal();
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].commandLine, "40 0 1 1");
  EXPECT_EQ(journal[0].parentPid, GetCurrentProcessId());
  EXPECT_EQ(AssumedLogonFlag.load(), 0);
  const char* kName = "ExecuteConfiguration";
  EXPECT_LOG_LINES(log_->Peek(), {{kName, "Command Line Params ->40 0 1 1"},
                                  {kName, "OpenProcessToken : Process opened successfully."},
                                  {kName, "CreateProcessAsUser config.exe [40 0 1 1] process created successfully."},
                                  {kName, "ExecuteConfiguration Method is Ended."}});

  bin_.Add(L"korvaConfig", 7, 60000);
  // Long enough for the stand-in to start and journal its command line on a loaded machine (a
  // fresh run's prefixes being made): it is ended at the limit, not before it has run.
  ExecuteConfigurationWithin(5000);
  EXPECT_EQ(bin_.Journal().size(), 2u);
  EXPECT_TRUE(HasLogLine(log_->Peek(), kName, "Terminating the process config.exe [40 0 1 1] due to time exceeded."));

  ASSERT_TRUE(DeleteFileW((bin_.folder() + L"\\korvaConfig.exe").c_str()));
  LogCapture log(6);
  ExecuteConfiguration();
  const std::string failed = " of config.exe [40 0 1 1] is failed to create due to following error :";
  EXPECT_LOG_ORDER(log.Text(), {{kName, "CreateProcessAsUser" + failed, LogLine::kPrefix},
                                {kName, "As a workaround we are calling the CreateProcess to execute config.exe."},
                                {kName, "CreateProcess" + failed, LogLine::kPrefix},
                                {kName, "ExecuteConfiguration Method is Ended."}});
}

}  // namespace
}  // namespace korva::test
