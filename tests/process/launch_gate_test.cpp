// Every launch site against agent folders a standard user could create or steer: nothing starts, and
// each program's refusal is logged once however often its event comes.
#include <functional>

#include "devicecontrol/action_program.h"
#include "devicecontrol/summary_program.h"
#include "fileaudit/driver_installation.h"
#include "fileaudit/file_shadow.h"
#include "fileaudit/filter_attach.h"
#include "ondemand/ondemand_control.h"
#include "process/launch_gate.h"
#include "process/launcher.h"
#include "service/notifications.h"
#include "settings/error_text.h"
#include "shared/path_links.h"
#include "support/agent_fixture.h"
#include "tempaccess/temporary_access.h"

namespace korva::test {
namespace {

struct Site {
  std::string program;
  std::function<void()> run;
};

// The sites and their programs (no ".exe") on a 64-bit machine (the tests set the agent parameters' flag so).
std::vector<Site> Sites() {
  return {
      {"devctrlaction64", [] { (void)ExecuteDeviceApplication(2, L"alice"); }},
      {"korvaDevCtrlSummary", [] { ExecuteDeviceEventAction(1, 0, L"USB\\VID_0781&PID_5567\\4C53"); }},
      {"driversetup64", [] { DriverServiceExecution(1); }},
      {"korvaFaUser", [] { StartDriverUserApplication(); }},
      {"korvaFaService", [] { (void)IsFilterAttachedToDrive(L"E:\\"); }},
      {"korvaFileShadow", [] { ExecuteFileShadowApplication(L"E:\\"); }},
      {"korvaAgentTrayIcon", [] { ExecuteAgentTrayIcon_TA(1); }},
      {"korvaOnDemand", [] { (void)InitiateOnDemandExec(); }},
      {"korvaConfig", [] { ExecuteConfigurationWithin(5000); }},
  };
}

std::vector<std::string> Programs() {
  std::vector<std::string> programs;
  for (const Site& site : Sites()) programs.push_back(site.program);
  return programs;
}

class LaunchGateTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    AgentParameters.isWow64 = 1;
    process::ForgetRefusalsForTest();
  }
  void TearDown() override {
    process::ForgetRefusalsForTest();
    AgentTest::TearDown();
  }
  // Points every agent folder at `folder`, as the settings file and the registry would.
  static void UseFolders(const std::string& folder) {
    SetInstallDirectory(folder);
    AgentInstallDirGlobal = folder;
    ConfigProgramPath = win::AnsiToWide(folder) + L"\\bin\\korvaConfig.exe";
  }

  PlantedBin planted_{Programs()};
};

// Each site names the folder's fault. A link a user could re-point in the agent folder's place starts
// nothing through it, although what it leads to holds every program; nor does a folder under one that is
// missing, which the agent would have to make.
TEST_F(LaunchGateTest, NoSiteStartsFromAFolderThatIsNotTheAgentsOwnNorThroughALinkAUserCouldRepoint) {
  for (const std::string& program : Programs()) bin_.Add(win::AnsiToWide(program));
  const TempDir links;
  const FolderLink agentLink(links.File(L"agent"), dir_.path());
  ASSERT_TRUE(agentLink.made());
  using F = folders::FolderFault;
  const struct { std::string folder; F fault; } rows[] = {
      {"", F::kEmpty}, {"C:\\", F::kDriveRoot}, {"DeviceControl\\", F::kNotFullyQualified},
      {"\\\\server\\share\\Agent\\", F::kNetworkOrDevice}, {"C:\\Agent\\..\\", F::kDotSegment},
      {win::WideToAnsi(links.File(L"agent")) + "\\", F::kUnsafeStep},
      {win::WideToAnsi(links.File(L"gone\\agent")) + "\\", F::kParentMissing}};
  for (const auto& row : rows) {
    SCOPED_TRACE("folder \"" + row.folder + "\"");
    process::ForgetRefusalsForTest();
    UseFolders(row.folder);
    const std::string logged = LoggedBy([] {
      for (int event = 0; event < 2; ++event) {
        for (const Site& site : Sites()) site.run();
      }
    });
    for (const Site& site : Sites()) EXPECT_EQ(CountOf(logged, site.program + ".exe is not started: "), 1u) << site.program;
    EXPECT_EQ(CountOf(logged, "Process successfully created"), 0u);
    EXPECT_EQ(CountOf(logged, folders::FaultText(row.fault)), Sites().size()) << logged;
  }
  EXPECT_TRUE(planted_.Journal().empty());
  EXPECT_TRUE(bin_.Journal().empty());
}

