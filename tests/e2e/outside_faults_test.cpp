// Faults outside the service, survived by the installed executable under the service control manager.
#include <sstream>

#include "e2e/service_fixture.h"
#include "fileaudit/file_shadow.h"

namespace korva::test {
namespace {

const std::string kQvm = std::string(kAgentKey) + "\\QVM\\Settings";
constexpr const char* kMonitor = "MonitorSettingsModified";
constexpr const char* kPass = "ProcessandUpdateTemporaryAccess";
constexpr const char* kReacting = "Agent settings changed; applying them.";

// The agent laid out as installed, the configuration program standing in at BasePath.
class OutsideFaultTest : public ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    LayOutAsInstalled();
    base_.Add(L"qvconfig");
  }
  std::size_t StartWatching() {  // starts the service; the log's size once the settings watcher watches its key
    Start();
    EXPECT_TRUE(Logged(kMonitor, "Watching ["));
    return Log().size();
  }
  // The first argument of each run of `name` in `folder`'s journal (after the quoted program path).
  static std::vector<std::string> Requests(const StandInFolder& folder, const std::string& name) {
    std::vector<std::string> requests;
    for (const JournalEntry& run : folder.Journal()) {
      std::istringstream words(run.commandLine.substr(run.commandLine.find('"', 1) + 1));
      std::string first;
      if (run.name == name && words >> first) requests.push_back(first);
    }
    return requests;
  }
  // The console's settings write that comes with a policy or grant change: a value the agent does not
  // read, changed each time (Wine signals no write that leaves a value as it was).
  void ConsoleWrite() { SetDword(kQvm, "PolicyRevision", ++revision_); }
  [[nodiscard]] static std::string FilterNeeded() {
    std::string needed;
    return ReadRegSZ(kQvm, "isQVFANeeded", needed) == ERROR_SUCCESS ? needed : "(none)";
  }

  DWORD revision_ = 0;
};

// Wine delivers no session change: the logon's routine is called here; with a grant file a reaction
// would start the configuration program. With the console's settings write, a new policy sets the
// filter up and runs the 10-second cycle; once it goes, the filter is stopped and the cycle's next pass
// stops itself. Then the watcher notices its key's deletion (signalled, or on its look every 5 s) and
// waits for the key again.
TEST_F(OutsideFaultTest, TheSettingsWatcherFollowsAPolicyAndItsKeyMadeAgainButNotALogonsOwnWrites) {
  WriteFileBytes(PolicyFile(L"ta.json_tmp"), GrantEnding(3600));
  bin_.Add(L"driversetup64");  // every machine Wine runs on is 64-bit
  const std::size_t mark = StartWatching();
  const std::size_t runs = Requests(base_, "qvconfig").size();
  UpdateRegistryForDeviceControlPolicy(1);
  EXPECT_TRUE(Logged(kMonitor, "Nothing the settings reaction depends on has changed; no reaction.", mark));
  EXPECT_FALSE(HasLineWith(Log(), kMonitor, kReacting, mark));
  EXPECT_EQ(Requests(base_, "qvconfig").size(), runs);

  const std::size_t appeared = Log().size();
  EXPECT_EQ(FilterNeeded(), "0");
  WriteFileBytes(PolicyFile(L"devicecontrol.json"), "{}");
  ConsoleWrite();
  const char* kCycle = "ProcessQVFAFilterMethod";
  EXPECT_TRUE(Logged(kCycle, "@@@ End of ProcessQVFAFilterMethod @@@", appeared));
  EXPECT_EQ(FilterNeeded(), "1");
  EXPECT_EQ(Requests(bin_, "driversetup64"), (std::vector<std::string>{"-install", "-start"}));
  const std::size_t gone = Log().size();
  EXPECT_LOG_ORDER(Log().substr(appeared, gone - appeared),
                   {{kMonitor, kReacting}, {kMonitor, "QVFAFilterTimerQueue is created successfully."}, Entered(kCycle),
                    {kCycle, "Skipping the Execution and Timer routine.", LogLine::kAbsent}});

  ASSERT_TRUE(DeleteFileW(PolicyFile(L"devicecontrol.json").c_str()));
  ConsoleWrite();
  EXPECT_TRUE(Logged(kCycle, "Skipping the Execution and Timer routine.", gone));
  EXPECT_EQ(FilterNeeded(), "0");
  EXPECT_EQ(Requests(bin_, "driversetup64"), (std::vector<std::string>{"-install", "-start", "-stop"}));
  EXPECT_LOG_ORDER(Log().substr(gone),
                   {{kMonitor, kReacting}, {"DriverServiceExecution", "Command to Execute :", LogLine::kPrefix},
                    {kCycle, "Skipping the Execution and Timer routine."}});

  const std::size_t deleted = Log().size();
  // The key goes with the subkey the logon's writes made in it.
  ASSERT_EQ(RegDeleteTreeA(AgentKey(std::string(kAgentKey) + "\\QVM").get(), "Settings"), ERROR_SUCCESS);
  const std::string lost = "[" + kQvm + "] can no longer be watched; waiting for it again.";
  ASSERT_TRUE(Logged(kMonitor, lost, deleted));
  SetDword(kQvm, "MonitorEncryptedDevice", 1);
  EXPECT_TRUE(Logged("UpdateMonitoringVariable", "MonitorEncryptedDevice :1", deleted));
  EXPECT_LOG_ORDER(Log().substr(deleted),
                   {{kMonitor, lost}, {kMonitor, "Watching [" + kQvm + "] for changes."}, {kMonitor, kReacting},
                    {"UpdateMonitoringVariable", "MonitorEncryptedDevice :1"}});
  Stop();
}

