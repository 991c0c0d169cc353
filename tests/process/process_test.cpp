// Launchers, sessions and tokens against real child processes, stand-ins playing explorer.exe and winlogon.exe.
#include <future>
#include <tuple>

#include "process/child_environment.h"
#include "process/creation_retry.h"
#include "process/launcher.h"
#include "process/sessions.h"
#include "settings/error_text.h"
#include "shared/core/agent_folders.h"
#include "support/agent_fixture.h"

namespace korva::test {

using LauncherTest = AgentTest;

// The programs run as LocalSystem and look for DLLs in their PATH: each launcher hands on only the
// folders no user may change, in their order, and names each one left out once. The waiting ones run
// in the folder given, leave the service's own as it was, and hand back the program's exit code.
TEST_F(LauncherTest, LaunchersRunInTheirFolderWithAPathNoUserMayChangeAndGiveTheExitCode) {
  // Under Wine every file reports a list that keeps users out: a folder users may write is judged by
  // the same walk, shown from its list's text (AgentFoldersTest).
  const std::wstring kept = dir_.File(L"tools");
  ASSERT_TRUE(CreateDirectoryW(kept.c_str(), nullptr));
  const FolderLink link(dir_.File(L"link"), kept);
  ASSERT_TRUE(link.made());
  const std::string dir = dir_.NarrowPath();
  const struct { std::string folder, reason; } leftOut[] = {
      {"bin", folders::FaultText(folders::FolderFault::kNotFullyQualified)},
      {"C:\\", folders::FaultText(folders::FolderFault::kDriveRoot)},
      {"\\\\server\\share", folders::FaultText(folders::FolderFault::kNetworkOrDevice)},
      {dir + "\\absent", "it does not exist (from [" + dir + "\\absent] on)"},
      {dir + "\\link", "it is reached through [" + dir + "\\link]"}};
  std::string path = "C:\\windows\\system32;;" + leftOut[0].folder + ";\"" + win::WideToAnsi(kept) + "\"";
  for (const auto& folder : leftOut) path += ";" + folder.folder;
  const EnvironmentVariable changed(L"PATH", win::AnsiToWide(path));
  process::ForgetLeftOutPathFoldersForTest();

  const std::string setup = AddStandIn(L"driversetup32", 5);
  const std::string action = AddStandIn(L"devctrlaction64", 4);
  const std::string printer = AddStandIn(L"driversetup64", 6);
  const std::string workA = dir + "\\logs";
  char before[MAX_PATH] = {};
  char after[MAX_PATH] = {};
  GetCurrentDirectoryA(MAX_PATH, before);
  HeapText remarks;
  EXPECT_EQ(executeFile(workA.c_str(), Quoted(setup).c_str(), remarks.put(), 1), 5u);
  EXPECT_EQ(remarks.str(), GetErrorMsgForID(5));
  EXPECT_EQ(ExecuteAppWithArgs(static_cast<const wchar_t*>(nullptr), win::AnsiToWide(action).c_str(), L"-c 2", 2), 4u);
  EXPECT_EQ(ExecuteAppWithArgs(action.c_str(), workA.c_str(), "-c 12", 1), 4u);
  BOOL obtained = TRUE;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, Quoted(printer).c_str(), 1, &obtained, nullptr), 6u);
  EXPECT_FALSE(obtained);  // the stand-in wrote nothing
  win::UniqueHandle process;
  EXPECT_EQ(process::StartApplicationKeepingProcess(setup.c_str(), nullptr, "-k", process), 0u);
  ASSERT_EQ(WaitForSingleObject(process.get(), 10000), WAIT_OBJECT_0);
  GetCurrentDirectoryA(MAX_PATH, after);
  EXPECT_STREQ(after, before);

  const std::vector<JournalEntry> journal = bin_.WaitForJournal(5, 10000);
  ASSERT_EQ(journal.size(), 5u);
  for (const JournalEntry& run : journal) {
    EXPECT_EQ(run.path, "C:\\windows\\system32;\"" + win::WideToAnsi(kept) + "\"") << run.commandLine;
  }
  for (std::size_t i : {0u, 2u}) EXPECT_EQ(journal[i].currentDirectory, workA) << journal[i].commandLine;
  const std::string log = log_->Text();
  for (const auto& folder : leftOut) {
    const std::string line = "] The folder [" + folder.folder + "] is left out of the PATH of the programs the agent starts: " +
                             folder.reason;
    EXPECT_EQ(CountOf(log, line), 1u) << line;
  }
  EXPECT_TRUE(HasLogLine(log, "ExecuteAndPrintMessage", "Exit code for the application : 6"));
}

