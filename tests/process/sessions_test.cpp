// Sessions, processes and tokens, with stand-ins playing the user's explorer.exe and winlogon.exe.
#include "process/sessions.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "process/launcher.h"
#include "support/process_support.h"
#include "settings/error_text.h"

namespace korva::test {
namespace {

using SessionsTest = ProcessTest;

std::wstring OwnUserName() {
  wchar_t name[256];
  DWORD size = 256;
  return GetUserNameW(name, &size) ? std::wstring(name) : std::wstring();
}

TEST_F(SessionsTest, TheTerminalSessionIsTheConsoleWhenNoActiveSessionIsListed) {
  const DWORD console = GetActiveConsoleSessionId();
  EXPECT_EQ(console, OwnSessionId());  // the tests run in the console session
  EXPECT_EQ(GetActiveTerminalSessionId(), console);
  EXPECT_TRUE(
      HasLogLine(log_.Text(), "GetActiveConsoleSessionId", "WTSGetActiveConsoleSessionId :" + std::to_string(console)));
}

TEST_F(SessionsTest, AnExplorerInTheConsoleSessionMeansAUserIsLoggedOn) {
  const DWORD console = GetActiveConsoleSessionId();
  // Wine may run its own explorer.exe (its desktop process) beside ours.
  const bool wineDesktop = AnyProcessNamed(L"explorer.exe");
  bin_.Add(L"explorer");
  bin_.SetBehaviour(L"explorer", 0, 120000);
  RunningStandIn explorer(bin_.folder() + L"\\explorer.exe");
  ASSERT_TRUE(explorer.started());

  const DWORD found = GetProcessID(L"EXPLORER.EXE", console);
  EXPECT_NE(found, 0u);
  EXPECT_EQ(GetProcessID(L"Explorer.exe", console), found);
  if (!wineDesktop) {
    EXPECT_EQ(found, explorer.pid());
  }
  EXPECT_EQ(GetProcessID(L"explorer.exe", console + 1), 0u);  // not in another session
  EXPECT_EQ(GetProcessID(L"explorer", console), 0u);          // the whole name must match
  EXPECT_TRUE(IsExplorerPresent());
  EXPECT_TRUE(IsUserLoggedOn());
  EXPECT_EQ(GetCurrentlyLoggedOnUser(), OwnUserName());
  EXPECT_FALSE(GetCurrentlyLoggedOnUser().empty());

  const std::string log = log_.Text();
  EXPECT_TRUE(HasLogLine(log, "IsExplorerPresent", "@@@ Inside IsExplorePresent @@@"));
  EXPECT_TRUE(HasLogLine(log, "IsExplorerPresent", "@@@ End of IsExplorePresent @@@"));
  EXPECT_TRUE(HasLogLine(log, "GetProcessID", "Retrieved Session ID : " + std::to_string(console)));
  EXPECT_TRUE(HasLogLine(log, "GetProcessID", "Compare Session ID : " + std::to_string(console + 1)));
}

TEST_F(SessionsTest, WithoutAnExplorerNobodyIsLoggedOn) {
  // Wine starts its own "explorer.exe /desktop" with wineboot and for any child given a new
  // console, and keeps it for as long as a process that loaded user32 (this one) lives. It cannot
  // be told from a user's shell by name, and ending it upsets Wine's console handling.
  if (AnyProcessNamed(L"explorer.exe")) GTEST_SKIP() << "Wine's own explorer.exe is running";
  const DWORD console = GetActiveConsoleSessionId();
  EXPECT_EQ(GetProcessID(L"explorer.exe", console), 0u);
  EXPECT_FALSE(IsExplorerPresent());
  EXPECT_FALSE(IsUserLoggedOn());
  EXPECT_EQ(GetCurrentlyLoggedOnUser(), L"");

  bin_.Add(L"explorer");
  bin_.SetBehaviour(L"explorer", 0, 120000);
  {
    RunningStandIn explorer(bin_.folder() + L"\\explorer.exe");
    ASSERT_TRUE(explorer.started());
    EXPECT_EQ(GetProcessID(L"EXPLORER.EXE", console), explorer.pid());
    EXPECT_TRUE(IsExplorerPresent());
    EXPECT_TRUE(IsUserLoggedOn());
    EXPECT_EQ(GetCurrentlyLoggedOnUser(), OwnUserName());
  }
  EXPECT_EQ(GetProcessID(L"explorer.exe", console), 0u);
  EXPECT_FALSE(IsExplorerPresent());
  EXPECT_FALSE(IsUserLoggedOn());
  EXPECT_EQ(GetCurrentlyLoggedOnUser(), L"");
}

TEST_F(SessionsTest, AUserSessionLaunchRunsWithTheTokenOfWinlogon) {
  const DWORD console = GetActiveConsoleSessionId();
  const std::string line = Quoted(AddStandIn(L"korvaAgentTrayIcon", 7)) + " /show";
  const std::string work = dir_.NarrowPath();

  HANDLE none = nullptr;
  EXPECT_FALSE(GetProcessToken(console, &none));
  EXPECT_EQ(none, nullptr);
  HeapText refused;
  EXPECT_EQ(ExecuteInSystemSession(line.c_str(), work.c_str(), &refused.text, 1), 1008u);
  EXPECT_EQ(refused.str(), GetErrorMsgForID(1008));
  EXPECT_TRUE(JournalOf("korvaAgentTrayIcon").empty());

  bin_.Add(L"winlogon");
  bin_.SetBehaviour(L"winlogon", 0, 120000);
  RunningStandIn winlogon(bin_.folder() + L"\\winlogon.exe");
  ASSERT_TRUE(winlogon.started());

  EXPECT_EQ(GetProcessID(L"WinLogon.EXE", console), winlogon.pid());
  HANDLE token = nullptr;
  ASSERT_TRUE(GetProcessToken(console, &token));
  const win::UniqueHandle owned(token);
  HeapText remarks;
  EXPECT_EQ(ExecuteInSystemSession(line.c_str(), work.c_str(), &remarks.text, 1), 7u);
  EXPECT_EQ(remarks.str(), GetErrorMsgForID(7));
  HeapText sessionRemarks;
  EXPECT_EQ(ExecuteInSession(console, line.c_str(), work.c_str(), &sessionRemarks.text, 1), 7u);
  HeapText uiRemarks;
  EXPECT_EQ(ExecuteUIApplicationInSystemSession(line.c_str(), work.c_str(), &uiRemarks.text, 0), 0u);
  winlogon.Stop();

  bin_.WaitForJournal(4, 10000);  // winlogon's own run and the three launches
  const std::vector<JournalEntry> journal = JournalOf("korvaAgentTrayIcon");
  ASSERT_EQ(journal.size(), 3u);
  for (const JournalEntry& entry : journal) {
    EXPECT_EQ(entry.commandLine, line);
    EXPECT_EQ(entry.currentDirectory, work);
    EXPECT_EQ(entry.sessionId, console);
    EXPECT_EQ(entry.parentPid, GetCurrentProcessId());
  }

  const std::string log = log_.Text();
  EXPECT_TRUE(HasLogLine(log, "ExecuteInSession", "Unable to get the Process token."));
  EXPECT_TRUE(HasLogLineStartingWith(log, "GetProcessToken", "OpenProcess Failed with error :"));
  EXPECT_TRUE(HasLogLineStartingWith(log, "GetProcessToken", "The Process token for the process"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteWithToken", "Process successfully created for application " + line));
  EXPECT_TRUE(HasLogLine(log, "ExecuteWithToken", "Exit code for the application : 7"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteUIApplicationInSystemSession", "SessionID : " + std::to_string(console)));
  EXPECT_TRUE(
      HasLogLineStartingWith(log, "ExecuteUIApplicationInSystemSession", "The active session User name is given by"));
}

}  // namespace
}  // namespace korva::test