// The settings file's installation folder is used only inside BasePath or AgentInstallDir.
TEST_F(LaunchGateTest, AnInstallationFolderOutsideTheAgentsRegistryFoldersStartsNothing) {
  const TempDir elsewhere;
  const StandInFolder foreign(elsewhere.File(L"DeviceControl\\bin"));
  CreateDirectoryW(elsewhere.File(L"DeviceControl").c_str(), nullptr);
  CreateDirectoryW(foreign.folder().c_str(), nullptr);
  foreign.Add(L"devctrlaction64");
  foreign.Add(L"devctrlaction32");
  UseFolders(win::WideToAnsi(elsewhere.File(L"DeviceControl\\")));
  AgentInstallDirGlobal = dir_.NarrowPath();
  const std::string logged = LoggedBy([] { (void)ExecuteDeviceApplication(2, L"alice"); });
  EXPECT_EQ(CountOf(logged, "is neither BasePath nor AgentInstallDir, nor inside either"), 1u) << logged;
  EXPECT_TRUE(foreign.Journal().empty());
}

// The launchers check the program and its working folder themselves, whoever calls them: a relative
// one, or one reached through a link a user could re-point in a step below a plain folder.
TEST_F(LaunchGateTest, LaunchersRefuseRelativeProgramsAndFoldersAndLinkedSteps) {
  constexpr DWORD kRefused = ERROR_PATH_NOT_FOUND;
  const std::string action = AddStandIn(L"devctrlaction64");
  AddStandIn(L"korvaOnDemand");
  const FolderLink binLink(dir_.File(L"linked"), bin_.folder());
  ASSERT_TRUE(binLink.made());
  const std::string linked = win::WideToAnsi(dir_.File(L"linked\\korvaOnDemand.exe"));
  HeapText remarks;
  const std::string logged = LoggedBy([&] {
    EXPECT_EQ(executeFile(nullptr, "bin\\korvaFaService.exe -attach", remarks.put(), 1), kRefused);
    EXPECT_EQ(executeInfo(nullptr, "\"\\bin\\korvaFileShadow.exe\" x", nullptr), kRefused);
    EXPECT_EQ(ExecuteAppWithArgs(action.c_str(), "logs", "-c 1", 1), kRefused);
    EXPECT_EQ(ExecuteInSystemSession("C:korvaAgentTrayIcon.exe -ta 1", nullptr, nullptr, 0), kRefused);
    BOOL obtained = FALSE;
    EXPECT_EQ(ExecuteAndPrintMessage(nullptr, "cmd.exe /c echo", 1, &obtained, nullptr), kRefused);
    EXPECT_EQ(ExecuteAppWithArgs(linked.c_str(), dir_.NarrowPath().c_str(), "-c 1", 1), kRefused);
  });
  EXPECT_EQ(remarks.str(), GetErrorMsgForID(kRefused));
  for (const char* program :
       {"korvaFaService.exe", "korvaFileShadow.exe", "devctrlaction64.exe", "C:korvaAgentTrayIcon.exe", "cmd.exe"}) {
    EXPECT_EQ(CountOf(logged, std::string(program) + " is not started: "), 1u) << program;
  }
  const std::string through = folders::FaultText(folders::FolderFault::kUnsafeStep);
  EXPECT_EQ(CountOf(logged, "korvaOnDemand.exe is not started: its path \"" + linked + "\" is refused: " + through), 1u)
      << logged;
  EXPECT_TRUE(bin_.Journal().empty());
}

