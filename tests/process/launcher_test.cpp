// The launchers against real child processes: the stand-in helper, cmd.exe, a missing program.
#include "process/launcher.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "process/sessions.h"
#include "support/process_support.h"
#include "settings/error_text.h"

namespace korva::test {
namespace {

constexpr const char* kShutdownLine = "Shutdown is in Progress. So returning without executing the process";

using LauncherTest = ProcessTest;

std::string CurrentDirectory() {
  char buffer[MAX_PATH] = {};
  const DWORD length = GetCurrentDirectoryA(MAX_PATH, buffer);
  return std::string(buffer, length);
}

// Ends every process of that name in this session (children a test left running on purpose).
void KillAll(const wchar_t* name) {
  for (DWORD pid = GetProcessID(name, OwnSessionId()); pid != 0; pid = GetProcessID(name, OwnSessionId())) {
    KillProcess(pid);
  }
}

TEST_F(LauncherTest, WorkingDirectoryIsHonouredAndTheServiceDirectoryRestored) {
  const std::string exe = AddStandIn(L"korvaConfig");
  const std::wstring work = dir_.File(L"work");
  ASSERT_TRUE(CreateDirectoryW(work.c_str(), nullptr));
  const std::string workA = win::WideToAnsi(work);
  const std::string before = CurrentDirectory();
  ASSERT_NE(before, workA);

  HeapText remarks;
  const std::string line = Quoted(exe) + " 40 0 1 1";
  EXPECT_EQ(executeFile(workA.c_str(), line.c_str(), &remarks.text, 1), 0u);
  EXPECT_EQ(ExecuteAppWithArgs(exe.c_str(), workA.c_str(), "-c 12", 1), 0u);
  EXPECT_EQ(ExecuteAppWithArgs(work.c_str(), win::AnsiToWide(exe).c_str(), nullptr, 1), 0u);
  EXPECT_EQ(CurrentDirectory(), before);

  const std::vector<JournalEntry> journal = JournalOf("korvaConfig");
  ASSERT_EQ(journal.size(), 3u);
  for (const JournalEntry& entry : journal) EXPECT_EQ(entry.currentDirectory, workA);
  EXPECT_EQ(journal[0].commandLine, line);
  EXPECT_EQ(journal[1].commandLine, Quoted(exe) + " -c 12");
  EXPECT_EQ(journal[2].commandLine, Quoted(exe));

  const std::string log = log_.Text();
  EXPECT_TRUE(HasLogLine(log, "executeFile", "Current Working Directory    : " + before));
  EXPECT_TRUE(HasLogLine(log, "executeFile", "Executing Application Source : " + line));
  EXPECT_TRUE(HasLogLine(log, "executeFile", "Set Working Directory        : " + workA));
  EXPECT_TRUE(HasLogLine(log, "executeFile", "Process successfully created for application " + line));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAppWithArgs", "Execute Process Name ->" + exe));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAppWithArgs", "Command Line Params  ->-c 12"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAppWithArgs", "Command Line Params  ->(null)"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAppWithArgs", "Process successfully created for application : " + exe));
}

TEST_F(LauncherTest, AMissingWorkingDirectoryIsLoggedAndTheServiceDirectoryKept) {
  const std::string exe = AddStandIn(L"korvaConfig");
  const std::string missing = dir_.NarrowPath() + "\\no such folder";
  const std::string before = CurrentDirectory();

  HeapText remarks;
  const DWORD result = executeFile(missing.c_str(), Quoted(exe).c_str(), &remarks.text, 1);
  EXPECT_NE(result, 0u);
  EXPECT_EQ(remarks.str(), GetErrorMsgForID(result));
  EXPECT_EQ(CurrentDirectory(), before);
  EXPECT_TRUE(bin_.Journal().empty());
  EXPECT_TRUE(HasLogLine(log_.Text(), "executeFile", "Failed to set the WorkingDirectory " + missing));
}

