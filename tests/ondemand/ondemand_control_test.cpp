// Starting and stopping the on-demand program for real: the stand-in helper copied as
// korvaOnDemand.exe into a test agent's bin folder, the prefix's real registry and processes.
#include "ondemand/ondemand_control.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>
#include <windows.h>

#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include "ondemand/module_lock.h"
#include "service/entry_point.h"
#include "support/test_support.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

using korva::test::StandInFolder;
using korva::test::TempDir;
using korva::win::UniqueHandle;

constexpr wchar_t kLockKey[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\LockState";

void SetLockValue(const wchar_t* name, DWORD value) {
  ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kLockKey, name, REG_DWORD, &value, sizeof value), 0);
}

DWORD LockValue(const wchar_t* name) {
  DWORD value = 0xDEAD;
  DWORD size = sizeof value;
  RegGetValueW(HKEY_LOCAL_MACHINE, kLockKey, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
  return value;
}

// Process ids of running programs with this exact file name.
std::vector<DWORD> ProcessesNamed(const std::wstring& name) {
  std::vector<DWORD> ids;
  const korva::win::UniqueFileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(snapshot.get(), &entry); more; more = Process32NextW(snapshot.get(), &entry)) {
    if (_wcsicmp(entry.szExeFile, name.c_str()) == 0) ids.push_back(entry.th32ProcessID);
  }
  return ids;
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
    for (const PROCESS_INFORMATION& info : started_) {
      TerminateProcess(info.hProcess, 1);
      WaitForSingleObject(info.hProcess, 5000);
      CloseHandle(info.hProcess);
      CloseHandle(info.hThread);
    }
    // Whatever InitiateOnDemandExec started and a test left running.
    for (const DWORD id : ProcessesNamed(L"korvaOnDemand.exe")) {
      const UniqueHandle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id));
      if (process) {
        TerminateProcess(process.get(), 1);
        WaitForSingleObject(process.get(), 5000);
      }
    }
    AgentInstallDirGlobal = savedInstallDir_;
    korva::test::CleanAgentRegistry();
  }

  // Starts `exe` directly (not through the code under test) and keeps its handles.
  HANDLE Start(const std::wstring& exe) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    std::wstring line = L"\"" + exe + L"\"";
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)) {
      ADD_FAILURE() << "CreateProcessW " << GetLastError();
      return nullptr;
    }
    started_.push_back(info);
    return info.hProcess;
  }

  TempDir agent_;
  std::wstring binFolder_;
  std::unique_ptr<StandInFolder> bin_;
  std::string savedInstallDir_;
  std::vector<PROCESS_INFORMATION> started_;
};

TEST_F(OnDemandControlTest, StartsTheProgramFromTheBinFolderWhileNotBlocked) {
  bin_->SetBehaviour(L"korvaOnDemand", 0, 0);
  korva::test::LogCapture log;
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  const auto journal = bin_->WaitForJournal(1, 10000);
  ASSERT_EQ(journal.size(), 1u);
  const std::string bin = korva::win::WideToAnsi(binFolder_);
  EXPECT_EQ(journal[0].name, "korvaOnDemand");
  EXPECT_EQ(journal[0].commandLine, "\"" + bin + "\\korvaOnDemand.exe\"");
  EXPECT_EQ(journal[0].currentDirectory, bin);
  EXPECT_EQ(journal[0].parentPid, GetCurrentProcessId());
  const std::string text = log.Text();
  EXPECT_TRUE(korva::test::HasLogLine(text, "CheckModuleLocked", "ModuleLock : False.")) << text;

  // A lock with retries left does not stop the start either.
  SetLockValue(L"ondemandlock", 1);
  SetLockValue(L"ondemandlockretry", 4);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  EXPECT_EQ(bin_->WaitForJournal(2, 10000).size(), 2u);
}

TEST_F(OnDemandControlTest, BlockedModuleIsNotStarted) {
  bin_->SetBehaviour(L"korvaOnDemand", 0, 0);
  SetLockValue(L"ondemandlock", 1);
  SetLockValue(L"ondemandlockretry", 5);
  korva::test::LogCapture log;
  EXPECT_EQ(InitiateOnDemandExec(), korva::kOnDemandModuleBlocked);
  EXPECT_TRUE(ProcessesNamed(L"korvaOnDemand.exe").empty());
  // A started stand-in journals within milliseconds; give it ample time to show up anyway.
  EXPECT_TRUE(bin_->WaitForJournal(1, 1500).empty());
  const std::string text = log.Text();
  EXPECT_TRUE(korva::test::HasLogLine(text, "InitiateOnDemandExec",
                                      "The on-demand module is blocked; korvaOnDemand.exe is not started."))
      << text;
  // The lock is left for the on-demand program to clear.
  EXPECT_EQ(LockValue(L"ondemandlock"), 1u);
}

