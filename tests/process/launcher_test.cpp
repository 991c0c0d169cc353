// The launchers against real child processes: the stand-in helper, cmd.exe, a missing program.
#include "process/launcher.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <thread>
#include <vector>

#include "process/sessions.h"
#include "settings/error_text.h"
#include "support/process_support.h"

namespace korva::test {
namespace {

using LauncherTest = ProcessTest;

std::string CurrentDirectory() {
  char buffer[MAX_PATH] = {};
  return std::string(buffer, GetCurrentDirectoryA(MAX_PATH, buffer));
}

TEST_F(LauncherTest, WaitZeroReturnsAtOnceWhileTheChildSleeps) {
  HeapText remarks, infoRemarks;
  EXPECT_EQ(executeFile(nullptr, Quoted(AddStandIn(L"korvaFileShadow", 0, 30000)).c_str(), &remarks.text, 0), 0u);
  EXPECT_EQ(executeInfo(nullptr, Quoted(AddStandIn(L"korvaAgentTrayIcon", 0, 30000)).c_str(), &infoRemarks.text), 0u);
  EXPECT_EQ(ExecuteAppWithArgs(AddStandIn(L"korvaDevCtrlSummary", 0, 30000).c_str(), nullptr, "-s 9", 0), 0u);
  // Each got a console of its own: let them get going before they are killed (see RunningStandIn).
  EXPECT_EQ(bin_.WaitForJournal(3, 10000).size(), 3u);
  for (const wchar_t* name : {L"korvaFileShadow.exe", L"korvaAgentTrayIcon.exe", L"korvaDevCtrlSummary.exe"}) {
    EXPECT_TRUE(AnyProcessNamed(name)) << "nobody waited for it";
    ForEachProcessNamed(name, [](DWORD pid) {
      const win::UniqueHandle child(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid));
      if (child && TerminateProcess(child.get(), 1)) WaitForSingleObject(child.get(), 5000);
    });
  }
}

// A missing folder or program is reported with its code and its line, and starts nothing.
TEST_F(LauncherTest, WaitingLaunchersRunInTheirFolderGiveTheExitCodeAndReportWhatIsMissing) {
  const std::string setup = AddStandIn(L"driversetup32", 5), action = AddStandIn(L"devctrlaction64", 4);
  const std::string printer = AddStandIn(L"driversetup64", 6), missing = dir_.NarrowPath() + "\\absent.exe";
  const std::wstring work = dir_.File(L"work");
  ASSERT_TRUE(CreateDirectoryW(work.c_str(), nullptr));
  const std::string workA = win::WideToAnsi(work), noFolder = dir_.NarrowPath() + "\\no such folder";
  const std::string before = CurrentDirectory();
  HeapText r[3];
  EXPECT_EQ(executeFile(workA.c_str(), Quoted(setup).c_str(), &r[0].text, 1), 5u);
  EXPECT_EQ(r[0].str(), GetErrorMsgForID(5));
  EXPECT_EQ(ExecuteAppWithArgs(static_cast<const wchar_t*>(nullptr), win::AnsiToWide(action).c_str(), L"-c 2", 2), 4u);
  EXPECT_EQ(ExecuteAppWithArgs(action.c_str(), workA.c_str(), "-c 12", 1), 4u);
  BOOL obtained = TRUE;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, Quoted(printer).c_str(), 1, &obtained, nullptr), 6u);
  EXPECT_FALSE(obtained);  // the stand-in wrote nothing
  EXPECT_EQ(executeFile(nullptr, Quoted(missing).c_str(), &r[1].text, 1), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_EQ(r[1].str(), GetErrorMsgForID(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(ExecuteAppWithArgs(missing.c_str(), nullptr, "-x", 1), DWORD{ERROR_FILE_NOT_FOUND});
  const DWORD failed = executeFile(noFolder.c_str(), Quoted(setup).c_str(), &r[2].text, 1);
  EXPECT_NE(failed, 0u);
  EXPECT_EQ(r[2].str(), GetErrorMsgForID(failed));
  EXPECT_EQ(CurrentDirectory(), before);

  const std::vector<JournalEntry> journal = bin_.Journal();
  ASSERT_EQ(journal.size(), 4u);
  for (std::size_t i : {0u, 2u}) EXPECT_EQ(journal[i].currentDirectory, workA) << journal[i].commandLine;
  const std::string log = log_.Text();
  EXPECT_TRUE(HasLogLine(log, "ExecuteAndPrintMessage", "Exit code for the application : 6"));
  EXPECT_TRUE(HasLogLine(log, "executeFile", "Failed to Create the Process for the application " + Quoted(missing)));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAppWithArgs", "Failed to Create the Process : 2"));
  EXPECT_TRUE(HasLogLine(log, "executeFile", "Failed to set the WorkingDirectory " + noFolder));
}

// The suite's one real minute: every waiting launcher shares this wait-and-terminate path.
TEST_F(LauncherTest, AChildOutlivingItsOneMinuteWaitIsTerminated) {
  const std::string line = Quoted(AddStandIn(L"korvaOnDemand", 0, 180000)) + " -run";
  HeapText remarks;
  DWORD result = 0;
  std::thread launch([&] { result = executeFile(nullptr, line.c_str(), &remarks.text, 1); });
  bin_.WaitForJournal(1, 30000);
  EXPECT_TRUE(AnyProcessNamed(L"korvaOnDemand.exe"));
  launch.join();
  EXPECT_EQ(result, 258u);
  EXPECT_EQ(remarks.str(), GetErrorMsgForID(258));
  EXPECT_FALSE(AnyProcessNamed(L"korvaOnDemand.exe"));  // terminated, not left running
  EXPECT_TRUE(HasLogLine(log_.Text(), "executeFile",
                         "Terminating the Process for application " + line + " as time is exceeded 1 Minutes "));
}

TEST_F(LauncherTest, CapturedOutputLandsInTheLogEvenWhenItOverflowsThePipe) {
  const std::string talker = AddStandIn(L"driversetup64", 0, 0, "QVFAFilter service started");
  BOOL obtained = FALSE;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, (Quoted(talker) + " -start").c_str(), 1, &obtained, nullptr), 0u);
  EXPECT_TRUE(obtained);
  // Far more than any pipe buffer: the child could only finish if the launcher kept reading.
  std::string text;
  for (int i = 0; i < 4000; ++i) text += "line " + std::to_string(i) + std::string(90, '.') + "\r\n";
  WriteFileBytes(dir_.File(L"chatty.txt"), text);
  const std::string line = "cmd.exe /c type " + Quoted(win::WideToAnsi(dir_.File(L"chatty.txt")));
  HeapText output;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, line.c_str(), 1, &obtained, &output.text), 0u);
  EXPECT_TRUE(output.str() == text) << output.str().size() << " bytes";
  const std::string log = log_.Text();
  EXPECT_TRUE(HasLogLine(log, "ExecuteAndPrintMessage", "Output : QVFAFilter service started"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAndPrintMessage", "Output : line 3999" + std::string(90, '.')));
}

TEST_F(LauncherTest, ShutdownRefusesEveryLaunchAndStartsNothing) {
  const std::string line = Quoted(AddStandIn(L"qvconfig")), exe = line.substr(1, line.size() - 2);
  const char* l = line.c_str();
  win::UniqueHandle token;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.put()));
  ShutdownInProgressFlag.store(1);
  HeapText r[6];
  EXPECT_EQ(executeFile(nullptr, l, &r[0].text, 1), 1237u);
  EXPECT_EQ(executeInfo(nullptr, l, &r[1].text), 1237u);
  EXPECT_EQ(ExecuteWithToken(token.get(), l, nullptr, &r[2].text, 1), 1237u);
  EXPECT_EQ(ExecuteInSession(GetActiveConsoleSessionId(), l, nullptr, &r[3].text, 1), 1237u);
  EXPECT_EQ(ExecuteInSystemSession(l, nullptr, &r[4].text, 1), 1237u);
  EXPECT_EQ(ExecuteUIApplicationInSystemSession(l, nullptr, &r[5].text, 1), 1237u);
  for (const HeapText& remarks : r)
    EXPECT_EQ(remarks.str(), "Machine is shutdown. Installation will retried in the next reboot");
  EXPECT_EQ(ExecuteAppWithArgs(exe.c_str(), nullptr, "-x", 1), 1237u);
  EXPECT_EQ(ExecuteAppWithArgs(L"", win::AnsiToWide(exe).c_str(), L"-y", 1), 1237u);
  BOOL obtained = TRUE;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, l, 1, &obtained, nullptr), 1237u);
  EXPECT_FALSE(obtained);
  ShutdownInProgressFlag.store(0);

  EXPECT_TRUE(bin_.WaitForJournal(1, 1000).empty());
  const std::string log = log_.Text();
  const std::string refused = "Shutdown is in Progress. So returning without executing the process";
  EXPECT_TRUE(HasLogLine(log, "executeFile", refused + line));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAppWithArgs", refused + line + " -x"));
  EXPECT_EQ(log.find("Unable to get the Process token."), std::string::npos);  // refused before any token work
}

}  // namespace
}  // namespace korva::test
