// The executable end to end through Wine's service control manager: command lines, start-up, controls, stop.
#include <windows.h>
#include <tlhelp32.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "e2e/service_fixture.h"
#include "service/service_status.h"
#include "shared/service_control.h"
#include "win/bitness.h"
#include "win/procedure.h"
#include "win/strings.h"

namespace korva::test {
namespace {

// The names the threads of process `pid` carry (GetThreadDescription, looked up); unnamed ones left out.
std::set<std::string> ThreadNamesOf(DWORD pid) {
  const auto describe = win::LookUpProcedure<HRESULT(WINAPI*)(HANDLE, PWSTR*)>(GetModuleHandleW(L"kernel32.dll"),
                                                                             "GetThreadDescription");
  std::set<std::string> names;
  const win::UniqueFileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = Thread32First(snapshot.get(), &entry); more && describe != nullptr;
       more = Thread32Next(snapshot.get(), &entry)) {
    if (entry.th32OwnerProcessID != pid) continue;
    const win::UniqueHandle thread(OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, entry.th32ThreadID));
    PWSTR name = nullptr;
    if (!thread || FAILED(describe(thread.get(), &name))) continue;
    if (name != nullptr && *name != L'\0') names.insert(win::WideToUtf8(name));
    LocalFree(name);
  }
  return names;
}

}  // namespace

// Upper case works, further arguments are ignored; installing again updates; uninstalling stops first.
TEST_F(EntryPointTest, InstallUpdateAndUninstallFromTheCommandLine) {
  const std::wstring installed = L"\"" + ServiceExecutable() + L"\"|2|16|LocalSystem";
  ProgramResult result = Run(L" /I /U extra");
  EXPECT_EQ(result.exitCode, 0u);
  EXPECT_NE(result.output.find("Main : Going to install TESK Agent service."), std::string::npos) << result.output;
  EXPECT_EQ(AgentServiceConfig(), installed);
  // IsWow64Process's answer: 1 for the PE32 in the 64-bit prefix, 0 for the PE32+.
  const std::string wow64 = win::kIs64BitBuild ? "0" : "1";
  EXPECT_LOG_LINES(Log(), {{"main", std::string(82, '*')}, {"main", "Log Opened."},
                           {"main", "DLL search limited to the system folder."},
                           {"initialize", "TESK agent Installed Directory is NULL. So getting QV agent directory."},
                           {"initialize", "Local Agent Installed Directory : " + dir_.NarrowPath()},
                           {"initialize", "IS_WOW_64 : " + wow64}, {"initialize", "is_WOW_64 : " + wow64},
                           {"InitiateWow64", "hk32libW is not null."}, {"main", "Going to install TESK Agent service."},
                           {"InstallAgentService", "Service installed successfully."},
                           {"SecureAgentFolders", "Access rules of the agent folder BasePath [" + dir_.NarrowPath() +
                                                      "] applied."},
                           {"main", "Log Closed."}});
  RestoreStartTypeFlag = FALSE;
  UpdateServiceAccessAndStartType();
  EXPECT_FALSE(RestoreStartTypeFlag);
  const auto demandStart = [](const wchar_t* path) {
    return ChangeServiceConfigW(OpenAgentService(SERVICE_CHANGE_CONFIG).get(), SERVICE_NO_CHANGE,
                                SERVICE_DEMAND_START, SERVICE_NO_CHANGE, path, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr);
  };
  ASSERT_TRUE(demandStart(nullptr));
  UpdateServiceAccessAndStartType();
  EXPECT_TRUE(RestoreStartTypeFlag);
  RestoreStartTypeFlag = FALSE;
  EXPECT_TRUE(ChangeServiceStartupTypeToAuto(kAgentServiceName));
  EXPECT_EQ(AgentServiceConfig(), installed);
  EXPECT_FALSE(ChangeServiceStartupTypeToAuto(L"No Such Korva Service"));

  ASSERT_TRUE(demandStart(L"C:\\elsewhere.exe"));
  EXPECT_EQ(Run(L" /i").exitCode, 0u);
  EXPECT_EQ(AgentServiceConfig(), installed);
  EXPECT_TRUE(HasLogLine(Log(), "InstallAgentService", "Service already exists; its configuration is updated."));

  win::UniqueServiceHandle service = OpenAgentService(SERVICE_START | SERVICE_QUERY_STATUS);
  ASSERT_EQ(StartServiceOnce(service.get()), 0u);
  EXPECT_EQ(WaitForServiceState(service.get(), SERVICE_RUNNING, 30000), static_cast<DWORD>(SERVICE_RUNNING));
  service.reset();  // an open handle would keep the deleted service registered
  result = Run(L" /U");
  EXPECT_EQ(result.exitCode, 0u);
  EXPECT_NE(result.output.find("Main : Going to uninstall TESK Agent service."), std::string::npos);
  EXPECT_EQ(AgentServiceConfig(), L"error 1060");
  // The running service holds the log open against other writers: the uninstaller's lines wait in
  // memory until the stop frees the file, and follow the service's.
  EXPECT_LOG_ORDER(Log(), {{"ServiceMain", "TESK agent service started successfully."},
                           {"HandlerEx", "SERVICE_CONTROL_STOP Event (Manual Service Stop) is triggered."},
                           {"main", "Going to uninstall TESK Agent service."},
                           {"UnInstallAgentService", "Stopping the service before removing it."}});
}