// Only a creation the system itself could not complete is made again, only once, and not once a
// shutdown has begun; the last error the caller reads is the last try's. One the launch gate found a
// step of missing is not tried at all: it fails with the gate's error.
TEST_F(LauncherTest, OnlyACreationWhoseProcessNeverCameUpIsMadeOnceMore) {
  // `errors`: each try's outcome in order, 0 a created process; past a shutdown, its refusal's.
  const struct { std::vector<DWORD> errors; BOOL created; std::size_t tries; bool shutdownAfterFirst; DWORD missing; }
      rows[] = {{{ERROR_INTERNAL_ERROR, 0}, TRUE, 2, false, ERROR_SUCCESS},
                {{ERROR_INTERNAL_ERROR, ERROR_INTERNAL_ERROR, 0}, FALSE, 2, false, ERROR_SUCCESS},
                {{ERROR_INTERNAL_ERROR, ERROR_FILE_NOT_FOUND}, FALSE, 2, false, ERROR_SUCCESS},
                {{ERROR_INTERNAL_ERROR, process::kShutdownRefusalCode}, FALSE, 1, true, ERROR_SUCCESS},
                {{ERROR_FILE_NOT_FOUND, 0}, FALSE, 1, false, ERROR_SUCCESS},
                {{ERROR_ACCESS_DENIED, 0}, FALSE, 1, false, ERROR_SUCCESS},
                {{0}, TRUE, 1, false, ERROR_SUCCESS},
                {{0}, FALSE, 0, false, ERROR_PATH_NOT_FOUND}};
  const std::string warning = "The process of x.exe did not come up (error 1359); it is created once more.";
  for (const auto& row : rows) {
    std::size_t tries = 0;
    BOOL created = FALSE;
    DWORD lastError = 0;
    const std::string logged = LoggedBy([&] {
      created = process::CreateWithOneRetry("executeFile", "x.exe", row.missing, [&] {
        const DWORD error = row.errors.at(tries++);
        if (row.shutdownAfterFirst) ShutdownInProgressFlag.store(1);
        SetLastError(error);
        return error == 0 ? TRUE : FALSE;
      });
      lastError = GetLastError();
    });
    ShutdownInProgressFlag.store(0);
    EXPECT_EQ(created, row.created) << row.errors[0];
    EXPECT_EQ(tries, row.tries) << row.errors[0];
    if (!created) {
      EXPECT_EQ(lastError, row.tries == 0 ? row.missing : row.errors[row.shutdownAfterFirst ? 1 : row.tries - 1])
          << row.errors[0];
    }
    EXPECT_EQ(CountOf(logged, warning), row.errors[0] == ERROR_INTERNAL_ERROR ? 1u : 0u) << logged;
    EXPECT_EQ(HasLogLine(logged, "executeFile", "The machine is shutting down; x.exe is not created again."),
              row.shutdownAfterFirst);
  }
}

