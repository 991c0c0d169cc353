// The running service through Wine's service control manager: start-up order, controls, stop.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "settings/registry.h"
#include "support/service_support.h"
#include "support/test_support.h"
#include "win/strings.h"

namespace {

using korva::test::HasLogLine;
using korva::test::HasLogLineStartingWith;

// Position of the first line holding `function` and `message` at or after `from`; npos if none.
std::size_t FindLine(const std::string& log, const std::string& function, const std::string& message,
                     std::size_t from = 0) {
  return log.find("] [ " + function + " ] " + message, from);
}

// Wine's control dispatcher holds its lock while the handler runs, and the stop notification's
// unregistration of device events needs that lock: under Wine a stop therefore completes only when
// the handler's bounded 20 s wait runs out, and the control request itself may time out (1053).
// The service still stops; on Windows the unregistration does not wait for the handler.
void SendStop(SC_HANDLE service, DWORD control) {
  const DWORD sent = korva::test::SendControl(service, control);
  EXPECT_TRUE(sent == 0 || sent == ERROR_SERVICE_REQUEST_TIMEOUT) << sent;
}

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(korva::test::PrepareCleanAgent(dir_.NarrowPath()));
    const korva::test::ProgramResult install =
        korva::test::RunProgram(L"\"" + korva::test::ServiceExecutable() + L"\" /i", 60000);
    ASSERT_EQ(install.exitCode, 0u);
    service_ = korva::test::OpenAgentService(SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS |
                                             SERVICE_PAUSE_CONTINUE | SERVICE_INTERROGATE |
                                             SERVICE_USER_DEFINED_CONTROL);
    ASSERT_TRUE(service_);
  }
  void TearDown() override {
    service_.reset();
    korva::test::RemoveAgent();
  }

  void Start() {
    ASSERT_TRUE(StartServiceW(service_.get(), 0, nullptr)) << GetLastError();
    ASSERT_EQ(korva::test::WaitForServiceState(service_.get(), SERVICE_RUNNING, 30000),
              static_cast<DWORD>(SERVICE_RUNNING));
  }
  DWORD State(DWORD waitFor, DWORD timeoutMs = 60000) {
    return korva::test::WaitForServiceState(service_.get(), waitFor, timeoutMs);
  }
  std::string Log() const { return korva::test::ReadFileBytes(dir_.File(L"logs\\korva_agentservice.log")); }
  // The log once `message` (a line of `function`) is in it at or after `from`, or after 30 s.
  std::string LogWhen(const std::string& function, const std::string& message, std::size_t from = 0) {
    std::string log;
    for (int i = 0; i < 1500; ++i) {
      log = Log();
      if (FindLine(log, function, message, from) != std::string::npos) break;
      Sleep(20);
    }
    return log;
  }
  // The uptime the start-up saw (its "System Bootup time :" line), which decides its branch: the
  // host's own uptime may cross 10 minutes between the service's reading and the test's.
  unsigned long long StartUpUptime() {
    const std::string prefix = "System Bootup time :";
    const std::string log = LogWhen("InvokeMainThread", prefix);
    const std::size_t at = FindLine(log, "InvokeMainThread", prefix);
    if (at == std::string::npos) {
      ADD_FAILURE() << "no start-up uptime in the log";
      return 0;
    }
    return std::stoull(log.substr(log.find(prefix, at) + prefix.size()));
  }
  // Waits until the start-up has written what it writes by itself (on a machine up for less than
  // 10 minutes, the boot notification's row) and returns the log's size: a step that follows
  // writes after this mark.
  std::size_t SettledLogMark() {
    if (StartUpUptime() < 600000) {
      EXPECT_NE(FindLine(LogWhen("PrintAgentServiceAccessLog", "Message :Machine_Bootup_Notification"),
                         "PrintAgentServiceAccessLog", "Message :Machine_Bootup_Notification"),
                std::string::npos);
    }
    return Log().size();
  }
  std::string AccessLog() const {
    return korva::test::ReadFileBytes(dir_.File(L"logs\\korva_agentserviceaccess.log"));
  }

  korva::test::TempDir dir_;
  korva::win::UniqueServiceHandle service_;
};

