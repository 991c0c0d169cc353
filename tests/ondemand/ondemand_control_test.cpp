// Starting and stopping the on-demand program for real: the stand-in helper copied as
// korvaOnDemand.exe into a test agent's bin folder, the prefix's real registry and processes.
#include "ondemand/ondemand_control.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <memory>
#include <string>

#include "service/entry_point.h"
#include "support/process_support.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

using korva::test::HasLogLine;
using korva::test::StandInFolder;
using korva::test::TempDir;
using korva::win::UniqueHandle;

constexpr wchar_t kLockKey[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\LockState";

void SetLockValue(const wchar_t* name, DWORD value) {
  ASSERT_EQ(RegSetKeyValueW(korva::test::CreateAgentKey(kLockKey).get(), nullptr, name, REG_DWORD, &value, sizeof value), 0);
}
DWORD LockValue(const wchar_t* name) {
  DWORD value = 0xDEAD;
  DWORD size = sizeof value;
  RegGetValueW(korva::test::OpenAgentKey(kLockKey).get(), nullptr, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
  return value;
}

// A test agent: <temp>\bin holds the stand-in as korvaOnDemand.exe; AgentInstallDirGlobal points at it.
class OnDemandControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korva::test::CleanAgentRegistry();
    binFolder_ = agent_.File(L"bin");
    ASSERT_TRUE(CreateDirectoryW(binFolder_.c_str(), nullptr));
    bin_ = std::make_unique<StandInFolder>(binFolder_);
    bin_->Add(L"korvaOnDemand");
    savedInstallDir_ = AgentInstallDirGlobal;
    AgentInstallDirGlobal = agent_.NarrowPath();
  }
  void TearDown() override {
    // Whatever InitiateOnDemandExec started and a test left running.
    korva::test::ForEachProcessNamed(L"korvaOnDemand.exe", [](DWORD id) {
      const UniqueHandle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id));
      if (process && TerminateProcess(process.get(), 1)) WaitForSingleObject(process.get(), 5000);
    });
    AgentInstallDirGlobal = savedInstallDir_;
    korva::test::CleanAgentRegistry();
  }

  TempDir agent_;
  std::wstring binFolder_;
  std::unique_ptr<StandInFolder> bin_;
  std::string savedInstallDir_;
};

TEST_F(OnDemandControlTest, StartsTheProgramFromTheBinFolderUnlessBlocked) {
  bin_->SetBehaviour(L"korvaOnDemand", 0, 0);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  const auto journal = bin_->WaitForJournal(1, 10000);
  ASSERT_EQ(journal.size(), 1u);
  const std::string bin = korva::win::WideToAnsi(binFolder_);
  EXPECT_EQ(journal[0].commandLine, "\"" + bin + "\\korvaOnDemand.exe\"");
  EXPECT_EQ(journal[0].currentDirectory, bin);

  // A lock with retries left does not stop the start; with the retries used up it does.
  SetLockValue(L"ondemandlock", 1);
  SetLockValue(L"ondemandlockretry", 4);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  EXPECT_EQ(bin_->WaitForJournal(2, 10000).size(), 2u);
  SetLockValue(L"ondemandlockretry", 5);
  korva::test::LogCapture log;
  EXPECT_EQ(InitiateOnDemandExec(), korva::kOnDemandModuleBlocked);
  // A started stand-in journals within milliseconds; give it ample time to show up anyway.
  EXPECT_EQ(bin_->WaitForJournal(3, 1500).size(), 2u);
  EXPECT_TRUE(HasLogLine(log.Text(), "InitiateOnDemandExec",
                         "The on-demand module is blocked; korvaOnDemand.exe is not started."))
      << log.Text();
  EXPECT_EQ(LockValue(L"ondemandlock"), 1u);  // left for the on-demand program to clear
}

TEST_F(OnDemandControlTest, MissingProgramOrFolderGivesAnError) {
  DeleteFileW((binFolder_ + L"\\korvaOnDemand.exe").c_str());
  EXPECT_EQ(InitiateOnDemandExec(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  AgentInstallDirGlobal.clear();
  EXPECT_EQ(InitiateOnDemandExec(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
}

TEST_F(OnDemandControlTest, StopEndsEveryInstanceAndResetsTheLock) {
  bin_->SetBehaviour(L"korvaOnDemand", 0, 120000);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  ASSERT_EQ(bin_->WaitForJournal(2, 10000).size(), 2u);
  for (const wchar_t* name : {L"ondemandlock", L"ondemandlockretry", L"ondemandUnhandlelock"}) SetLockValue(name, 1);

  korva::test::LogCapture log;
  StopOnDemandExec();
  // Both instances were waited for, so they have ended by the time the call returns.
  EXPECT_FALSE(korva::test::AnyProcessNamed(L"korvaOnDemand.exe"));
  for (const wchar_t* name : {L"ondemandlock", L"ondemandlockretry", L"ondemandUnhandlelock"}) EXPECT_EQ(LockValue(name), 0u);
  EXPECT_TRUE(HasLogLine(log.Text(), "StopOnDemandExec", "korvaOnDemand.exe instances ended :2")) << log.Text();
  // The mark the on-demand program left, read before the reset.
  EXPECT_TRUE(HasLogLine(log.Text(), "StopOnDemandExec", "ondemandUnhandlelock :1"));

  // With nothing left to end, the lock is still reset.
  SetLockValue(L"ondemandlock", 1);
  StopOnDemandExec();
  EXPECT_EQ(LockValue(L"ondemandlock"), 0u);
}

TEST_F(OnDemandControlTest, ServiceStopEndsTheProgramButKeepsTheLock) {
  bin_->SetBehaviour(L"korvaOnDemand", 0, 120000);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  ASSERT_EQ(bin_->WaitForJournal(1, 10000).size(), 1u);
  SetLockValue(L"ondemandlock", 1);
  StopTESKProcess();
  EXPECT_FALSE(korva::test::AnyProcessNamed(L"korvaOnDemand.exe"));
  EXPECT_EQ(LockValue(L"ondemandlock"), 1u);
}

}  // namespace
