// File audit in-process against the real registry, files, timer queue and service control manager.
#include <thread>

#include "fileaudit/driver_installation.h"
#include "fileaudit/file_shadow.h"
#include "fileaudit/filter_attach.h"
#include "shared/service_state.h"
#include "support/agent_fixture.h"
#include "win/services.h"

namespace korva::test {
namespace {

using Runs = std::vector<std::string>;
const std::string kQvm = std::string(kAgentKey) + "\\QVM\\Settings";
int g_family = 7;

// A USB stick at E:, the driver helpers as stand-ins, a 64-bit machine whichever build runs.
class FileAuditTest : public VolumeTableTest {
 protected:
  void SetUp() override {
    VolumeTableTest::SetUp();
    ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, dir_.NarrowPath()), 0);
    AgentParameters.isWow64 = 1;
    for (const wchar_t* folder : {L"data", L"data\\policy"}) CreateDirectoryW(dir_.File(folder).c_str(), nullptr);
    for (const auto* name : {L"korvaFaService", L"korvaFileShadow", L"driversetup64", L"korvaFaUser"}) bin_.Add(name);
    probe_.volumes = {kStick};
    SetOsFamilySourceForTest([] { return g_family; });
    StartFilterCycle("FileAuditTest");  // the pass arms its next one on the cycle's queue
  }
  void TearDown() override {
    SetOsFamilySourceForTest(nullptr);
    g_family = 7;
    VolumeTableTest::TearDown();
  }
  // The journal as "<program> <what follows its quoted path>".
  [[nodiscard]] Runs Journal() const {
    Runs runs;
    for (const auto& entry : bin_.Journal()) {
      const std::size_t exe = entry.commandLine.find(".exe\"");
      runs.push_back(entry.name + (exe == std::string::npos ? "" : entry.commandLine.substr(exe + 5)));
    }
    return runs;
  }
  void Policy(const wchar_t* name, const char* bytes) const {
    const std::wstring path = dir_.File(std::wstring(L"data\\policy\\") + name);
    DeleteFileW(path.c_str());
    if (bytes != nullptr) WriteFileBytes(path, bytes);
  }
};

TEST_F(FileAuditTest, StopSwitchAndPolicyFilesDecideWhetherTheFilterIsWanted) {
  // IsStopFileAudit and the two policy files' bytes (null: none), and whether the filter is wanted.
  const struct { const char* stop; const char* deviceControl; const char* secureUsb; int required; } cases[] = {
      {nullptr, nullptr, nullptr, 0}, {nullptr, "", "", 0},   {nullptr, "{}", nullptr, 1},
      {"0", "", "{}", 1},             {"1", "{}", "{}", 0},   {"2", "{}", nullptr, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.stop ? c.stop : "-") << " " << c.required);
    RegDeleteValueA(AgentKey(kQvm).get(), "IsStopFileAudit");
    ASSERT_TRUE(c.stop == nullptr || writeValue(kQvm, "IsStopFileAudit", REG_DWORD, c.stop) == 0);
    Policy(L"devicecontrol.json", c.deviceControl);
    Policy(L"secureusb.json", c.secureUsb);
    int required = -1;
    const std::string log = LoggedBy([&] { required = CheckQVFAFilterRequirement(); });
    EXPECT_EQ(required, c.required);
    EXPECT_TRUE(HasLogLine(log, "CheckQVFAFilterRequirement", "isQVFAFilterRequired :" + std::to_string(c.required)));
  }
}

TEST_F(FileAuditTest, AttachExitCodesDecideWhetherTheFilterStartedNow) {
  for (const auto& [exitCode, result] : {std::pair{0, 0}, {3010, 0}, {1641, 0}, {1508, 0}, {1, 1}}) {
    bin_.Add(L"korvaFaService", exitCode);
    bin_.ClearJournal();
    EXPECT_EQ(IsFilterAttachedToDrive(L"E:\\"), result) << exitCode;
    // No driver service: its start request runs first.
    EXPECT_EQ(Journal(),
              (Runs{"driversetup64  -install \"" + dir_.NarrowPath() + "\\\\bin\\driver\\x64\\Win10\\QVFAFilter.inf\"",
                    "driversetup64 -start", "korvaFaService -attach \"E:\\\\\""}));
  }
}