// The suite's one real minute: every waiting launcher shares this wait-and-terminate path.
TEST_F(LauncherTest, AChildOutlivingItsOneMinuteWaitIsTerminatedEvenWhileItFloodsItsOutput) {
  const std::string line = Quoted(AddStandIn(L"korvaOnDemand", 0, 180000)) + " -run";
  const std::string flooding = Quoted(AddStandIn(L"driversetup64"));
  WriteFileBytes(bin_.folder() + L"\\driversetup64.behaviour", "flood=1\n");
  HeapText remarks;
  HeapText output;
  BOOL obtained = FALSE;
  auto launch = std::async(std::launch::async, [&] { return executeFile(nullptr, line.c_str(), remarks.put(), 1); });
  auto flood = std::async(std::launch::async,
                          [&] { return ExecuteAndPrintMessage(nullptr, flooding.c_str(), 1, &obtained, output.put()); });
  bin_.WaitForJournal(2, 30000);
  EXPECT_FALSE(ProcessesNamed(L"korvaOnDemand.exe").empty());
  EXPECT_EQ(launch.get(), 258u);
  EXPECT_EQ(remarks.str(), GetErrorMsgForID(258));
  EXPECT_EQ(flood.get(), 258u);
  EXPECT_TRUE(obtained);
  EXPECT_EQ(output.str().size(), 64u * 1024u) << "the kept output is capped";
  for (const wchar_t* name : {L"korvaOnDemand.exe", L"driversetup64.exe"}) {
    EXPECT_TRUE(ProcessesNamed(name).empty()) << "terminated, not left running";
  }
  EXPECT_TRUE(HasLogLine(log_->Text(), "executeFile",
                         "Terminating the Process for application " + line + " as time is exceeded 1 Minutes "));
}

// Far more than any pipe buffer: the child could only finish if the launcher kept reading. The
// first 64 KiB are kept and handed back, their first 200 lines logged one by one; the rest is counted.
TEST_F(LauncherTest, CapturedOutputLandsInTheLogEvenWhenItOverflowsThePipe) {
  std::string text;
  for (int i = 0; i < 4000; ++i) text += "line " + std::to_string(i) + std::string(90, '.') + "\r\n";
  WriteFileBytes(dir_.File(L"chatty.txt"), text);
  const std::string line = "C:\\windows\\system32\\cmd.exe /c type " + Quoted(win::WideToAnsi(dir_.File(L"chatty.txt")));
  HeapText output;
  BOOL obtained = FALSE;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, line.c_str(), 1, &obtained, output.put()), 0u);
  EXPECT_TRUE(obtained);
  EXPECT_TRUE(output.str() == text.substr(0, 65536)) << output.str().size() << " bytes";  // line 656 cut
  EXPECT_LOG_LINES(log_->Text(),
                   {{"ExecuteAndPrintMessage", "Output : line 0" + std::string(90, '.')},
                    {"ExecuteAndPrintMessage", "Output : line 199" + std::string(90, '.')},
                    {"ExecuteAndPrintMessage", "Output : line 200", LogLine::kAbsent},
                    {"ExecuteAndPrintMessage", "457 more lines of output are not logged one by one."},
                    {"ExecuteAndPrintMessage", "The output went on for " + std::to_string(text.size() - 65536) +
                                                   " more bytes, read and not kept."}});
}

