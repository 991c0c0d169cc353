// Sessions, processes and tokens, with stand-ins playing the user's explorer.exe and winlogon.exe.
#include "process/sessions.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "process/launcher.h"
#include "settings/error_text.h"
#include "support/process_support.h"

namespace korva::test {
namespace {

using SessionsTest = ProcessTest;

std::wstring OwnUserName() {
  wchar_t name[256];
  DWORD size = 256;
  return GetUserNameW(name, &size) ? std::wstring(name) : std::wstring();
}

TEST_F(SessionsTest, AnExplorerInTheConsoleSessionMeansAUserIsLoggedOn) {
  const DWORD console = GetActiveConsoleSessionId();
  DWORD own = 99;
  ProcessIdToSessionId(GetCurrentProcessId(), &own);
  EXPECT_EQ(console, own);  // the tests run in the console session, the only one listed
  EXPECT_EQ(GetActiveTerminalSessionId(), console);
  // Wine starts its own "explorer.exe /desktop" and keeps it while a process that loaded user32
  // (this one) lives; by name it cannot be told from a user's shell, so "nobody" is only seen without it.
  const bool wineDesktop = AnyProcessNamed(L"explorer.exe");
  AddStandIn(L"explorer", 0, 120000);
  {
    RunningStandIn explorer(bin_.folder() + L"\\explorer.exe");
    ASSERT_TRUE(explorer.started());
    const DWORD found = GetProcessID(L"EXPLORER.EXE", console);
    EXPECT_NE(found, 0u);
    if (!wineDesktop) {
      EXPECT_EQ(found, explorer.pid());
    }
    EXPECT_EQ(GetProcessID(L"explorer.exe", console + 1), 0u);  // not in another session
    EXPECT_EQ(GetProcessID(L"explorer", console), 0u);          // the whole name must match
    EXPECT_TRUE(IsExplorerPresent());
    EXPECT_TRUE(IsUserLoggedOn());
    EXPECT_EQ(GetCurrentlyLoggedOnUser(), OwnUserName());
  }
  if (wineDesktop) return;
  EXPECT_EQ(GetProcessID(L"explorer.exe", console), 0u);
  EXPECT_FALSE(IsExplorerPresent());
  EXPECT_FALSE(IsUserLoggedOn());
  EXPECT_EQ(GetCurrentlyLoggedOnUser(), L"");
}

TEST_F(SessionsTest, AUserSessionLaunchRunsWithTheTokenOfWinlogon) {
  const DWORD console = GetActiveConsoleSessionId();
  const std::string line = Quoted(AddStandIn(L"korvaAgentTrayIcon", 7)) + " /show", work = dir_.NarrowPath();
  HeapText refused;
  EXPECT_EQ(ExecuteInSystemSession(line.c_str(), work.c_str(), &refused.text, 1), 1008u);
  EXPECT_EQ(refused.str(), GetErrorMsgForID(1008));
  EXPECT_TRUE(bin_.Journal().empty());

  AddStandIn(L"winlogon", 0, 120000);
  RunningStandIn winlogon(bin_.folder() + L"\\winlogon.exe");
  ASSERT_TRUE(winlogon.started());
  ASSERT_EQ(bin_.WaitForJournal(1, 10000).size(), 1u);  // winlogon's own run
  bin_.ClearJournal();
  HeapText remarks, sessionRemarks, uiRemarks;
  EXPECT_EQ(ExecuteInSystemSession(line.c_str(), work.c_str(), &remarks.text, 1), 7u);
  EXPECT_EQ(remarks.str(), GetErrorMsgForID(7));
  EXPECT_EQ(ExecuteInSession(console, line.c_str(), work.c_str(), &sessionRemarks.text, 1), 7u);
  EXPECT_EQ(ExecuteUIApplicationInSystemSession(line.c_str(), work.c_str(), &uiRemarks.text, 0), 0u);
  winlogon.Stop();

  const std::vector<JournalEntry> journal = bin_.WaitForJournal(3, 10000);
  ASSERT_EQ(journal.size(), 3u);
  for (const JournalEntry& entry : journal) {
    EXPECT_EQ(entry.currentDirectory, work);
    EXPECT_EQ(entry.sessionId, console);
  }
  const std::string log = log_.Text();  // closes the log: read once, at the end
  EXPECT_TRUE(HasLogLine(log, "ExecuteInSession", "Unable to get the Process token."));  // the refused launch
  EXPECT_TRUE(HasLogLine(log, "ExecuteWithToken", "Exit code for the application : 7"));
}

}  // namespace
}  // namespace korva::test