// A settings change makes a pass while the grant file is damaged; the revoke comes once it reads again.
TEST_F(OutsideFaultTest, AGrantPassThatFailsKeepsThePendingRevoke) {
  const std::string grant = GrantEnding(10);
  WriteFileBytes(PolicyFile(L"ta.json_tmp"), grant);
  const std::size_t mark = StartWatching();
  WriteFileBytes(PolicyFile(L"ta.json_tmp"), R"([{"ta_id":)");
  ConsoleWrite();
  const std::string kept = "The grant files could not be read; the revoke timer looks again in ";
  ASSERT_TRUE(Logged(kMonitor, kept, mark));
  WriteFileBytes(PolicyFile(L"ta.json_tmp"), grant);
  const std::string revoked = "Going to remove the old temp access.";
  EXPECT_TRUE(Logged(kPass, revoked, mark, L"", 90000));
  EXPECT_LOG_ORDER(Log().substr(mark), {{kMonitor, kReacting}, {kMonitor, kept, LogLine::kPrefix},
                                        Entered("TempAccessRevokeTimerRoutine"), {kPass, revoked}});
  Stop();
}

// A million empty grants: 4,096 processed, member problems listed for the first 100, the rest counted.
TEST_F(OutsideFaultTest, AMillionGrantFileAtStartUpCostsABoundedPassAndTheLogDoesNotRoll) {
  // Run from "DeviceControl\bin", the service loads its decryption library from "..\..\bin".
  const std::wstring exe = dir_.File(L"DeviceControl\\bin\\korvaAgentService.exe");
  ASSERT_TRUE(CopyFileW(ServiceExecutable().c_str(), exe.c_str(), FALSE));
  CreateDirectoryW(dir_.File(L"bin").c_str(), nullptr);
  ASSERT_TRUE(CopyFileW((ProgramFolder() + L"\\ClientAuthHandler.dll").c_str(),
                        dir_.File(L"bin\\ClientAuthHandler.dll").c_str(), FALSE));
  ASSERT_EQ(RunProgram(exe, L" /i", 120000).exitCode, 0u);
  std::string grants = "[{}";
  for (int i = 1; i < 1000000; ++i) grants += ",{}";
  WriteFileBytes(PolicyFile(L"ta.json"), ToyEncipher(grants + "]"));
  const std::size_t mark = Log().size();
  Start();
  const std::string log = LogWhen("ServiceMain", "TESK agent service started successfully.", mark).substr(mark);
  const std::string ignored = " is missing or of the wrong type; taken as 0.";
  EXPECT_LOG_ORDER(log,
                   {{kPass, "Only the first 4096 grants are processed; 995904 more are not."},
                    {kPass, "Grant 99: member duration_to" + ignored},
                    {kPass, "27972 more member problems in grants after the first 100 are not listed; each was taken "
                            "as 0."},
                    {"ServiceMain", "TESK agent service started successfully."}});
  EXPECT_EQ(CountOf(log, ignored), 100u * 7u);
  EXPECT_EQ(CountOf(log, "] policy ["), 4096u);
  EXPECT_FALSE(FileExists(dir_.File(L"logs\\korva_agentservice1.log"))) << "the log rolled";
  Stop();
}

