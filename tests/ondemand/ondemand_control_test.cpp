// The on-demand lock values on the real registry, and the on-demand program started and stopped for real.
#include "ondemand/ondemand_control.h"

#include "ondemand/module_lock.h"
#include "support/agent_fixture.h"

namespace korva::test {

// The ids a test makes the instance list hold.
std::vector<DWORD> g_listed;
std::vector<DWORD> Listed() { return g_listed; }

class OnDemandTest : public AgentTest {
  void TearDown() override {
    SetOnDemandInstanceSourceForTest(nullptr);
    EndProcessesNamed(L"korvaOnDemand.exe");  // whatever a test started and left running
    AgentTest::TearDown();
  }
};
const std::string kLockKey = std::string(kAgentKey) + "\\LockState";
constexpr const char* kLockValues[] = {"ondemandlock", "ondemandlockretry", "ondemandUnhandlelock"};

// Locked with retries left, used up (5 or more) or unreadable, and not locked (zero, none, no key, or
// a string "1" that would read 49 as a DWORD): the three answers and the line telling the outcome.
TEST_F(OnDemandTest, LockBlocksOnlyWhenSetAndTheRetriesAreUsedUp) {
  const struct { std::optional<DWORD> lock, retry; DWORD type; int locked, completed, blocked; const char* line; }
      cases[] = {
      {1, 4, REG_DWORD, 1, 0, 0, "[  INFO ] [ IsModuleRetriesCompleted ] RETRIES are NOT COMPLETED for ONDEMAND!!"},
      {1, 5, REG_DWORD, 1, 1, 1, "[  INFO ] [ IsModuleRetriesCompleted ] RETRIES are COMPLETED for ONDMENAD !!"},
      {2, 6, REG_DWORD, 1, 1, 1, "[  INFO ] [ IsModuleRetriesCompleted ] RETRIES are COMPLETED for ONDMENAD !!"},
      {1, {}, REG_DWORD, 1, 1, 1,
       "[ ERROR ] [ IsModuleRetriesCompleted ] Problem while getting RetryCount. Returning retries completed!!"},
      {0, 5, REG_DWORD, 0, 1, 0, "[ ERROR ] [ CheckModuleLocked ] ModuleLock : False."},
      {{}, 5, REG_DWORD, 0, 1, 0, "[ ERROR ] [ GetModuleLocked ] Cannot add new NUMERIC value for the key"},
      {{}, {}, REG_DWORD, 0, 1, 0, "[ ERROR ] [ GetModuleLocked ] Unable to open registry."},
      {1, 1, REG_SZ, 0, 1, 0, "[ ERROR ] [ GetModuleLocked ] Cannot add new NUMERIC value for the key"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.line) + " " + std::to_string(c.type));
    CleanAgentRegistry();
    for (const auto& [name, value] : {std::pair{"ondemandlock", c.lock}, {"ondemandlockretry", c.retry}}) {
      if (value && c.type == REG_DWORD) SetDword(kLockKey, name, *value);
      if (value && c.type == REG_SZ) SetRawValue(kLockKey, name, REG_SZ, std::to_string(*value) + std::string(3, '\0'));
    }
    EXPECT_EQ(std::pair(IsModuleLocked(), IsModuleRetriesCompleted()), std::pair(c.locked, c.completed));
    const std::string log = LoggedBy([&] { EXPECT_EQ(CheckModuleLocked(), c.blocked); });
    EXPECT_NE(log.find(std::string(c.line) + "\r\n"), std::string::npos);
  }
}

// The stop ends every instance and resets the lock; the service's own stop leaves the lock alone.
TEST_F(OnDemandTest, ProgramStartsFromTheBinFolderUnlessBlockedAndItsStopEndsEveryInstanceAndResetsTheLock) {
  EXPECT_EQ(InitiateOnDemandExec(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  const std::string exe = AddStandIn(L"korvaOnDemand", 0, 120000);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  const auto journal = bin_.WaitForJournal(1, 10000);
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].commandLine + "|" + journal[0].currentDirectory, Quoted(exe) + "|" + Install() + "bin");
  SetDword(kLockKey, "ondemandlock", 1);
  SetDword(kLockKey, "ondemandlockretry", 4);
  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  SetDword(kLockKey, "ondemandlockretry", 5);
  EXPECT_EQ(InitiateOnDemandExec(), DWORD{ERROR_ACCESS_DISABLED_BY_POLICY});
  EXPECT_EQ(ProcessesNamed(L"korvaOnDemand.exe").size(), 2u);
  EXPECT_TRUE(HasLogLine(log_->Peek(), "InitiateOnDemandExec",
                         "The on-demand module is blocked; korvaOnDemand.exe is not started."));
  EXPECT_EQ(ReadNumber(kLockKey, "ondemandlock"), 1u);  // left for the on-demand program to clear

  ASSERT_EQ(bin_.WaitForJournal(2, 10000).size(), 2u);
  for (const char* name : kLockValues) SetDword(kLockKey, name, 1);
  StopOnDemandExec();
  EXPECT_TRUE(ProcessesNamed(L"korvaOnDemand.exe").empty());
  for (const char* name : kLockValues) EXPECT_EQ(ReadNumber(kLockKey, name), 0u) << name;
  EXPECT_LOG_LINES(log_->Peek(), {{"StopOnDemandExec", "korvaOnDemand.exe instances ended :2"},
                                  {"StopOnDemandExec", "ondemandUnhandlelock :1"}});
  // With nothing left to end: a missing key is created, a wrong-typed value overwritten with a DWORD.
  CleanAgentRegistry();
  StopOnDemandExec();
  for (const char* name : kLockValues) EXPECT_EQ(ReadNumber(kLockKey, name), 0u) << name;
  SetRawValue(kLockKey, "ondemandlock", REG_SZ, std::string("1\0\0\0", 4));
  StopOnDemandExec();
  EXPECT_EQ(ReadNumber(kLockKey, "ondemandlock"), 0u);

  EXPECT_EQ(InitiateOnDemandExec(), 0u);
  ASSERT_EQ(bin_.WaitForJournal(3, 10000).size(), 3u);
  SetDword(kLockKey, "ondemandlock", 1);
  // An id the list named may have passed to another program by the time it is opened (an instance
  // that ended meanwhile): that program goes on running.
  const RunningProgram other(bin_.Add(L"korvaConfig", 0, 120000));
  ASSERT_EQ(other.startError(), 0u);
  g_listed = ProcessesNamed(L"korvaOnDemand.exe");
  g_listed.insert(g_listed.begin(), other.pid());
  ASSERT_EQ(g_listed.size(), 2u);
  SetOnDemandInstanceSourceForTest(&Listed);
  const std::string log = LoggedBy([] { StopTESKProcess(); });
  EXPECT_TRUE(ProcessesNamed(L"korvaOnDemand.exe").empty());
  EXPECT_EQ(WaitForSingleObject(other.process(), 0), DWORD{WAIT_TIMEOUT}) << "another program was ended";
  const std::string ended = "korvaOnDemand.exe is terminated, process id :" + std::to_string(g_listed[1]);
  EXPECT_LOG_LINES(log, {{"StopTESKProcess", "Process id :" + std::to_string(other.pid()) + " now runs ",
                          LogLine::kPrefix},
                         {"StopTESKProcess", ended}});
  EXPECT_EQ(ReadNumber(kLockKey, "ondemandlock"), 1u);
}

}  // namespace korva::test
