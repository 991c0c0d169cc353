// The filter attachment cycle in-process, against the real registry, timer queue and stand-in
// control and file-shadow programs. There is no "QVFAFilter" service under Wine: its state reads
// as stopped, so each attach first sends the driver its start request.
#include <windows.h>
#include <winioctl.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "devicecontrol/drive_inventory.h"
#include "devicecontrol/volume_probe.h"
#include "fileaudit/file_shadow.h"
#include "fileaudit/filter_attach.h"
#include "fileaudit/filter_cycle.h"
#include "settings/agent_parameters.h"
#include "settings/registry.h"
#include "shared/service_state.h"
#include "support/test_support.h"

namespace {

using korva::test::HasLogLine;

constexpr const char* kQvmSettings = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings";

// One removable USB stick at E:.
struct OneStick final : korva::VolumeProbe {
  struct Stick final : korva::ProbedVolume {
    bool IsHotplugDevice() override { return true; }
    std::vector<std::wstring> MountPaths() override { return {L"E:\\"}; }
    unsigned DriveType(const std::wstring&) override { return DRIVE_REMOVABLE; }
    std::optional<int> MediaType() override { return RemovableMedia; }
  };
  void ForEachVolume(const std::function<void(const std::wstring&)>& visit) override {
    if (present) visit(L"\\\\?\\Volume{stick}\\");
  }
  std::unique_ptr<korva::ProbedVolume> Open(const std::wstring&) override { return std::make_unique<Stick>(); }
  korva::BusTypeAnswer BusType(wchar_t) override { return {true, BusTypeUsb, 0}; }
  bool present = true;
};

class FilterCycleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korva::test::CleanAgentRegistry();
    // The installation directory ends in a backslash, as the settings file makes it.
    const std::string install = dir_.NarrowPath() + "\\";
    AgentParameters.installDirectory = static_cast<char*>(std::calloc(install.size() + 1, 1));
    std::memcpy(AgentParameters.installDirectory, install.c_str(), install.size());
    CreateDirectoryW(dir_.File(L"bin").c_str(), nullptr);
    bin_ = std::make_unique<korva::test::StandInFolder>(dir_.File(L"bin"));
    bin_->Add(L"korvaFaService");
    bin_->Add(L"korvaFileShadow");
    korva::ResetRemovableDrivesForTest();
    korva::SetVolumeProbeForTest(&probe_);
    QVFAFilterTimerQueue = CreateTimerQueue();
    korva::SetFilterTimerDueMsForTest(3600000);  // armed, never fired while the test runs
  }
  void TearDown() override {
    DeleteTimerQueueEx(QVFAFilterTimerQueue, INVALID_HANDLE_VALUE);
    QVFAFilterTimerQueue = nullptr;
    QVFAFilterTimer = nullptr;
    korva::SetFilterTimerDueMsForTest(0);
    korva::SetVolumeProbeForTest(nullptr);
    korva::ResetRemovableDrivesForTest();
    korva::ResetAgentParametersForTest();
    korva::test::CleanAgentRegistry();
  }
  // Runs one pass and returns what it logged.
  std::string Pass() {
    korva::test::LogCapture log;
    ProcessQVFAFilterMethod();
    return log.Text();
  }

  korva::test::TempDir dir_;
  std::unique_ptr<korva::test::StandInFolder> bin_;
  OneStick probe_;
};

TEST_F(FilterCycleTest, AttachExitCodesDecideWhetherTheFilterStartedNow) {
  const struct {
    int exitCode;
    int result;
  } cases[] = {{0, 0}, {3010, 0}, {1641, 0}, {1508, 0}, {1, 1}, {5, 5}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.exitCode);
    bin_->SetBehaviour(L"korvaFaService", c.exitCode, 0);
    bin_->ClearJournal();
    EXPECT_EQ(IsFilterAttachedToDrive(L"E:\\"), c.result);
    const auto journal = bin_->Journal();
    ASSERT_EQ(journal.size(), 1u);
    EXPECT_NE(journal[0].commandLine.find("korvaFaService.exe\" -attach \"E:\\\\\""), std::string::npos)
        << journal[0].commandLine;
  }
}