TEST_F(ServiceTest, StartUpRunsInItsOrderAndReachesRunning) {
  Start();
  const std::string log = LogWhen("InvokeMainThread", "@@@ End of InvokeMainThread @@@");
  const std::vector<std::pair<std::string, std::string>> order = {
      {"ServiceMain", "@@@ Inside ServiceMain @@@"},
      {"ServiceMain", "Event Created Successfully."},
      {"ServiceMain", "RegisterServiceCtrlHandlerEx callback registration is successful."},
      {"UpdateServiceAccess", "@@@ Inside UpdateServiceAccess @@@"},
      {"CheckQVFAFilterRequirement", "@@@ Inside CheckQVFAFilterRequirement @@@"},
      {"ServiceMain", "IsQVFANeeded:0"},
      {"ServiceMain", "hTempAccessRevokeTimerQueue is created successfully."},
      {"ProcessandUpdateTemporaryAccess", "@@@ Inside ProcessandUpdateTemporaryAccess @@@"},
      {"ChangeServiceStatus", "Service status reported :2"},
      {"FetchRestoreUnpluggedBlockedDevice", "@@@ Inside FetchRestoreUnpluggedBlockedDevice @@@"},
      {"ServiceMain", "No need to start File Auditing Application."},
      {"RegisterAllDeviceNotification", "@@@ Inside RegisterAllDeviceNotification @@@"},
      {"ChangeServiceStatus", "Service status reported :4"},
      {"ServiceMain", "TESK agent service started successfully."},
      {"ServiceMain", "Waiting for shutdown Notification."},
  };
  std::size_t at = 0;
  for (const auto& [function, message] : order) {
    const std::size_t found = FindLine(log, function, message, at);
    ASSERT_NE(found, std::string::npos) << "missing or out of order: " << message;
    at = found;
  }
  // The main thread's own order.
  const std::vector<std::pair<std::string, std::string>> mainThread = {
      {"InvokeMainThread", "System Bootup time :"},
      {"ExecuteDeviceEventAction", "@@@ Inside ExecuteDeviceEventAction @@@"},
      {"UpdateMonitoringVariable", "@@@ Inside UpdateMonitoringVariable @@@"},
      {"InvokeMainThread", "@@@ End of InvokeMainThread @@@"},
  };
  at = 0;
  for (const auto& [function, message] : mainThread) {
    const std::size_t found = FindLine(log, function, message, at);
    ASSERT_NE(found, std::string::npos) << "missing or out of order: " << message;
    at = found;
  }
  EXPECT_TRUE(HasLogLine(log, "ProcessRestoreBlockedDeviceThread",
                         "@@@ Inside ProcessRestoreBlockedDeviceThread Method @@@"));
  for (const char* worker : {"MonitorSettingsModified", "MonitorRFCOMMStatus", "PipeConnect"}) {
    EXPECT_TRUE(HasLogLine(log, worker, std::string("@@@ Inside ") + worker + " @@@")) << worker;
  }
  // The branch the host is in, as the start-up saw it.
  if (StartUpUptime() >= 600000) {
    EXPECT_TRUE(HasLogLine(log, "InvokeMainThread", "Power Refresh Notification is assigned."));
    EXPECT_EQ(AccessLog().find("Machine_Bootup_Notification"), std::string::npos);
  } else {
    EXPECT_TRUE(HasLogLine(log, "InvokeMainThread", "Computer Bootup Notification is assigned."));
    SettledLogMark();
    EXPECT_NE(AccessLog().find("\tMachine_Bootup_Notification\t"), std::string::npos);
  }
  std::string needed;
  EXPECT_EQ(ReadRegSZ("SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings", "isQVFANeeded", needed), 0);
  EXPECT_EQ(needed, "0");
}

TEST_F(ServiceTest, StopReportsPendingThenStoppedAndWritesTheStopRow) {
  Start();
  SendStop(service_.get(), SERVICE_CONTROL_STOP);
  EXPECT_EQ(State(SERVICE_STOPPED), static_cast<DWORD>(SERVICE_STOPPED));
  // Nothing is lost when the process ends after STOPPED: ServiceMain's last line is there.
  const std::string log = LogWhen("ServiceMain", "@@@ End of ServiceMain @@@");
  EXPECT_TRUE(HasLogLine(log, "ServiceMain", "@@@ End of ServiceMain @@@"));
  const std::size_t triggered =
      FindLine(log, "HandlerEx", "SERVICE_CONTROL_STOP Event (Manual Service Stop) is triggered.");
  ASSERT_NE(triggered, std::string::npos);
  const std::size_t pending = FindLine(log, "ChangeServiceStatus", "Service status reported :3", triggered);
  ASSERT_NE(pending, std::string::npos);
  EXPECT_NE(FindLine(log, "ChangeServiceStatus", "Service status reported :1", pending), std::string::npos);
  EXPECT_TRUE(HasLogLine(log, "ServiceMain", "DeleteTimerQueue for QVFAFilterTimerQueue is failed due to following error."));
  EXPECT_TRUE(HasLogLine(log, "InvokeShutdown", "lpParam :1"));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "SERVICE_CONTROL_STOP Event (Manual Service Stop) - end of block."));

  const std::string access = AccessLog();
  EXPECT_EQ(access.rfind("DATE\t\tNOTIFICATION-TIME\tNOTIFICATION-RECEIVED\r\n----\t\t-----------------\t---------------------\r\n", 0), 0u)
      << access;
  EXPECT_NE(access.find("\t\t\tManual_Service_Stop_Notification\t"), std::string::npos);
  EXPECT_NE(access.back(), '\n');

  // A second run adds its row under the same single header. The control client stops it this time:
  // a control that the manager times out while the stop is under way is not a failure for it.
  Start();
  const korva::test::ProgramResult stop =
      korva::test::RunProgram(L"\"" + korva::test::ProgramFolder() + L"\\korvaSvcCtl.exe\" stop", 90000);
  EXPECT_EQ(stop.exitCode, 0u) << stop.output;
  EXPECT_NE(stop.output.find("STOPPED after "), std::string::npos) << stop.output;
  EXPECT_EQ(stop.output.find("failed"), std::string::npos) << stop.output;
  ASSERT_EQ(State(SERVICE_STOPPED, 0), static_cast<DWORD>(SERVICE_STOPPED));
  const std::string twice = AccessLog();
  EXPECT_EQ(twice.find("DATE\t\t", 1), std::string::npos);
  EXPECT_NE(twice.find("Manual_Service_Stop_Notification", twice.find("Manual_Service_Stop_Notification") + 1),
            std::string::npos);
}

