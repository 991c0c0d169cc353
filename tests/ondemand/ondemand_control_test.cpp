// The on-demand lock values on the prefix's real registry (reads, the block decision, resets), and
// the on-demand program started and stopped for real: the stand-in helper as korvaOnDemand.exe in a
// test agent's bin folder.
#include "ondemand/ondemand_control.h"

#include <tuple>

#include "ondemand/module_lock.h"
#include "support/agent_fixture.h"

namespace korva::test {

class OnDemandTest : public AgentTest {
  void TearDown() override {
    EndProcessesNamed(L"korvaOnDemand.exe");  // whatever a test started and left running
    AgentTest::TearDown();
  }
};
const std::string kLockKey = std::string(kAgentKey) + "\\LockState";
constexpr const char* kLockValues[] = {"ondemandlock", "ondemandlockretry", "ondemandUnhandlelock"};

// The cases: locked (any non-zero value) with retries left, with the retries used up (5 or more),
// with an unreadable count, and not locked (a zero lock or none at all); each with the three
// answers and the line that tells the outcome.
TEST_F(OnDemandTest, LockBlocksOnlyWhenSetAndTheRetriesAreUsedUp) {
  const struct { std::optional<DWORD> lock, retry; int locked, retriesCompleted, blocked; const char* line; }
      cases[] = {
      {1, 4, 1, 0, 0, "[  INFO ] [ IsModuleRetriesCompleted ] RETRIES are NOT COMPLETED for ONDEMAND!!"},
      {1, 5, 1, 1, 1, "[  INFO ] [ IsModuleRetriesCompleted ] RETRIES are COMPLETED for ONDMENAD !!"},
      {2, 6, 1, 1, 1, "[  INFO ] [ IsModuleRetriesCompleted ] RETRIES are COMPLETED for ONDMENAD !!"},
      {1, {}, 1, 1, 1,
       "[ ERROR ] [ IsModuleRetriesCompleted ] Problem while getting RetryCount. Returning retries completed!!"},
      {0, 5, 0, 1, 0, "[ ERROR ] [ CheckModuleLocked ] ModuleLock : False."},
      {{}, 5, 0, 1, 0, "[ ERROR ] [ GetModuleLocked ] Cannot add new NUMERIC value for the key"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    CleanAgentRegistry();
    if (c.lock) SetDword(kLockKey, "ondemandlock", *c.lock);
    if (c.retry) SetDword(kLockKey, "ondemandlockretry", *c.retry);
    EXPECT_EQ(std::pair(IsModuleLocked(), IsModuleRetriesCompleted()), std::pair(c.locked, c.retriesCompleted));
    const std::string log = LoggedBy([&] { EXPECT_EQ(CheckModuleLocked(), c.blocked); });
    EXPECT_NE(log.find(std::string(c.line) + "\r\n"), std::string::npos);
  }
}

// A missing key, or a string "1" (which would read as 49 if its four bytes were taken for a DWORD),
// fails the read and leaves the output alone; an unreadable lock is no lock, an unreadable count a
// completed one.
TEST_F(OnDemandTest, LockReadsOfAMissingKeyOrWrongTypedValuesFail) {
  DWORD value = 77;
  EXPECT_EQ(GetModuleRetriesCount(&value), ERROR_FILE_NOT_FOUND);
  for (const char* name : kLockValues) SetRawValue(kLockKey, name, REG_SZ, std::string("1\0\0\0", 4));
  EXPECT_EQ(std::tuple(GetModuleLocked(&value), GetUnHandledExceptionLock(&value), value),
            std::tuple(LONG{ERROR_UNSUPPORTED_TYPE}, LONG{ERROR_UNSUPPORTED_TYPE}, DWORD{77}));
  EXPECT_EQ(std::pair(IsModuleLocked(), IsModuleRetriesCompleted()), std::pair(0, 1));
  const std::string log = log_->Text();
  EXPECT_NE(log.find("[ ERROR ] [ GetModuleRetriesCount ] Unable to open registry.\r\n"), std::string::npos);
  EXPECT_NE(log.find("[ ERROR ] [ GetModuleLocked ] Cannot add new NUMERIC value for the key\r\n"), std::string::npos);
}

// The resets create the key; a wrong-typed value is overwritten with a proper DWORD.
TEST_F(OnDemandTest, LockResetsClearWhatTheOnDemandProgramSet) {
  UpdateModuleLockStatus();
  for (const char* name : kLockValues) EXPECT_EQ(ReadNumber(kLockKey, name), 0u) << name;
  for (const char* name : kLockValues) SetDword(kLockKey, name, 1);
  UpdateUnHandledExceptionLock();  // only the unhandled-failure mark
  EXPECT_EQ(std::pair(ReadNumber(kLockKey, "ondemandUnhandlelock"), ReadNumber(kLockKey, "ondemandlock")),
            std::pair(std::optional(0ULL), std::optional(1ULL)));
  SetRawValue(kLockKey, "ondemandlock", REG_SZ, std::string("1\0\0\0", 4));
  ResetModuleLockStatus();
  for (const char* name : kLockValues) EXPECT_EQ(ReadNumber(kLockKey, name), 0u) << name;
}

// Each started instance sleeps, so every start so far is still running when the blocked one returns.
// A missing program or folder gives its error.
TEST_F(OnDemandTest, ProgramStartsFromTheBinFolderUnlessBlocked) {
  EXPECT_EQ(InitiateOnDemandExec(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  AgentInstallDirGlobal.clear();
  EXPECT_EQ(InitiateOnDemandExec(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  AgentInstallDirGlobal = dir_.NarrowPath();
  const std::string exe = AddStandIn(L"korvaOnDemand", 0, 120000);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  const auto journal = bin_.WaitForJournal(1, 10000);
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].commandLine + "|" + journal[0].currentDirectory, Quoted(exe) + "|" + Install() + "bin");
  SetDword(kLockKey, "ondemandlock", 1);
  SetDword(kLockKey, "ondemandlockretry", 4);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  SetDword(kLockKey, "ondemandlockretry", 5);
  EXPECT_EQ(InitiateOnDemandExec(), kOnDemandModuleBlocked);
  EXPECT_EQ(ProcessesNamed(L"korvaOnDemand.exe").size(), 2u);
  EXPECT_TRUE(HasLogLine(log_->Text(), "InitiateOnDemandExec",
                         "The on-demand module is blocked; korvaOnDemand.exe is not started."));
  EXPECT_EQ(ReadNumber(kLockKey, "ondemandlock"), 1u);  // left for the on-demand program to clear
}

// The stop waits for every instance and resets the lock, reading the unhandled-failure mark first,
// also with nothing left to end; the service's own stop ends the program but leaves the lock to it.
TEST_F(OnDemandTest, ProgramStopEndsEveryInstanceAndResetsTheLockButAServiceStopKeepsIt) {
  AddStandIn(L"korvaOnDemand", 0, 120000);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  ASSERT_EQ(bin_.WaitForJournal(2, 10000).size(), 2u);
  for (const char* name : kLockValues) SetDword(kLockKey, name, 1);
  StopOnDemandExec();
  EXPECT_TRUE(ProcessesNamed(L"korvaOnDemand.exe").empty());
  for (const char* name : kLockValues) EXPECT_EQ(ReadNumber(kLockKey, name), 0u) << name;
  EXPECT_LOG_LINES(log_->Peek(), {{"StopOnDemandExec", "korvaOnDemand.exe instances ended :2"},
                                  {"StopOnDemandExec", "ondemandUnhandlelock :1"}});
  SetDword(kLockKey, "ondemandlock", 1);
  StopOnDemandExec();
  EXPECT_EQ(ReadNumber(kLockKey, "ondemandlock"), 0u);

  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  ASSERT_EQ(bin_.WaitForJournal(3, 10000).size(), 3u);
  SetDword(kLockKey, "ondemandlock", 1);
  StopTESKProcess();
  EXPECT_TRUE(ProcessesNamed(L"korvaOnDemand.exe").empty());
  EXPECT_EQ(ReadNumber(kLockKey, "ondemandlock"), 1u);
}

}  // namespace korva::test