// A log another program holds to the end: the run's records go to a file beside it, and none into the held file.
TEST_F(EntryPointTest, RecordsAHeldLogNeverTookAreKeptBesideIt) {
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"logs").c_str(), nullptr));
  const win::UniqueFileHandle holder(
      CreateFileW(LogPath().c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0, nullptr));
  ASSERT_TRUE(holder) << GetLastError();
  const std::wstring kept = dir_.File(L"logs\\korva_agentservice.unwritten.log");
  {  // a second name of a file of someone else's in its place: not written
    const std::wstring elsewhere = dir_.File(L"elsewhere.txt");
    WriteFileBytes(elsewhere, "theirs");
    ASSERT_TRUE(CreateHardLinkW(kept.c_str(), elsewhere.c_str(), nullptr)) << GetLastError();
    EXPECT_EQ(Run(L" -i").exitCode, 1u);
    EXPECT_EQ(ReadFileBytes(elsewhere), "theirs");
    ASSERT_TRUE(DeleteFileW(kept.c_str()));
  }
  EXPECT_EQ(Run(L" -i").exitCode, 1u);
  EXPECT_LOG_ORDER(ReadFileBytes(kept),
                   {{"main", "Log Opened."}, {"main", "Invalid parameter : -i"}, {"main", "Log Closed."}});
  EXPECT_EQ(Log(), "");
}