TEST_F(ServiceTest, UserDefinedStopCodeStopsTheService) {
  Start();
  SendStop(service_.get(), 193);
  EXPECT_EQ(State(SERVICE_STOPPED), static_cast<DWORD>(SERVICE_STOPPED));
  const std::string log = LogWhen("ChangeServiceStatus", "Service status reported :1");
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "SERVICE_USER_STOP Event (Manual user defined Service Stop) is triggered."));
  EXPECT_NE(AccessLog().find("Manual_Service_Stop_Notification"), std::string::npos);
}

TEST_F(ServiceTest, OtherUserCodesAreRefusedAndTheServiceRunsOn) {
  Start();
  const std::size_t mark = SettledLogMark();
  const std::string rowsBefore = AccessLog();
  EXPECT_EQ(korva::test::SendControl(service_.get(), 200), 0u);
  const std::string log = LogWhen("HandlerEx", "User-Defined Contrls are currently not being accepted!", mark).substr(mark);
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "User-Defined Contrls are currently not being accepted!"));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "@@@ Inside HandlerEx Method with control word200@@@"));
  Sleep(200);
  EXPECT_FALSE(HasLogLineStartingWith(Log().substr(mark), "PrintAgentServiceAccessLog", "Message :"));
  EXPECT_EQ(AccessLog(), rowsBefore);
  EXPECT_EQ(State(SERVICE_RUNNING, 0), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST_F(ServiceTest, PauseGivesPausedAndInterrogateReportsRunningAgain) {
  Start();
  ASSERT_EQ(korva::test::SendControl(service_.get(), SERVICE_CONTROL_PAUSE), 0u);
  EXPECT_EQ(State(SERVICE_PAUSED), static_cast<DWORD>(SERVICE_PAUSED));
  ASSERT_EQ(korva::test::SendControl(service_.get(), SERVICE_CONTROL_INTERROGATE), 0u);
  EXPECT_EQ(State(SERVICE_RUNNING), static_cast<DWORD>(SERVICE_RUNNING));
  const std::string log = LogWhen("HandlerEx", "Service Control Pause notification - end of block.");
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "Service Control Pause notification is received."));
}

TEST_F(ServiceTest, StartUpDeviceActionRunsTheEnumerationSummary) {
  // A sub-product agent: its settings file names the installation folder, whose DeviceControl\bin
  // holds the helper programs.
  const std::wstring deviceControl = dir_.File(L"DeviceControl");
  CreateDirectoryW(deviceControl.c_str(), nullptr);
  CreateDirectoryW((deviceControl + L"\\bin").c_str(), nullptr);
  const korva::test::StandInFolder bin(deviceControl + L"\\bin");
  const std::wstring summary = bin.Add(L"korvaDevCtrlSummary");
  std::string escaped;
  for (char c : dir_.NarrowPath() + "\\") escaped += c == '\\' ? std::string("\\\\") : std::string(1, c);
  korva::test::WriteFileBytes(dir_.File(L"agent.json"), "{\"agent_installed_dir\": \"" + escaped + "\"}");
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "GlobalJsonPath", REG_SZ, dir_.NarrowPath() + "\\agent.json"), 0);

  Start();
  const std::vector<korva::test::JournalEntry> journal = bin.WaitForJournal(1, 30000);
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].name, "korvaDevCtrlSummary");
  const std::string expected = "-s ET_ENUM 9 2 \"Unknown\"";
  ASSERT_GE(journal[0].commandLine.size(), expected.size());
  EXPECT_EQ(journal[0].commandLine.substr(journal[0].commandLine.size() - expected.size()), expected);
  EXPECT_EQ(journal[0].commandLine.rfind("\"" + korva::win::WideToUtf8(summary) + "\" ", 0), 0u) << journal[0].commandLine;
}

}  // namespace