TEST_F(LauncherTest, WaitZeroReturnsAtOnceWhileTheChildSleeps) {
  const std::string shadow = AddStandIn(L"korvaFileShadow", 0, 30000);
  const std::string tray = AddStandIn(L"korvaAgentTrayIcon", 0, 30000);
  const std::string summary = AddStandIn(L"korvaDevCtrlSummary", 0, 30000);

  HeapText remarks;
  EXPECT_EQ(executeFile(nullptr, Quoted(shadow).c_str(), &remarks.text, 0), 0u);
  EXPECT_NE(GetProcessID(L"korvaFileShadow.exe", OwnSessionId()), 0u);  // nobody waited for it
  HeapText infoRemarks;
  EXPECT_EQ(executeInfo(nullptr, Quoted(tray).c_str(), &infoRemarks.text), 0u);
  EXPECT_NE(GetProcessID(L"korvaAgentTrayIcon.exe", OwnSessionId()), 0u);
  EXPECT_EQ(ExecuteAppWithArgs(summary.c_str(), nullptr, "-s ET_ENUM 9 2 \"Unknown\"", 0), 0u);
  EXPECT_NE(GetProcessID(L"korvaDevCtrlSummary.exe", OwnSessionId()), 0u);

  // Each got a console of its own: let them get going before they are killed (see RunningStandIn).
  EXPECT_EQ(bin_.WaitForJournal(3, 10000).size(), 3u);
  KillAll(L"korvaFileShadow.exe");
  KillAll(L"korvaAgentTrayIcon.exe");
  KillAll(L"korvaDevCtrlSummary.exe");
  EXPECT_FALSE(HasLogLineStartingWith(log_.Text(), "executeFile", "Exit code for the application"));
}

TEST_F(LauncherTest, EveryWaitingLauncherGivesTheExitCodeAndItsText) {
  struct Case {
    const wchar_t* name;
    DWORD exitCode;
    const char* function;
    std::function<DWORD(const std::string& exe, HeapText& remarks)> launch;
  };
  const std::vector<Case> cases = {
      {L"driversetup32", 5, "executeFile",
       [](const std::string& exe, HeapText& remarks) {
         return executeFile(nullptr, (Quoted(exe) + " -stop").c_str(), &remarks.text, 1);
       }},
      {L"devctrlaction32", 3, "ExecuteAppWithArgs",
       [](const std::string& exe, HeapText&) { return ExecuteAppWithArgs(exe.c_str(), nullptr, "-c 1", 1); }},
      {L"devctrlaction64", 4, "ExecuteAppWithArgs",
       [](const std::string& exe, HeapText&) {
         return ExecuteAppWithArgs(static_cast<const wchar_t*>(nullptr), win::AnsiToWide(exe).c_str(), L"-c 12", 2);
       }},
      {L"driversetup64", 6, "ExecuteAndPrintMessage",
       [](const std::string& exe, HeapText& remarks) {
         BOOL obtained = TRUE;
         const DWORD result =
             ExecuteAndPrintMessage(nullptr, (Quoted(exe) + " -start").c_str(), 1, &obtained, &remarks.text);
         EXPECT_FALSE(obtained);  // the stand-in wrote nothing
         return result;
       }},
  };
  for (const Case& c : cases) {
    const std::string exe = AddStandIn(c.name, static_cast<int>(c.exitCode));
    HeapText remarks;
    EXPECT_EQ(c.launch(exe, remarks), c.exitCode) << c.function;
    if (std::string(c.function) == "executeFile") {
      EXPECT_EQ(remarks.str(), GetErrorMsgForID(c.exitCode));
    }
  }
  EXPECT_EQ(bin_.Journal().size(), cases.size());
  const std::string log = log_.Text();
  for (const Case& c : cases) {
    EXPECT_TRUE(HasLogLine(log, c.function, "Exit code for the application : " + std::to_string(c.exitCode)))
        << c.function;
  }
}

