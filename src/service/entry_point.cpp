// The program's entry: opens the log, prepares the process globals, then runs the service
// dispatcher, installs or uninstalls.
#include "service/entry_point.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "power/power_tracking.h"
#include "service/core/command_switch.h"
#include "service/service_main.h"
#include "service/service_status.h"
#include "service/wiring.h"
#include "settings/agent_parameters.h"
#include "settings/error_text.h"
#include "settings/event_log.h"
#include "settings/log.h"
#include "settings/log_level.h"
#include "shared/access_log.h"
#include "shared/agent_environment.h"
#include "shared/path_links.h"
#include "win/dll_preload.h"
#include "win/dll_search.h"
#include "win/private_folder.h"
#include "win/startup_timeline.h"
#include "win/strings.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

SERVICE_TABLE_ENTRYW ServiceTable[2] = {{const_cast<LPWSTR>(kAgentServiceName), ServiceMain}, {nullptr, nullptr}};

namespace korva {
namespace {

constexpr const char* kMain = "main";
constexpr const char* kAgentServiceDisplayNameA = "Tallowmere Korva - Agent";
// The event-log entry that says the log is not under BasePath.
constexpr DWORD kLogFolderEventId = 2;
// The event-log entry that says where the records the log file never took are.
constexpr DWORD kUnwrittenRecordsEventId = 3;
// The file beside the log that keeps them stops growing here: room for four runs that each held
// as many records as a log keeps while its file is held (4 MiB).
constexpr std::uint64_t kUnwrittenRecordsMaxBytes = std::uint64_t{17} * 1024 * 1024;
// How long the end of the process waits for them to be kept.
constexpr DWORD kKeepRecordsWaitMs = 3000;
constexpr int kInvalidParameterExitCode = 1;
// An unknown switch is shown up to this many characters.
constexpr std::size_t kShownArgumentChars = 256;
// After STOPPED, ServiceMain only writes its last records: a few milliseconds.
constexpr DWORD kServiceMainFinishWaitMs = 5000;
// How long the end of the process waits for a held log file to free, for records still waiting.
constexpr DWORD kLastLogFlushMs = 2000;

// Where the log goes: "<BasePath>\logs", or, when BasePath is not a folder of the agent's own,
// "<executable's folder>\logs" inside the protected installation, never a folder a user may create
// (a drive's root, the current directory). Empty when neither folder can be used.
std::string ChooseLogFolder(const AgentFolder& base, const AgentFolder& executable) {
  if (Usable(base)) return base.path;
  return Usable(executable) ? executable.path : std::string();
}

// Says in the event log, and in the log itself, why the log is not under BasePath and where it is.
void ReportLogFolder(const AgentFolder& base, const std::string& logPath) {
  const std::string message =
      "BasePath \"" + folders::PrintableText(base.text) + "\" is not used for the log (" +
      folders::FaultText(base.fault) + "); " +
      (logPath.empty() ? std::string("no log file is written.") : "the log is written to " + logPath + ".");
  WriteEventLogEntry(kAgentServiceDisplayNameA, kLogFolderEventId, EVENTLOG_WARNING_TYPE, message.c_str());
  KLOG_ERROR_AS(kMain) << message;
}

// Whether `step`, a step of the log's path, lies above `folder` (given with or without its last
// backslash).
bool AboveFolder(std::wstring_view step, std::wstring_view folder) {
  while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/')) folder.remove_suffix(1);
  return step.size() < folder.size();
}

// `folder` as the log's: refused when a step of the log's path is a link or folder a user may
// change or replace, since the agent would write, roll and delete files wherever that user likes.
// The whole path is judged, from its drive's root, with the folder itself as a folder on the way
// and its "logs" folder also as an end: a folder refused only as an agent folder's end because
// users may add to it (the installer may leave its parent's list on it, which this start-up
// replaces moments later with the agent's) still takes the log, so the first run's log is not
// elsewhere, or nowhere; one users may also delete, rename or re-list does not. `missing` gets the
// first of the log's folders this judge found absent (the folder itself, or its "logs"), or empty.
AgentFolder ForLog(AgentFolder folder, std::wstring& missing) {
  missing.clear();
  if (folder.fault == folders::FolderFault::kUnsafeStep) {
    folder.fault = folders::FolderFault::kNone;
    folder.path = folder.text;
  }
  if (!Usable(folder)) return folder;
  const std::wstring log = win::AnsiToWide(LogFilePathForBase(folder.path.c_str()));
  std::wstring absent;
  const bool pathSound = FirstUnsafeStep(std::wstring_view(log), LastStep::kJudged, 0, &absent).empty();
  // A missing log file is the log's own to make; a missing folder is made by the caller.
  const bool folderMissing = pathSound && !absent.empty() && absent != log;
  if (folderMissing && AboveFolder(absent, win::AnsiToWide(folder.path))) {
    folder.fault = folders::FolderFault::kParentMissing;  // gone since the folder was judged
  } else if (folderMissing) {
    missing = std::move(absent);
  } else if (!pathSound || !FirstUnsafeStep(std::wstring_view(log.substr(0, log.find_last_of(L'\\')))).empty()) {
    // The log's own folder is judged as an end too: one users may write to or add to could be
    // made a mount point while it is empty, or take a file of theirs under the log's name.
    folder.fault = folders::FolderFault::kUnsafeStep;
  }
  if (!Usable(folder)) folder.path.clear();
  return folder;
}

std::function<void(const std::wstring&)>& BeforeLogFolderMade() {
  static std::function<void(const std::wstring&)> step;
  return step;
}

// The folder and its "logs" folder, each made at most once by one choice of the log's place.
constexpr int kLogFolderMakes = 2;

// The folder `judge` gives, as the log's, with its log folders made where missing, for SYSTEM and
// administrators only. Left missing, they would be made later by the log, unjudged: a user who made
// one first in its place (a junction, or a folder of the user's own, in a parent users may add to)
// would have the agent write, roll and delete its files there. So a folder is made only right after
// a judge found it missing and what holds it sound, and then the whole is judged again: one a user
// made first is judged as what it is. One still missing after the makes (someone removes it) is
// refused.
AgentFolder LogFolderOf(const std::function<AgentFolder()>& judge) {
  for (int makes = 0;; ++makes) {
    std::wstring missing;
    AgentFolder folder = ForLog(judge(), missing);
    if (!Usable(folder) || missing.empty()) return folder;
    if (makes == kLogFolderMakes) {
      folder.fault = folders::FolderFault::kUnsafeStep;
      folder.path.clear();
      return folder;
    }
    if (BeforeLogFolderMade()) BeforeLogFolderMade()(missing);
    (void)win::CreatePrivateFolder(missing.c_str());
  }
}

// The log file's place below the folder chosen for it.
constexpr std::string_view kLogFileBelowFolder = "\\logs\\korva_agentservice.log";

// Run by the log before each open of its file and each roll, long after the start-up chose its
// folder: that folder is judged again as it was then, and its folders an administrator removed
// meanwhile are made again the same way, each right after a judge. Left to the log, they would be
// made unjudged, and a user who made one first in its place would have the log's files.
bool LogFoldersStillTheAgents(const std::wstring& logFile) noexcept {
  try {
    const std::string file = win::WideToAnsi(logFile);
    if (file.size() <= kLogFileBelowFolder.size() ||
        file.compare(file.size() - kLogFileBelowFolder.size(), std::string::npos, kLogFileBelowFolder) != 0) {
      return false;
    }
    AgentFolder chosen;
    chosen.text = chosen.path = file.substr(0, file.size() - kLogFileBelowFolder.size());
    chosen.fault = folders::FolderFault::kNone;
    return Usable(LogFolderOf([&chosen] { return chosen; }));
  } catch (...) {
    return false;
  }
}

}  // namespace

std::string OpenServiceLog() {
  AgentFolder base;
  const std::string path = ChooseServiceLogPath(base);
  const LogLevelReading level = ReadLogLevel();
  log::SetServiceLogFolderCheck(&LogFoldersStillTheAgents);
  if (!path.empty()) log::InitializeServiceLogger(win::AnsiToWide(path), level.severity);
  KLOG_INFO_AS(kMain) << "**********************************************************************************";
  KLOG_INFO_AS(kMain) << "Log Opened.";
  ReportUnusableLogLevelValues(level);
  if (!Usable(base)) ReportLogFolder(base, path);
  return path;
}

namespace {

// Logged once the log is open: the narrowing itself comes before it.
void ReportDllSearch(DWORD code) {
  if (code == ERROR_SUCCESS) {
    KLOG_DEBUG_AS(kMain) << "DLL search limited to the system folder.";
    return;
  }
  (void)LogFailedCall(kMain, code, "Limiting the DLL search to the system folder failed due to the following error.");
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
  win::ReleaseUnusedStack();  // the dispatcher runs shallow for the life of the service
  if (StartServiceCtrlDispatcherW(ServiceTable)) {
    (void)korva::WaitForServiceMainToFinish(kServiceMainFinishWaitMs);
    return;
  }
  korva::LogLastError(kMain, "StartServiceCtrlDispatcher is failed to start due to the following error !!!");
}

int RunSwitch(const char* argument) {
  const service::SwitchAction action = service::ClassifySwitch(argument);
  if (action == service::SwitchAction::kInstall) {
    std::printf("Main : Going to install TESK Agent service.");
    KLOG_INFO_AS(kMain) << "Going to install TESK Agent service.";
    (void)InstallAgentService();
    return 0;
  }
  if (action == service::SwitchAction::kUninstall) {
    std::printf("Main : Going to uninstall TESK Agent service.");
    KLOG_INFO_AS(kMain) << "Going to uninstall TESK Agent service.";
    (void)UnInstallAgentService();
    return 0;
  }
  std::printf("Main : Invalid parameter : %s ", argument);  // the trailing blank is the system's own
  KLOG_ERROR_AS(kMain) << "Invalid parameter : " << folders::PrintableText(argument, kShownArgumentChars);
  return kInvalidParameterExitCode;
}

// "<logs>\korva_agentservice.unwritten.log" beside "<logs>\korva_agentservice.log".
std::string UnwrittenRecordsPath(const std::string& logPath) {
  constexpr std::string_view kExtension = ".log";
  const bool hasExtension = logPath.size() >= kExtension.size() &&
                            logPath.compare(logPath.size() - kExtension.size(), kExtension.size(), kExtension) == 0;
  return (hasExtension ? logPath.substr(0, logPath.size() - kExtension.size()) : logPath) + ".unwritten.log";
}

// The file that keeps records the log never took: made new with the private folders' list, or,
// when it is there already, taken only when it is the agent's own (owned and listed so no user may
// write it, not a link, one name only). `error` says why not when the handle is empty.
win::UniqueFileHandle OpenKeptRecordsFile(const std::wstring& path, DWORD& error) {
  constexpr DWORD kAccess = FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | READ_CONTROL;
  constexpr DWORD kFlags = FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT;
  win::UniqueFileHandle file;
  // Shared with no one while it is written: another process ending at the same moment gets a few
  // tenths of a second for its turn.
  for (int attempt = 0; attempt < 5 && !file; ++attempt) {
    if (attempt != 0) Sleep(100);
    file.reset(win::CreatePrivateFile(path.c_str(), kAccess, 0, CREATE_NEW, kFlags));
    if (!file && GetLastError() == ERROR_FILE_EXISTS) {
      file.reset(CreateFileW(path.c_str(), kAccess, 0, nullptr, OPEN_EXISTING, kFlags, nullptr));
      if (file && !OpenFileIsAgentsOwn(file.get())) {
        error = ERROR_CANT_ACCESS_FILE;
        return {};
      }
    }
    if (!file && GetLastError() != ERROR_SHARING_VIOLATION) break;
  }
  if (!file) error = GetLastError();
  return file;
}

// Keeps `records` in the file beside the log at `logPath`; the line for the event log says where,
// or why not.
std::string KeepRecordsBesideLog(const std::string& logPath, const std::string& records) {
  const std::string keptPath = UnwrittenRecordsPath(logPath);
  const std::wstring keptWide = win::AnsiToWide(keptPath);
  std::string message = "The service log file " + logPath + " did not take " + std::to_string(records.size()) +
                        " bytes of records before the process ended; ";
  // The whole path is judged, from its drive's root: the log's folders may have been refused since
  // the log's last open (an administrator's change), and records are never kept through them then.
  std::wstring unsafeStep = FirstUnsafeStep(std::wstring_view(keptWide));
  // Its folder is judged as an end too, as the log's is: one users may add to could take a file of
  // theirs under the kept file's name.
  if (unsafeStep.empty()) unsafeStep = FirstUnsafeStep(std::wstring_view(keptWide).substr(0, keptWide.rfind(L'\\')));
  if (!unsafeStep.empty()) {
    return message + "they are not kept: " + keptPath + " is reached through [" + win::WideToAnsi(unsafeStep) +
           "], a link or file that users may change or replace.";
  }
  DWORD error = ERROR_SUCCESS;
  const win::UniqueFileHandle file = OpenKeptRecordsFile(keptWide, error);
  if (file) error = log::AppendUnwrittenRecords(file.get(), records, kUnwrittenRecordsMaxBytes);
  if (error == ERROR_SUCCESS) return message + "they are kept in " + keptPath + ".";
  return message + "they could not be kept in " + keptPath + " (error " + std::to_string(error) + ").";
}

struct Keeping {
  std::string logPath;
  std::string records;
};

// The keeping thread: owns its work, since the process may end while it still runs.
DWORD WINAPI KeepRecordsThread(LPVOID parameter) {
  const std::unique_ptr<Keeping> work(static_cast<Keeping*>(parameter));
  const std::string message = KeepRecordsBesideLog(work->logPath, work->records);
  WriteEventLogEntry(kAgentServiceDisplayNameA, kUnwrittenRecordsEventId, EVENTLOG_WARNING_TYPE, message.c_str());
  return 0;
}

// The records that still wait for the log file at the end (a running service holds it against
// the installer's switches; another program may hold it at the service's stop) go to a file of
// their own beside it, in the log's private folder, and the event log says where. Only their size
// goes to the event log, which interactive users may read: the records themselves may name grants,
// policies, users and command lines. The keeping runs on a thread of its own and is waited for a
// few seconds: a file or volume that stalls its open must not keep the process from ending.
void FlushServiceLogOrKeepItsRecordsElsewhere(const std::string& logPath) {
  if (log::FlushServiceLogger(kLastLogFlushMs)) return;
  auto work = std::make_unique<Keeping>(Keeping{logPath, log::TakeHeldServiceRecords()});
  if (work->records.empty() || logPath.empty()) return;
  const std::size_t bytes = work->records.size();
  const win::UniqueHandle thread(CreateThread(nullptr, 0, KeepRecordsThread, work.get(), 0, nullptr));
  if (!thread) {
    (void)KeepRecordsThread(work.release());  // no thread: kept on this one
    return;
  }
  static_cast<void>(work.release());  // the thread's now
  if (WaitForSingleObject(thread.get(), kKeepRecordsWaitMs) != WAIT_OBJECT_0) {
    WriteEventLogEntry(kAgentServiceDisplayNameA, kUnwrittenRecordsEventId, EVENTLOG_WARNING_TYPE,
                       ("The service log file " + logPath + " did not take " + std::to_string(bytes) +
                        " bytes of records before the process ended, and keeping them beside it did not end within " +
                        std::to_string(kKeepRecordsWaitMs / 1000) + " s.")
                           .c_str());
  }
}

}  // namespace

std::string ChooseServiceLogPath(AgentFolder& base) {
  base = LogFolderOf(&AgentBaseFolder);
  const std::string folder = ChooseLogFolder(base, Usable(base) ? AgentFolder{} : LogFolderOf(&ExecutableFolder));
  return folder.empty() ? std::string() : LogFilePathForBase(folder.c_str());
}

void SetBeforeLogFolderMadeForTest(std::function<void(const std::wstring&)> step) {
  BeforeLogFolderMade() = std::move(step);
}

std::string LogFilePathForBase(const char* basePath) {
  std::string path = basePath != nullptr ? basePath : "";
  path += kLogFileBelowFolder;
  return path;
}

int RunAgentServiceMain(int argc, char* argv[]) {
  KORVA_STARTUP_MARK("main");
  // Before any DLL is loaded by name: the delay-loaded system DLLs then come from the system folder
  // only, whatever lies beside the executable, in the current directory or on PATH.
  const DWORD dllSearch = win::LimitDllSearchToSystemFolder();
  const std::string logPath = OpenServiceLog();
  ReportDllSearch(dllSearch);
  KORVA_STARTUP_MARK("log-opened");
  int exitCode = 0;
  bool serviceRun = false;
  try {
    initialize();
    WireSubsystems();
    InitializeAgentParameters();
    ComposeConfigProgramPath();
    KORVA_STARTUP_MARK("parameters");
    if (argc == 1) {
      serviceRun = true;
      win::StartDllPreload();
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
  // Access-log rows, power-history lines and records that waited for a file held by another
  // process (a running service holds the log against the installer's switches) get a last, bounded
  // chance before the process ends; the rows and lines first, so the log tells of any that are lost.
  static_cast<void>(FlushAccessLog(kLastLogFlushMs));
  static_cast<void>(FlushPowerHistory());
  FlushServiceLogOrKeepItsRecordsElsewhere(logPath);
  static_cast<void>(std::fflush(stdout));  // the process ends: nothing is left to tell
  KORVA_WRITE_STARTUP_TIMELINE();
  return exitCode;
}

}  // namespace korva
