// The program's entry: opens the log, prepares the process globals, then runs the service
// dispatcher, installs or uninstalls.
#include "service/entry_point.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "service/service_main.h"
#include "service/service_status.h"
#include "settings/agent_parameters.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/log_level.h"
#include "win/strings.h"

SERVICE_TABLE_ENTRYW ServiceTable[2] = {{const_cast<LPWSTR>(kAgentServiceName), ServiceMain}, {nullptr, nullptr}};
std::string AgentInstallDirGlobal;
BOOL IsWow64Flag = FALSE;
std::wstring ConfigProgramPath;
IsWow64ProcessFn IsWow64ProcessEntry = nullptr;
AttachConsoleFn AttachConsoleEntry = nullptr;

namespace {

// The second, independent WOW64 query: its own entry point, looked up once.
BOOL QueryWow64Independently() {
  static const auto entry = reinterpret_cast<IsWow64ProcessFn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "IsWow64Process")));
  BOOL result = FALSE;
  if (entry != nullptr) entry(GetCurrentProcess(), &result);
  return result;
}

void FillAgentInstallDirGlobal() {
  char* directory = nullptr;
  const LONG code = AgentInstallDir(&directory);
  (void)code;  // a missing value leaves the folder empty; the log line below shows it
  const std::unique_ptr<char, decltype(&std::free)> owner(directory, &std::free);
  AgentInstallDirGlobal = directory != nullptr ? directory : "";
}

}  // namespace

void InitiateWow64() {
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [] {
    // Loaded once for the process lifetime: the entry points below are used until it ends.
    if (LoadLibraryW(L"kernel32.dll") == nullptr) return;
    KLOG_INFO_AS("InitiateWow64") << "hk32libW is not null.";
    const HMODULE kernel32 = GetModuleHandleW(L"kernel32");
    IsWow64ProcessEntry =
        reinterpret_cast<IsWow64ProcessFn>(reinterpret_cast<void*>(GetProcAddress(kernel32, "IsWow64Process")));
    AttachConsoleEntry =
        reinterpret_cast<AttachConsoleFn>(reinterpret_cast<void*>(GetProcAddress(kernel32, "AttachConsole")));
  });
}

void initialize() {
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [] {
    if (AgentInstallDirGlobal.empty()) {
      KLOG_ERROR_AS("initialize") << "TESK agent Installed Directory is NULL. So getting QV agent directory.";
      FillAgentInstallDirGlobal();
    }
    KLOG_INFO_AS("initialize") << "Local Agent Installed Directory : " << AgentInstallDirGlobal;
    InitiateWow64();
    IsWow64Flag = FALSE;
    if (IsWow64ProcessEntry != nullptr) IsWow64ProcessEntry(GetCurrentProcess(), &IsWow64Flag);
    if (korva::log::Enabled(korva::log::kInfo)) {
      KLOG_INFO_AS("initialize") << "IS_WOW_64 : " << static_cast<int>(IsWow64Flag);
      KLOG_INFO_AS("initialize") << "is_WOW_64 : " << static_cast<int>(QueryWow64Independently());
    }
  });
}

namespace korva {
namespace {

constexpr const char* kMain = "main";
constexpr int kInvalidParameterExitCode = 1;
// After STOPPED, ServiceMain only writes its last records: a few milliseconds.
constexpr DWORD kServiceMainFinishWaitMs = 5000;

void OpenServiceLog() {
  char* base = nullptr;
  const LONG code = BasePath(&base);
  (void)code;  // without a base path the log goes to "\logs\..." on the current drive
  const std::unique_ptr<char, decltype(&std::free)> owner(base, &std::free);
  const std::string path = LogFilePathForBase(base);
  log::InitializeServiceLogger(win::AnsiToWide(path), ReadMaximumLogSeverity());
  KLOG_INFO_AS(kMain) << "**********************************************************************************";
  KLOG_INFO_AS(kMain) << "Log Opened.";
}

void ComposeConfigProgramPath() {
  ConfigProgramPath = win::AnsiToWide(AgentInstallDirGlobal);
  ConfigProgramPath += L"\\";
  ConfigProgramPath += L"bin";
  ConfigProgramPath += L"\\";
  ConfigProgramPath += L"korvaConfig.exe";
}

// Hands this thread to the service control manager until the service stops.
void RunServiceDispatcher() {
  korva::PrepareServiceMainFinishedSignal();
  if (StartServiceCtrlDispatcherW(ServiceTable)) {
    (void)korva::WaitForServiceMainToFinish(kServiceMainFinishWaitMs);
    return;
  }
  const DWORD error = GetLastError();
  KLOG_ERROR_AS(kMain) << "StartServiceCtrlDispatcher is failed to start due to the following error !!!";
  printErrorMsgForID(error);
}

int RunSwitch(const char* argument) {
  if (_stricmp(argument, "/i") == 0) {
    std::printf("Main : Going to install TESK Agent service.");
    KLOG_INFO_AS(kMain) << "Going to install TESK Agent service.";
    (void)InstallAgentService();
    return 0;
  }
  if (_stricmp(argument, "/u") == 0) {
    std::printf("Main : Going to uninstall TESK Agent service.");
    KLOG_INFO_AS(kMain) << "Going to uninstall TESK Agent service.";
    (void)UnInstallAgentService();
    return 0;
  }
  std::printf("Main : Invalid parameter : %s ", argument);
  KLOG_ERROR_AS(kMain) << "Invalid parameter : " << argument;
  return kInvalidParameterExitCode;
}

}  // namespace

std::string LogFilePathForBase(const char* basePath) {
  const char* base = basePath != nullptr ? basePath : "";
  const int needed = std::snprintf(nullptr, 0, "%s\\logs\\korva_agentservice.log", base);
  std::string path(static_cast<std::size_t>(needed > 0 ? needed : 0), '\0');
  std::snprintf(path.data(), path.size() + 1, "%s\\logs\\korva_agentservice.log", base);
  return path;
}

int RunAgentServiceMain(int argc, char* argv[]) {
  OpenServiceLog();
  int exitCode = 0;
  bool serviceRun = false;
  try {
    initialize();
    InitializeAgentParameters();
    ComposeConfigProgramPath();
    if (argc == 1) {
      serviceRun = true;
      RunServiceDispatcher();
    } else {
      exitCode = RunSwitch(argv[1]);
    }
  } catch (...) {
    KLOG_ERROR_AS(kMain) << "Exception Caught.";
    exitCode = 1;
    serviceRun = false;
  }
  if (!serviceRun) {
    KLOG_INFO_AS(kMain) << "Log Closed.";
  }
  std::fflush(stdout);
  return exitCode;
}

}  // namespace korva