TEST_F(FileAuditTest, PassStartsFileShadowWhereTheFilterStartedAndRearmsUntilNotWanted) {
  ASSERT_EQ(writeValue(kQvm, "isQVFANeeded", REG_SZ, "1"), 0);  // the text the start-up writes
  bin_.Add(L"korvaFaService", 3010);
  unsigned armed = FilterTimerArmingsForTest();
  std::string log = LoggedBy(ProcessQVFAFilterMethod);
  EXPECT_TRUE(HasLogLine(log, "ProcessQVFAFilterMethod", "Filter for Drive :E:\\started successfully"));
  EXPECT_EQ(log.find("unexpected type"), std::string::npos) << "the text form is no wrong-typed value";
  EXPECT_EQ(bin_.WaitForJournal(4, 10000).back().name, "korvaFileShadow");
  EXPECT_EQ(Journal().back(), "korvaFileShadow \"E:\\\\\"");
  EXPECT_EQ(FilterTimerArmingsForTest(), armed + 1);

  bin_.Add(L"korvaFaService", 1);
  bin_.ClearJournal();
  log = LoggedBy(ProcessQVFAFilterMethod);
  EXPECT_TRUE(HasLogLine(log, "ProcessQVFAFilterMethod", "Filter for Drive : {E:\\} Already Running"));
  EXPECT_EQ(log.find("[ ExecuteFileShadowApplication ]"), std::string::npos);  // it logs before starting

  // A stop that has begun ends a pass before it starts any program.
  bin_.Add(L"korvaFaService", 3010);
  bin_.ClearJournal();
  ServiceStopRequested.store(true);
  EXPECT_TRUE(HasLogLine(LoggedBy(ProcessQVFAFilterMethod), "ProcessQVFAFilterMethod",
                         "The service is stopping; the pass ends here."));
  ServiceStopRequested.store(false);
  EXPECT_TRUE(Journal().empty());

  probe_.volumes.clear();
  armed = FilterTimerArmingsForTest();
  const std::string empty = "Removable Drive List is Empty";
  EXPECT_TRUE(HasLogLine(LoggedBy(ProcessQVFAFilterMethod), "ProcessQVFAFilterMethod", empty));
  EXPECT_EQ(FilterTimerArmingsForTest(), armed + 1) << "an empty list still re-arms";

  // A text that is no number cannot be read: the filter stays wanted.
  for (const char* text : {"yes", "off", "", "-1", "1x", "99999999999"}) {
    ASSERT_EQ(writeValue(kQvm, "isQVFANeeded", REG_SZ, text), 0);
    EXPECT_EQ(fileaudit::ReadFilterNeeded(), 1u) << text;
  }
  armed = FilterTimerArmingsForTest();
  ASSERT_EQ(writeValue(kQvm, "isQVFANeeded", REG_DWORD, "0"), 0);  // as an administrator may store it
  EXPECT_TRUE(HasLogLine(LoggedBy(ProcessQVFAFilterMethod), "ProcessQVFAFilterMethod",
                         "Skipping the Execution and Timer routine."));
  EXPECT_EQ(FilterTimerArmingsForTest(), armed) << "not wanted: the cycle ends";
  // Nor is a new drive attached.
  bin_.ClearJournal();
  EXPECT_LOG_LINES(LoggedBy([] { AttachFilterToDrive(L"E:\\"); }),
                   {{"AttachFilterToDrive", "Driver Service Status :1"},
                    {"AttachFilterToDrive", "Driver Execution skipped, due to IsQVFANeeded is 0"}});
  EXPECT_TRUE(Journal().empty());
}