// No service to remove: 0; unknown switch: 1; from a console the dispatcher fails (1063); level 0: no log.
// A copy reached through a link a user could re-point (or in a folder the user may write) registers
// nothing, as the service would run it as LocalSystem at every boot; said on the console too, on a line
// of its own, and the exit code stays 0.
TEST_F(EntryPointTest, CommandLinesThatInstallNothing) {
  const TempDir links;
  const FolderLink link(links.File(L"bin"), ServiceExecutable().substr(0, ServiceExecutable().find_last_of(L'\\')));
  ASSERT_TRUE(link.made());
  const struct { const wchar_t* arguments; unsigned long logLevel, exitCode; ::testing::Matcher<std::string> output;
                 std::vector<LogLine> lines; std::wstring exe = ServiceExecutable(); } cases[] = {
      {L" /u", 6, 0, ::testing::_, {{"UnInstallAgentService", "OpenService failed due to the following error."},
                                    {"printErrorMsgForID", "Error ID      :1060"}, {"main", "Log Closed."}}},
      {L" -i", 6, 1, "Main : Invalid parameter : -i ", {{"main", "Invalid parameter : -i"}, {"main", "Log Closed."}}},
      {L"", 6, 0, ::testing::_,
       {{"main", "StartServiceCtrlDispatcher is failed to start due to the following error !!!"},
        {"printErrorMsgForID", "Error ID      :1063"}, {"main", "Log Closed.", LogLine::kAbsent}}},
      {L" -x", 0, 1, ::testing::_, {}},
      {L" /i", 6, 0,
       ::testing::HasSubstr("Main : Going to install TESK Agent service.\r\n"
                            "The service is not installed from the executable's folder"),
       {{"InstallAgentService",
         "The service is not installed from the executable's folder \"" + win::WideToAnsi(links.File(L"bin")) + "\": ",
         LogLine::kPrefix}},
       links.File(L"bin\\korvaAgentService.exe")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(win::WideToUtf8(c.exe + c.arguments));
    SetLogLevel("korva_agentservice", c.logLevel);
    DeleteFileW(LogPath().c_str());
    const ProgramResult result = RunProgram(c.exe, c.arguments, 120000);
    EXPECT_EQ(result.exitCode, c.exitCode);
    EXPECT_THAT(result.output, c.output);
    EXPECT_EQ(FileExists(LogPath()), c.logLevel != 0);
    EXPECT_LOG_LINES(Log(), c.lines);
    EXPECT_EQ(AgentServiceConfig(), L"error 1060");
  }
}

// Each DLL the service delay-loads (iphlpapi among them) comes from the system folder, never
// from a copy planted beside its executable.
TEST_F(ServiceTest, StartUpRunsInItsOrderReachesRunningAndTakesNoDllFromBesideItsExecutable) {
  LayOutAsInstalled();
  bin_.Add(L"korvaDevCtrlSummary");
  const std::wstring folder = dir_.File(L"planted");
  ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
  const std::wstring exe = folder + L"\\korvaAgentService.exe";
  ASSERT_TRUE(CopyFileW(ServiceExecutable().c_str(), exe.c_str(), FALSE));
  std::istringstream dlls(KORVA_DELAY_LOADED_DLLS);
  for (std::string name; std::getline(dlls, name, ',');) {
    ASSERT_TRUE(CopyFileW((ProgramFolder() + L"\\ClientAuthHandler.dll").c_str(),
                          (folder + L"\\" + win::Utf8ToWide(name)).c_str(), FALSE));
  }
  ASSERT_EQ(RunProgram(exe, L" /i", 120000).exitCode, 0u);  // the service now runs the planted copy
  Start();
  const std::vector<JournalEntry> journal = bin_.WaitForJournal(1, 30000);
  ASSERT_GE(journal.size(), 1u);
  EXPECT_EQ(journal[0].commandLine, "-s ET_ENUM 9 2 \"Unknown\"");
  // The main thread's last step starts the pipe client, which runs until the service stops: the
  // start-up has loaded what it loads.
  const std::string log = LogWhen("PipeConnect", "@@@ Inside PipeConnect @@@");
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  ASSERT_TRUE(QueryServiceStatusEx(service_.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                   sizeof status, &needed));
  const win::UniqueFileHandle snapshot(
      CreateToolhelp32Snapshot(TH32CS_SNAPMODULE | TH32CS_SNAPMODULE32, status.dwProcessId));
  ASSERT_TRUE(snapshot) << GetLastError();
  MODULEENTRY32W module{};
  module.dwSize = sizeof module;
  std::vector<std::string> beside;
  std::vector<std::string> loaded;
  for (BOOL more = Module32FirstW(snapshot.get(), &module); more; more = Module32NextW(snapshot.get(), &module)) {
    loaded.push_back(win::WideToUtf8(module.szModule));
    const bool executable = _wcsicmp(module.szModule, L"korvaAgentService.exe") == 0;
    if (!executable && _wcsnicmp(module.szExePath, (folder + L"\\").c_str(), folder.size() + 1) == 0) {
      beside.push_back(win::WideToUtf8(module.szExePath));
    }
  }
  EXPECT_EQ(beside, std::vector<std::string>()) << ::testing::PrintToString(loaded);
  // user32 (device notifications) and iphlpapi (the machine details) are among what it loaded.
  using ::testing::StrCaseEq;
  EXPECT_THAT(loaded, ::testing::IsSupersetOf({StrCaseEq("user32.dll"), StrCaseEq("iphlpapi.dll")}));
  // Its long-lived threads carry their routines' names, for a dump or a thread list.
  const std::set<std::string> named = {"ServiceMain", "InvokeMainThread", "MonitorSettingsModified",
                                       "MonitorRFCOMMStatus", "PipeConnect"};
  std::set<std::string> names;
  EXPECT_TRUE(WaitUntil([&] {
    names = ThreadNamesOf(status.dwProcessId);
    return std::includes(names.begin(), names.end(), named.begin(), named.end());
  }, 10000)) << ::testing::PrintToString(names);
  EXPECT_LOG_ORDER(log,
                   {Entered("ServiceMain"), {"ServiceMain", "Event Created Successfully."},
                    {"ServiceMain", "RegisterServiceCtrlHandlerEx callback registration is successful."},
                    Entered("UpdateServiceAccess"), Entered("SecureAgentFolders"),
                    Entered("CheckQVFAFilterRequirement"), {"ServiceMain", "IsQVFANeeded:0"},
                    {"ServiceMain", "hTempAccessRevokeTimerQueue is created successfully."},
                    Entered("ProcessandUpdateTemporaryAccess"), {"ChangeServiceStatus", "Service status reported :2"},
                    Entered("FetchRestoreUnpluggedBlockedDevice"),
                    {"ServiceMain", "No need to start File Auditing Application."},
                    Entered("RegisterAllDeviceNotification"), {"ChangeServiceStatus", "Service status reported :4"},
                    {"ServiceMain", "TESK agent service started successfully."},
                    {"ServiceMain", "Waiting for shutdown Notification."}});
  // After RUNNING the service gives itself its recovery actions; Wine cannot read them back
  // (ERROR_INVALID_LEVEL), so under Wine they are set at every start.
  EXPECT_TRUE(Logged("EnsureRecoveryActions", "The service's recovery actions could not be read; they are set."));
  EXPECT_LOG_ORDER(log, {{"InvokeMainThread", "System Bootup time :", LogLine::kPrefix},
                         Entered("ExecuteDeviceEventAction"), Entered("UpdateMonitoringVariable"),
                         Entered("PipeConnect"),
                         {"InvokeMainThread", "@@@ End of InvokeMainThread @@@", LogLine::kAbsent}});
}

// User codes other than 193 are refused with a line each and no row. 193 stops as STOP does: the
// on-demand stop and the notification run before STOPPED (under Wine the request may time out, 1053).
TEST_F(ServiceTest, OtherUserCodesAreRefusedPauseAndInterrogateAnswerAndTheUserStopCodeStops) {
  Start();
  const std::size_t mark = SettledLogMark();
  const std::string rowsBefore = AccessLog();
  for (DWORD control : {128u, 134u, 200u, 255u}) EXPECT_EQ(SendControl(service_.get(), control), 0u);
  ASSERT_EQ(SendControl(service_.get(), SERVICE_CONTROL_PAUSE), 0u);
  EXPECT_EQ(State(SERVICE_PAUSED), DWORD{SERVICE_PAUSED});
  ASSERT_EQ(SendControl(service_.get(), SERVICE_CONTROL_INTERROGATE), 0u);
  EXPECT_EQ(State(SERVICE_RUNNING), DWORD{SERVICE_RUNNING});
  const std::string controls =
      LogWhen("HandlerEx", "Service Control Pause notification - end of block.", mark).substr(mark);
  EXPECT_LOG_ORDER(controls,
                   {{"HandlerEx", "@@@ Inside HandlerEx Method with control word200@@@"},
                    {"HandlerEx", "User-Defined Contrls are currently not being accepted!"},
                    {"HandlerEx", "Service Control Pause notification is received."},
                    {"HandlerEx", "Manual Refresh Policy Message notification is received.", LogLine::kAbsent}});
  EXPECT_EQ(CountOf(controls, "User-Defined Contrls are currently not being accepted!"), 4u);
  EXPECT_EQ(AccessLog(), rowsBefore);

  // 193 as the pipe client passes a control code on (the pipe test shows the channel): SendControl.
  const DWORD sent = ::SendControl(193);
  EXPECT_TRUE(sent == 0 || sent == ERROR_SERVICE_REQUEST_TIMEOUT) << sent;
  EXPECT_EQ(State(SERVICE_STOPPED), DWORD{SERVICE_STOPPED});
  const std::string log = LogWhen("ServiceMain", "@@@ End of ServiceMain @@@", mark).substr(mark);
  EXPECT_LOG_ORDER(log, {{"HandlerEx", "SERVICE_USER_STOP Event (Manual user defined Service Stop) is triggered."},
                         Entered("StopTESKProcess"), {"ChangeServiceStatus", "Service status reported :3"},
                         {"InvokeShutdown", "lpParam :1"}, {"ChangeServiceStatus", "Service status reported :1"}});
  EXPECT_LOG_LINES(log,
                   {{"ServiceMain", "@@@ End of ServiceMain @@@"},
                    {"HandlerEx", "SERVICE_CONTROL_STOP Event (Manual Service Stop) - end of block."},
                    {"ServiceMain", "DeleteTimerQueue for QVFAFilterTimerQueue is failed due to following error."}});
  EXPECT_EQ(CountOf(AccessLog().substr(rowsBefore.size()), "\t\t\tManual_Service_Stop_Notification\t"), 1u);
}

}  // namespace korva::test