// The suite's one real minute: every waiting launcher shares this wait-and-terminate path.
TEST_F(LauncherTest, AChildOutlivingItsOneMinuteWaitIsTerminatedWithExitCodeZero) {
  const std::string exe = AddStandIn(L"korvaOnDemand", 0, 180000);
  const std::string line = Quoted(exe) + " -run";
  HeapText remarks;
  DWORD result = 0;
  std::thread launch([&] { result = executeFile(nullptr, line.c_str(), &remarks.text, 1); });
  // A handle of our own on the child, to see its end and exit code after the launcher returns.
  bin_.WaitForJournal(1, 30000);
  const win::UniqueHandle child(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE,
                                            GetProcessID(L"korvaOnDemand.exe", OwnSessionId())));
  launch.join();

  EXPECT_EQ(result, 258u);
  EXPECT_EQ(remarks.str(), GetErrorMsgForID(258));
  ASSERT_TRUE(child);
  EXPECT_EQ(WaitForSingleObject(child.get(), 0), WAIT_OBJECT_0);
  DWORD exitCode = 99;
  EXPECT_TRUE(GetExitCodeProcess(child.get(), &exitCode));
  EXPECT_EQ(exitCode, 0u);
  const std::string log = log_.Text();
  EXPECT_TRUE(HasLogLine(log, "executeFile",
                         "Terminating the Process for application " + line + " as time is exceeded 1 Minutes "));
  EXPECT_TRUE(HasLogLine(log, "executeFile", "The process has been successfully terminated. "));
  EXPECT_FALSE(HasLogLineStartingWith(log, "executeFile", "Exit code for the application"));
}

TEST_F(LauncherTest, CapturedOutputLandsInTheLogAndTheOutText) {
  const std::string talker = AddStandIn(L"driversetup64", 0, 0, "QVFAFilter service started");
  const std::string quiet = AddStandIn(L"driversetup32");

  BOOL obtained = FALSE;
  HeapText output;
  EXPECT_EQ(ExecuteAndPrintMessage(dir_.NarrowPath().c_str(), (Quoted(talker) + " -start").c_str(), 1, &obtained,
                                   &output.text),
            0u);
  EXPECT_TRUE(obtained);
  EXPECT_EQ(output.str().substr(0, output.str().find_first_of("\r\n")), "QVFAFilter service started");

  BOOL quietObtained = TRUE;
  HeapText quietOutput;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, Quoted(quiet).c_str(), 1, &quietObtained, &quietOutput.text), 0u);
  EXPECT_FALSE(quietObtained);
  EXPECT_EQ(quietOutput.text, nullptr);

  ASSERT_EQ(JournalOf("driversetup64").size(), 1u);
  EXPECT_EQ(JournalOf("driversetup64")[0].currentDirectory, dir_.NarrowPath());
  EXPECT_TRUE(HasLogLine(log_.Text(), "ExecuteAndPrintMessage", "Output : QVFAFilter service started"));
}

TEST_F(LauncherTest, AChattyChildNeverBlocksOnAFullPipe) {
  // Far more than any pipe buffer: the child could only finish if the launcher kept reading.
  std::string text;
  for (int i = 0; i < 4000; ++i) text += "line " + std::to_string(i) + std::string(90, '.') + "\r\n";
  const std::wstring file = dir_.File(L"chatty.txt");
  WriteFileBytes(file, text);
  wchar_t system[MAX_PATH];
  GetSystemDirectoryW(system, MAX_PATH);
  const std::string line =
      Quoted(win::WideToAnsi(std::wstring(system) + L"\\cmd.exe")) + " /c type " + Quoted(win::WideToAnsi(file));

  BOOL obtained = FALSE;
  HeapText output;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, line.c_str(), 1, &obtained, &output.text), 0u);
  EXPECT_TRUE(obtained);
  EXPECT_EQ(output.str(), text);
  EXPECT_TRUE(HasLogLine(log_.Text(), "ExecuteAndPrintMessage", "Output : line 3999" + std::string(90, '.')));
}