// A disk a user can bring may report itself fixed and carry the lists its maker wrote, Administrators'
// included: no path on it is the agent's own, whatever its lists say, nor on a drive whose bus cannot
// be read. The disks under a volume decide when they are known (a network block disk on a storage
// adapter is virtual; a spanned volume has no bus of its own). The drive Windows runs from is the
// machine's own whatever its bus (eMMC). Wine has no such disk: the walk is told the buses.
TEST_F(LaunchGateTest, NoPathOnADiskAUserCanBringIsTheAgentsOwn) {
  struct ProbeInUse {
    explicit ProbeInUse(VolumeProbe* probe) { SetRootProbeForTest(probe); }
    ~ProbeInUse() {
      SetRootProbeForTest(nullptr);
      ForgetSoundStepsForTest();
    }
  };
  TableProbe probe;
  const ProbeInUse inUse(&probe);
  const std::wstring other = L"Z:\\usr";  // Wine's drive for the host's root
  using Disks = std::optional<folders::DiskBuses>;
  const struct { std::optional<unsigned> bus; Disks disks; bool refused; } buses[] = {
      {BusTypeUsb, {}, true}, {BusType1394, {}, true}, {BusTypeSd, {}, true}, {BusTypeMmc, {}, true},
      {BusTypeVirtual, {}, true}, {BusTypeFileBackedVirtual, {}, true}, {std::nullopt, {}, true},
      {BusTypeSata, {}, false}, {BusTypeNvme, {}, false}, {BusTypeRAID, {}, false},
      {BusTypeVirtual, folders::DiskBuses{BusTypeVirtual}, false},
      {std::nullopt, folders::DiskBuses{BusTypeSata, BusTypeNvme}, false},
      {BusTypeSata, folders::DiskBuses{BusTypeSata, BusTypeUsb}, true},
      {std::nullopt, folders::DiskBuses{BusTypeSata, std::nullopt}, true}};
  for (const auto& c : buses) {
    probe.volumes = {{L"system", {L"C:\\"}, DRIVE_FIXED, FixedMedia, c.bus}, {L"other", {L"Z:\\"}, DRIVE_FIXED, FixedMedia, c.bus}};
    for (Volume& volume : probe.volumes) volume.disks = c.disks;
    ForgetSoundStepsForTest();
    const std::size_t disks = c.disks ? c.disks->size() : 0;
    EXPECT_EQ(FirstUnsafeStep(std::wstring_view(other)), c.refused ? L"Z:\\" : L"") << c.bus.value_or(~0u) << " " << disks;
    EXPECT_EQ(FirstUnsafeStep(std::wstring_view(L"C:\\windows\\system32")), L"") << c.bus.value_or(~0u);
  }
  // Why the drive is refused is told once, however often a path on it is walked.
  probe.volumes = {{L"other", {L"Z:\\"}, DRIVE_FIXED, FixedMedia, BusTypeUsb}};
  ForgetSoundStepsForTest();
  const std::string logged = LoggedBy([&] {
    for (int walk = 0; walk < 3; ++walk) EXPECT_EQ(FirstUnsafeStep(std::wstring_view(other)), L"Z:\\");
  });
  EXPECT_EQ(CountOf(logged, "The drive Z:\\ is not trusted to keep the agent's folders from users: a disk under it is "
                            "on a bus a user can bring a disk on"),
            1u)
      << logged;
}

// A step of a program's path or working folder that does not exist could be put in place by a user
// between the gate's walk and the start, unjudged: the start is never made. It fails as its creation
// would have (the working folder looked at first), with the launchers' own lines and no refusal.
TEST_F(LaunchGateTest, AStepThatDoesNotExistFailsTheStartAsItsCreationWouldWithoutMakingIt) {
  const std::string action = AddStandIn(L"devctrlaction64");
  const std::string absent = dir_.NarrowPath() + "\\absent";
  const std::string inAbsent = absent + "\\devctrlaction64.exe";
  const struct { std::string program; const char* workingDir; DWORD error; } rows[] = {
      {inAbsent, nullptr, ERROR_PATH_NOT_FOUND},
      {win::WideToAnsi(bin_.folder()) + "\\absent.exe", nullptr, ERROR_FILE_NOT_FOUND},
      {action, absent.c_str(), ERROR_DIRECTORY},
      {inAbsent, absent.c_str(), ERROR_DIRECTORY},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.program + " in " + (row.workingDir != nullptr ? row.workingDir : "(none)"));
    DWORD missing = ERROR_SUCCESS;
    HeapText remarks;
    const std::string logged = LoggedBy([&] {
      EXPECT_TRUE(process::PathAllowsStart("Gate", row.program, row.workingDir, missing));
      EXPECT_EQ(executeFile(row.workingDir, Quoted(row.program).c_str(), remarks.put(), 1), row.error);
      EXPECT_EQ(ExecuteAppWithArgs(row.program.c_str(), row.workingDir, "-c 1", 1), row.error);
    });
    EXPECT_EQ(missing, row.error);
    EXPECT_EQ(remarks.str(), GetErrorMsgForID(row.error));
    EXPECT_LOG_LINES(logged,
                     {{"executeFile", "Failed to Create the Process for the application " + Quoted(row.program)},
                      {"ExecuteAppWithArgs", "Execute Process Name ->" + row.program},
                      {"ExecuteAppWithArgs", "Failed to Create the Process : " + std::to_string(row.error)},
                      {"executeFile", "Failed to set the WorkingDirectory " + absent,
                       row.workingDir != nullptr ? LogLine::kWhole : LogLine::kAbsent}});
    EXPECT_EQ(CountOf(logged, " is not started: "), 0u) << logged;
  }
  EXPECT_TRUE(bin_.Journal().empty());
}

}  // namespace
}  // namespace korva::test