// A handle the service holds open inheritable as it starts a setup program stays the service's.
TEST_F(LauncherTest, ACapturingLaunchLetsItsChildInheritItsPipeEndAndNothingElse) {
  const std::string child = Quoted(AddStandIn(L"inheritance-probe", 0, 30000));
  const std::wstring held = dir_.File(L"held.txt");
  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  win::UniqueFileHandle file(CreateFileW(held.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inheritable,
                                         CREATE_ALWAYS, 0, nullptr));
  ASSERT_TRUE(file) << GetLastError();
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, child.c_str(), 0, nullptr, nullptr), 0u);
  ASSERT_FALSE(ProcessesNamed(L"inheritance-probe.exe").empty());
  file.reset();
  // Only a copy of the handle in the child, still running, would keep the file from being had alone.
  const win::UniqueFileHandle alone(CreateFileW(held.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_TRUE(alone) << "error " << GetLastError();
  EndProcessesNamed(L"inheritance-probe.exe");
}

TEST_F(LauncherTest, ShutdownRefusesEveryLaunchAndStartsNothing) {
  const std::string line = Quoted(AddStandIn(L"qvconfig"));
  const std::string exe = line.substr(1, line.size() - 2);
  const char* l = line.c_str();
  win::UniqueHandle token;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.put()));
  ShutdownInProgressFlag.store(1);
  HeapText r[6];
  EXPECT_EQ(executeFile(nullptr, l, r[0].put(), 1), 1237u);
  EXPECT_EQ(executeInfo(nullptr, l, r[1].put()), 1237u);
  EXPECT_EQ(ExecuteWithToken(token.get(), l, nullptr, r[2].put(), 1), 1237u);
  EXPECT_EQ(ExecuteInSession(GetActiveConsoleSessionId(), l, nullptr, r[3].put(), 1), 1237u);
  EXPECT_EQ(ExecuteInSystemSession(l, nullptr, r[4].put(), 1), 1237u);
  EXPECT_EQ(ExecuteUIApplicationInSystemSession(l, nullptr, r[5].put(), 1), 1237u);
  for (const HeapText& remarks : r)
    EXPECT_EQ(remarks.str(), "Machine is shutdown. Installation will retried in the next reboot");
  EXPECT_EQ(ExecuteAppWithArgs(exe.c_str(), nullptr, "-x", 1), 1237u);
  EXPECT_EQ(ExecuteAppWithArgs(L"", win::AnsiToWide(exe).c_str(), L"-y", 1), 1237u);
  BOOL obtained = TRUE;
  EXPECT_EQ(ExecuteAndPrintMessage(nullptr, l, 1, &obtained, nullptr), 1237u);
  EXPECT_FALSE(obtained);
  ShutdownInProgressFlag.store(0);
  // A refused launch's child would have written its line by the time this waited-for one has.
  HeapText after;
  EXPECT_EQ(executeFile(nullptr, l, after.put(), 1), 0u);
  EXPECT_EQ(bin_.Journal().size(), 1u);
  const std::string log = log_->Text();
  const std::string refused = "Shutdown is in Progress. So returning without executing the process";
  EXPECT_LOG_LINES(log, {{"executeFile", refused + line}, {"ExecuteAppWithArgs", refused + line + " -x"}});
  EXPECT_EQ(log.find("Unable to get the Process token."), std::string::npos);  // refused before any token work
}

using SessionsTest = AgentTest;

// While it lives, the machine's PATH (what new environments are made from) is `path`; then as it was.
class MachinePath {
 public:
  explicit MachinePath(const std::wstring& path) {
    const LONG opened = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, KEY_QUERY_VALUE | KEY_SET_VALUE, key_.put());
    if (opened != ERROR_SUCCESS) throw std::runtime_error("the machine's environment key cannot be opened");
    DWORD size = 0;
    if (RegQueryValueExW(key_.get(), L"PATH", nullptr, &type_, nullptr, &size) == ERROR_SUCCESS) {
      before_.resize(size / sizeof(wchar_t));
      RegQueryValueExW(key_.get(), L"PATH", nullptr, &type_, reinterpret_cast<BYTE*>(before_.data()), &size);
    }
    Set(REG_EXPAND_SZ, path.c_str(), path.size() + 1);
  }
  MachinePath(const MachinePath&) = delete;
  MachinePath& operator=(const MachinePath&) = delete;
  ~MachinePath() {
    if (before_.empty()) {
      RegDeleteValueW(key_.get(), L"PATH");
    } else {
      Set(type_, before_.data(), before_.size());
    }
  }

 private:
  static constexpr wchar_t kKey[] = L"System\\CurrentControlSet\\Control\\Session Manager\\Environment";
  void Set(DWORD type, const wchar_t* text, std::size_t chars) {
    RegSetValueExW(key_.get(), L"PATH", 0, type, reinterpret_cast<const BYTE*>(text),
                   static_cast<DWORD>(chars * sizeof(wchar_t)));
  }
  win::UniqueRegKey key_;
  DWORD type_ = REG_EXPAND_SZ;
  std::wstring before_;
};