TEST_F(LauncherTest, ShutdownRefusesEveryLaunchAndStartsNothing) {
  const std::string line = Quoted(AddStandIn(L"qvconfig"));
  const std::string exe = line.substr(1, line.size() - 2);
  win::UniqueHandle token;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.put()));
  ShutdownInProgressFlag.store(1);

  struct Case {
    const char* function;
    bool hasRemarks;
    std::function<DWORD(char** remarks)> launch;
  };
  const std::vector<Case> cases = {
      {"executeFile", true, [&](char** r) { return executeFile(nullptr, line.c_str(), r, 1); }},
      {"executeInfo", true, [&](char** r) { return executeInfo(nullptr, line.c_str(), r); }},
      {"ExecuteAppWithArgs", false, [&](char**) { return ExecuteAppWithArgs(exe.c_str(), nullptr, "-x", 1); }},
      {"ExecuteAppWithArgs", false,
       [&](char**) { return ExecuteAppWithArgs(L"", win::AnsiToWide(exe).c_str(), L"-y", 1); }},
      {"ExecuteWithToken", true, [&](char** r) { return ExecuteWithToken(token.get(), line.c_str(), nullptr, r, 1); }},
      {"ExecuteInSession", true,
       [&](char** r) { return ExecuteInSession(OwnSessionId(), line.c_str(), nullptr, r, 1); }},
      {"ExecuteInSystemSession", true, [&](char** r) { return ExecuteInSystemSession(line.c_str(), nullptr, r, 1); }},
      {"ExecuteUIApplicationInSystemSession", true,
       [&](char** r) { return ExecuteUIApplicationInSystemSession(line.c_str(), nullptr, r, 1); }},
      {"ExecuteAndPrintMessage", false,
       [&](char**) {
         BOOL obtained = TRUE;
         const DWORD result = ExecuteAndPrintMessage(nullptr, line.c_str(), 1, &obtained, nullptr);
         EXPECT_FALSE(obtained);
         return result;
       }},
  };
  for (const Case& c : cases) {
    HeapText remarks;
    EXPECT_EQ(c.launch(&remarks.text), 1237u) << c.function;
    if (c.hasRemarks) {
      EXPECT_EQ(remarks.str(), "Machine is shutdown. Installation will retried in the next reboot") << c.function;
    }
  }
  ShutdownInProgressFlag.store(0);

  EXPECT_TRUE(bin_.WaitForJournal(1, 1000).empty());
  const std::string log = log_.Text();
  for (const Case& c : cases) {
    EXPECT_TRUE(HasLogLineStartingWith(log, c.function, kShutdownLine)) << c.function;
  }
  EXPECT_TRUE(HasLogLine(log, "executeFile", kShutdownLine + line));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAppWithArgs", kShutdownLine + line + " -x"));
  // Refused before any session or token work.
  EXPECT_EQ(log.find("Unable to get the Process token."), std::string::npos);
  EXPECT_EQ(log.find("Process successfully created"), std::string::npos);
}

TEST_F(LauncherTest, AMissingProgramIsACreationFailure) {
  const std::string missing = dir_.NarrowPath() + "\\absent.exe";
  const std::string line = Quoted(missing) + " -x";

  HeapText remarks;
  EXPECT_EQ(executeFile(nullptr, line.c_str(), &remarks.text, 1), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(remarks.str(), GetErrorMsgForID(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(ExecuteAppWithArgs(missing.c_str(), nullptr, "-x", 1), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  BOOL obtained = TRUE;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, line.c_str(), 1, &obtained, nullptr),
            static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_FALSE(obtained);

  const std::string log = log_.Text();
  EXPECT_TRUE(HasLogLine(log, "executeFile", "Failed to Create the Process for the application " + line));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAndPrintMessage", "Failed to Create the Process for the application " + line));
  EXPECT_TRUE(HasLogLine(log, "ExecuteAppWithArgs", "Failed to Create the Process : 2"));
  EXPECT_TRUE(HasLogLine(log, "printErrorMsgForID", "Error ID      :2"));
}

}  // namespace
}  // namespace korva::test