// A setup program that is missing (the last row) is logged as giving no message, and the pass goes on.
TEST_F(FileAuditTest, SetupRequestsInstallOnlyAnAbsentDriverAndNeverBelowWindows7) {
  const std::string inf = "\"" + dir_.NarrowPath() + "\\\\bin\\driver\\x64\\Win8.1\\QVFAFilter.inf\"";
  const struct { bool present; int family, request; Runs runs; bool program = true; } cases[] = {
      {true, 7, 1, {"driversetup64 -start"}}, {false, 6, 2, {"driversetup64 -stop"}},
      {true, 5, 3, {"driversetup64 -install " + inf}}, {false, 2, 1, {}},
      {false, 9, 4, {"driversetup64 -uninstall \"" + dir_.NarrowPath() + "\\\\bin\\driver\\x64\\\\QVFAFilter.inf\""}},
      {false, 7, 1, {}, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.family << " " << c.request << " " << c.program);
    g_family = c.family;
    bin_.ClearJournal();
    ASSERT_TRUE(c.program || DeleteFileW((bin_.folder() + L"\\driversetup64.exe").c_str()));
    const win::UniqueServiceHandle manager = win::OpenServiceManager(SC_MANAGER_ALL_ACCESS);
    const std::wstring standIn = L"\"" + ProgramFolder() + L"\\korvaStandIn.exe\"";
    const win::UniqueServiceHandle driver(
        c.present ? CreateServiceW(manager.get(), L"QVFAFilter", L"QVFAFilter", SERVICE_ALL_ACCESS,
                                   SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                   standIn.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr) : nullptr);
    ASSERT_EQ(static_cast<bool>(driver), c.present) << GetLastError();
    const std::string log = LoggedBy([&] { DriverServiceExecution(c.request); });
    if (driver) DeleteService(driver.get());
    EXPECT_EQ(Journal(), c.runs);
    EXPECT_EQ(
        HasLogLine(log, "DriverServiceExecution", "OS detected as below windows 7. Neglecting driver installation."),
        c.family == 2);
    EXPECT_EQ(HasLogLine(log, "GetOSBasedDriverPath", "OS Family is not supported."), c.family < 3 || c.family > 7);
    EXPECT_EQ(HasLogLine(log, "GetOSBasedDriverPath", "Detected as Windows 8_1."), c.family == 5);
    if (c.program) continue;
    EXPECT_LOG_LINES(log, {{"DriverServiceExecution", "Unable to get message."},
                           {"DriverServiceExecution", "Return Value [", LogLine::kPrefix},
                           {"DriverServiceExecution", "Message : ", LogLine::kAbsent}});
  }
}

// Two callers at once (the start-up's first install outlasts the filter pass's 10 s): the second waits
// for the first's run, and then starts nothing the filter is no longer wanted for, unless it is on
// the control handler's thread, which never waits for another's.
// Once a stop has begun, its "-stop" runs at once and a run under way sets up nothing more.
TEST_F(FileAuditTest, OneSetupRunsAtATimeAndNeitherTheHandlerNorTheStopWaitsForIt) {
  // The driver is absent: a start installs first. Each program runs 2 s, so a caller that comes right
  // after the first journal line finds the run still under way even on a loaded machine.
  bin_.Add(L"driversetup64", 0, 2000);
  const auto whileARunIsUnderWay = [this](const std::function<void()>& step) {
    bin_.ClearJournal();
    const std::string log = LoggedBy([&] {
      std::thread running([] { DriverServiceExecution(fileaudit::kDriverStart); });
      EXPECT_TRUE(WaitUntil([&] { return !Journal().empty(); }, 10000));
      step();
      running.join();
    });
    ServiceStopRequested.store(false);
    Runs requests;
    for (const std::string& run : Journal()) {
      const std::size_t request = run.find(" -") + 1;
      requests.push_back(run.substr(request, run.find(' ', request) - request));
    }
    return std::make_pair(requests, log);
  };
  const auto start = [] { DriverServiceExecution(fileaudit::kDriverStart); };
  EXPECT_EQ(whileARunIsUnderWay(start).first, (Runs{"-install", "-start", "-install", "-start"}));
  const auto [unwanted, unwantedLog] = whileARunIsUnderWay([&] {
    ASSERT_EQ(writeValue(kQvm, "isQVFANeeded", REG_SZ, "0"), 0);  // as a policy's going writes it
    start();
  });
  RegDeleteValueA(AgentKey(kQvm).get(), "isQVFANeeded");
  EXPECT_EQ(unwanted, (Runs{"-install", "-start"}));
  EXPECT_EQ(CountOf(unwantedLog, "The filter is no longer wanted; request 1 is not run."), 1u);
  const auto [handlers, handlerLog] = whileARunIsUnderWay([&] {
    const ControlHandlerThreadMark onHandlerThread;
    start();
  });
  EXPECT_EQ(handlers, (Runs{"-install", "-start"}));
  EXPECT_EQ(CountOf(handlerLog, "Another driver setup run is under way; request 1 is left to it."), 1u);
  const auto [stopping, stopLog] = whileARunIsUnderWay([] {
    ServiceStopRequested.store(true);
    DriverServiceExecution(fileaudit::kDriverStop);
  });
  EXPECT_EQ(stopping, (Runs{"-install", "-stop"}));
  EXPECT_EQ(CountOf(stopLog, "] [ DriverServiceExecution ] The service is stopping; the driver is not set up.\r\n"),
            1u);
}

}  // namespace
}  // namespace korva::test