// Wine keeps an "explorer.exe /desktop" of its own: only the presence of a shell can be shown here.
TEST_F(SessionsTest, AnExplorerInTheConsoleSessionMeansAUserIsLoggedOn) {
  const DWORD console = GetActiveConsoleSessionId();
  const RunningProgram explorer(bin_.Add(L"explorer", 0, 120000));
  ASSERT_NE(explorer.pid(), 0u);
  EXPECT_NE(GetProcessID(L"EXPLORER.EXE", console), 0u);      // the name in any case
  EXPECT_EQ(GetProcessID(L"explorer.exe", console + 1), 0u);  // not in another session
  EXPECT_EQ(GetProcessID(L"explorer", console), 0u);          // the whole name must match
  EXPECT_EQ(GetActiveTerminalSessionId(), console);           // the only session listed
  EXPECT_EQ(std::tuple(IsExplorerPresent(), IsUserLoggedOn(), GetCurrentlyLoggedOnUser()),
            std::tuple(true, true, UserName()));
}

// Without a winlogon.exe there is no token to launch with: the launch is refused with 1008.
TEST_F(SessionsTest, AUserSessionLaunchRunsWithTheTokenOfWinlogon) {
  const DWORD console = GetActiveConsoleSessionId();
  const std::string line = Quoted(AddStandIn(L"korvaAgentTrayIcon", 7)) + " /show";
  const std::string work = dir_.NarrowPath();
  HeapText refused;
  EXPECT_EQ(ExecuteInSystemSession(line.c_str(), work.c_str(), refused.put(), 1), 1008u);
  EXPECT_EQ(refused.str(), GetErrorMsgForID(1008));
  EXPECT_TRUE(bin_.Journal().empty());

  RunningProgram winlogon(bin_.Add(L"winlogon", 0, 120000));
  ASSERT_NE(winlogon.pid(), 0u);
  ASSERT_EQ(bin_.WaitForJournal(1, 10000).size(), 1u);  // winlogon's own run
  bin_.ClearJournal();
  // The program gets the token's environment, made from the machine's, its PATH judged as the
  // service's own would be; not the service's.
  const MachinePath machinePath(L"C:\\windows\\system32;relative");
  const EnvironmentVariable servicePath(L"PATH", L"C:\\windows");
  HeapText r[3];
  EXPECT_EQ(ExecuteInSystemSession(line.c_str(), work.c_str(), r[0].put(), 1), 7u);
  EXPECT_EQ(r[0].str(), GetErrorMsgForID(7));
  EXPECT_EQ(ExecuteInSession(console, line.c_str(), work.c_str(), r[1].put(), 1), 7u);
  EXPECT_EQ(ExecuteUIApplicationInSystemSession(line.c_str(), work.c_str(), r[2].put(), 0), 0u);
  winlogon.Stop();

  const std::vector<JournalEntry> journal = bin_.WaitForJournal(3, 10000);
  ASSERT_EQ(journal.size(), 3u);
  for (const JournalEntry& entry : journal) {
    EXPECT_EQ(entry.currentDirectory, work);
    EXPECT_EQ(entry.sessionId, console);
    EXPECT_EQ(entry.path, "C:\\windows\\system32");
  }
  EXPECT_LOG_LINES(log_->Text(), {{"ExecuteInSession", "Unable to get the Process token."},  // the refused launch
                                  {"ExecuteWithToken", "Exit code for the application : 7"}});
}

}  // namespace korva::test