TEST_F(OnDemandControlTest, MissingProgramOrFolderGivesAnError) {
  DeleteFileW((binFolder_ + L"\\korvaOnDemand.exe").c_str());
  EXPECT_EQ(InitiateOnDemandExec(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  AgentInstallDirGlobal.clear();
  EXPECT_EQ(InitiateOnDemandExec(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
}

TEST_F(OnDemandControlTest, StopEndsEveryInstanceAndResetsTheLock) {
  bin_->SetBehaviour(L"korvaOnDemand", 0, 120000);
  // A second copy elsewhere, started under an upper-case name, and a bystander that must survive.
  TempDir other;
  StandInFolder otherBin(other.path());
  otherBin.Add(L"KORVAONDEMAND");
  otherBin.SetBehaviour(L"KORVAONDEMAND", 0, 120000);
  otherBin.Add(L"korvaOnDemandHelper");
  otherBin.SetBehaviour(L"korvaOnDemandHelper", 0, 120000);
  const HANDLE first = Start(binFolder_ + L"\\korvaOnDemand.exe");
  const HANDLE second = Start(other.File(L"KORVAONDEMAND.exe"));
  const HANDLE bystander = Start(other.File(L"korvaOnDemandHelper.exe"));
  ASSERT_TRUE(first && second && bystander);
  ASSERT_EQ(bin_->WaitForJournal(1, 10000).size(), 1u);
  ASSERT_EQ(otherBin.WaitForJournal(2, 10000).size(), 2u);
  SetLockValue(L"ondemandlock", 1);
  SetLockValue(L"ondemandlockretry", 5);
  SetLockValue(L"ondemandUnhandlelock", 1);

  korva::test::LogCapture log;
  StopOnDemandExec();

  // Both instances were waited for, so they have ended by the time the call returns.
  for (const HANDLE process : {first, second}) {
    EXPECT_EQ(WaitForSingleObject(process, 0), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeProcess(process, &code);
    EXPECT_EQ(code, korva::kOnDemandTerminatedExitCode);
  }
  EXPECT_EQ(WaitForSingleObject(bystander, 0), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_EQ(LockValue(L"ondemandlock"), 0u);
  EXPECT_EQ(LockValue(L"ondemandlockretry"), 0u);
  EXPECT_EQ(LockValue(L"ondemandUnhandlelock"), 0u);
  const std::string text = log.Text();
  EXPECT_TRUE(korva::test::HasLogLine(text, "StopOnDemandExec", "korvaOnDemand.exe instances ended :2")) << text;
  // The mark the on-demand program left, read before the reset.
  EXPECT_TRUE(korva::test::HasLogLine(text, "StopOnDemandExec", "ondemandUnhandlelock :1"));

  // With nothing left to end, the lock is still reset.
  SetLockValue(L"ondemandlock", 1);
  korva::test::LogCapture again;
  StopOnDemandExec();
  EXPECT_EQ(LockValue(L"ondemandlock"), 0u);
  EXPECT_TRUE(korva::test::HasLogLine(again.Text(), "StopOnDemandExec", "korvaOnDemand.exe is not running."));
}

TEST_F(OnDemandControlTest, ServiceStopEndsTheProgramButKeepsTheLock) {
  bin_->SetBehaviour(L"korvaOnDemand", 0, 120000);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  ASSERT_EQ(bin_->WaitForJournal(1, 10000).size(), 1u);
  ASSERT_EQ(ProcessesNamed(L"korvaOnDemand.exe").size(), 1u);
  SetLockValue(L"ondemandlock", 1);
  SetLockValue(L"ondemandlockretry", 3);

  StopTESKProcess();

  EXPECT_TRUE(ProcessesNamed(L"korvaOnDemand.exe").empty());
  EXPECT_EQ(LockValue(L"ondemandlock"), 1u);
  EXPECT_EQ(LockValue(L"ondemandlockretry"), 3u);
}

}  // namespace