// The start-up's setup runs for a device-control policy (install, start) flood and never end. The agent
// is the test-only build whose setup programs may run 1 minute, not 5.
TEST_F(OutsideFaultTest, AFloodingSetupProgramIsEndedAtItsLimitAndTheServiceReachesRunning) {
  const std::wstring exe = dir_.File(L"DeviceControl\\bin\\korvaAgentService.exe");
  ASSERT_TRUE(CopyFileW((ProgramFolder() + L"\\korvaAgentServiceQuickSetup.exe").c_str(), exe.c_str(), FALSE));
  ASSERT_EQ(RunProgram(exe, L" /i", 120000).exitCode, 0u);
  bin_.Add(L"driversetup64");  // every machine Wine runs on is 64-bit
  WriteFileBytes(dir_.File(L"DeviceControl\\bin\\driversetup64.behaviour"), "flood=1\n");
  WriteFileBytes(PolicyFile(L"devicecontrol.json"), "{}");
  const std::size_t mark = Log().size();
  ASSERT_EQ(StartServiceOnce(service_.get()), 0u);
  // The two minutes of setup outlast START_PENDING's 30-second wait hint: the checkpoint goes on rising.
  SERVICE_STATUS status{};
  DWORD lastPendingCheckPoint = 0;
  EXPECT_TRUE(WaitUntil([&] {
    if (!QueryServiceStatus(service_.get(), &status)) return true;
    if (status.dwCurrentState == SERVICE_START_PENDING) lastPendingCheckPoint = status.dwCheckPoint;
    return status.dwCurrentState != SERVICE_START_PENDING;
  }, 240000));
  EXPECT_EQ(status.dwCurrentState, DWORD{SERVICE_RUNNING});
  EXPECT_GE(lastPendingCheckPoint, 4u) << "START_PENDING was not reported again while the setup ran";
  EXPECT_TRUE(Logged("ServiceMain", "TESK agent service started successfully."));  // written after RUNNING
  // The captured output is kept to 64 KiB a run (logged line by line and whole); the log may roll.
  const std::string log = (ReadFileBytes(dir_.File(L"logs\\korva_agentservice1.log")) + Log()).substr(mark);
  EXPECT_EQ(CountOf(log, "as time is exceeded 1 Minutes"), 2u) << "the install and the start, each ended";
  EXPECT_LOG_ORDER(log, {{"ExecuteAndPrintMessage", "Terminating the Process for application ", LogLine::kPrefix},
                         {"ExecuteAndPrintMessage", "Terminating the Process for application ", LogLine::kPrefix},
                         {"ServiceMain", "TESK agent service started successfully."}});
  EXPECT_EQ(Requests(bin_, "driversetup64"), (std::vector<std::string>{"-install", "-start"}));
  EXPECT_TRUE(ProcessesNamed(L"driversetup64.exe").empty()) << "left running";
  // The stop runs it once more ("-stop"): not a flooding one, which would outlive the service.
  ASSERT_TRUE(DeleteFileW(dir_.File(L"DeviceControl\\bin\\driversetup64.behaviour").c_str()));
  Stop();
}

}  // namespace
}  // namespace korva::test