TEST_F(FilterCycleTest, PassStartsFileShadowWhereTheFilterStartedAndRearms) {
  ASSERT_EQ(writeValue(kQvmSettings, "isQVFANeeded", REG_SZ, "1"), 0);  // as the start-up writes it
  bin_->SetBehaviour(L"korvaFaService", 3010, 0);
  const std::string log = Pass();
  EXPECT_TRUE(HasLogLine(log, "ProcessQVFAFilterMethod", "Filter for Drive :E:\\started successfully"));
  const auto journal = bin_->WaitForJournal(2, 10000);
  ASSERT_EQ(journal.size(), 2u);
  EXPECT_EQ(journal[1].name, "korvaFileShadow");
  EXPECT_NE(journal[1].commandLine.find("korvaFileShadow.exe\" \"E:\\\\\""), std::string::npos);
  EXPECT_NE(QVFAFilterTimer, nullptr) << "the next pass is armed";
}

TEST_F(FilterCycleTest, PassWithTheFilterAlreadyRunningStartsNoFileShadow) {
  bin_->SetBehaviour(L"korvaFaService", 1, 0);
  const std::string log = Pass();  // isQVFANeeded missing counts as needed
  EXPECT_TRUE(HasLogLine(log, "ProcessQVFAFilterMethod", "Filter for Drive : {E:\\} Already Running"));
  EXPECT_EQ(log.find("[ ExecuteFileShadowApplication ]"), std::string::npos);  // it logs before starting
  const auto journal = bin_->Journal();
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].name, "korvaFaService");
}

TEST_F(FilterCycleTest, EmptyListStillRearmsAndNotNeededEndsTheCycle) {
  probe_.present = false;
  std::string log = Pass();
  EXPECT_TRUE(HasLogLine(log, "ProcessQVFAFilterMethod", "Removable Drive List is Empty"));
  EXPECT_NE(QVFAFilterTimer, nullptr);

  QVFAFilterTimer = nullptr;
  for (const char* notNeeded : {"0", "2"}) {
    ASSERT_EQ(writeValue(kQvmSettings, "isQVFANeeded", REG_SZ, notNeeded), 0);
    log = Pass();
    EXPECT_TRUE(HasLogLine(log, "ProcessQVFAFilterMethod", "Skipping the Execution and Timer routine."));
    EXPECT_EQ(QVFAFilterTimer, nullptr) << "not re-armed";
  }
  EXPECT_TRUE(bin_->Journal().empty());
}

TEST_F(FilterCycleTest, AttachOfANewDriveIsSkippedWhenTheFilterIsNotWanted) {
  ASSERT_EQ(writeValue(kQvmSettings, "isQVFANeeded", REG_DWORD, "0"), 0);
  korva::test::LogCapture log;
  AttachFilterToDrive(L"E:\\");
  const std::string text = log.Text();
  EXPECT_TRUE(HasLogLine(text, "AttachFilterToDrive", "Driver Service Status :1"));
  EXPECT_TRUE(HasLogLine(text, "AttachFilterToDrive", "Driver Execution skipped, due to IsQVFANeeded is 0"));
  EXPECT_TRUE(bin_->Journal().empty());
}

TEST_F(FilterCycleTest, LogonMarksThePolicyModifiedForTheFileAuditPrograms) {
  UpdateRegistryForDeviceControlPolicy();
  std::string modified;
  EXPECT_EQ(ReadRegSZ(std::string(kQvmSettings) + "\\AuditSettings", "IsSettingsModified", modified), 0);
  EXPECT_EQ(modified, "1");
  std::string user = "unset";
  EXPECT_EQ(ReadRegSZ(std::string(kQvmSettings) + "\\AuditSettings", "LoggedOnUser", user), 0);
}

}  // namespace
