// Starting helper programs: in the service's identity or a session's, with a bounded wait, and
// with the child's standard output captured into the log where asked. Every launcher passes the
// launch gate (process/launch_gate.h) just before it creates the process.
#include "process/launcher.h"

#include <wtsapi32.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "process/child_environment.h"
#include "process/core/command_line.h"
#include "process/core/launch_text.h"
#include "process/creation_retry.h"
#include "process/launch_gate.h"
#include "process/sessions.h"
#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/registry.h"
#include "shared/service_state.h"
#include "win/inherited_handles.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

namespace process = korva::process;
using korva::win::UniqueHandle;
using korva::win::UniqueProcessInformation;

constexpr DWORD kOwnIdentityFlags = CREATE_NO_WINDOW | CREATE_DEFAULT_ERROR_MODE;
constexpr DWORD kProcessGroupFlags = kOwnIdentityFlags | CREATE_NEW_PROCESS_GROUP;
constexpr DWORD kApplicationFlags = CREATE_NEW_CONSOLE | NORMAL_PRIORITY_CLASS;
constexpr DWORD kUserSessionFlags = CREATE_NEW_CONSOLE | CREATE_UNICODE_ENVIRONMENT | CREATE_DEFAULT_ERROR_MODE;
static_assert(kOwnIdentityFlags == 0x0C000000 && kProcessGroupFlags == 0x0C000200);
static_assert(kApplicationFlags == 0x30 && kUserSessionFlags == 0x04000410);

// An exception inside a launcher ends it with this code.
constexpr DWORD kExceptionCode = static_cast<DWORD>(korva::kUnhandledException);
constexpr DWORD kCurrentDirectoryBuffer = 4096;
// While output is captured the wait runs in slices this long, emptying the pipe in between.
constexpr DWORD kPumpSliceMs = 25;
// How long to let a terminated child finish dying before its handles are closed.
constexpr DWORD kTerminateWaitMs = 5000;
constexpr DWORD kPipeBufferBytes = 64 * 1024;
// Captured output kept for the log and the caller; more is read (so the child never blocks) and
// dropped. A setup program tells its outcome in a few lines; one that writes without end (run again
// every 10 s while a driver will not start) must not roll the service's log away, its own lines
// included: this is logged twice a run, line by line and whole.
constexpr std::size_t kMaxCapturedBytes = std::size_t{64} * 1024;
// Of the kept output, this many lines are logged one by one (short lines would make a record each
// of far more bytes than they hold); the rest are counted, and the caller gets them all.
constexpr std::size_t kMaxLoggedOutputLines = 200;
// Read from the child's pipe in one turn between two waits: one pipe buffer.
constexpr std::size_t kPumpBudgetBytes = kPipeBufferBytes;
// How long the output left after the child ended may take to read.
constexpr DWORD kFinalDrainMs = 2000;

const char* Text(const char* text) { return text != nullptr ? text : ""; }
const char* NonEmptyOrNull(const char* text) { return text != nullptr && text[0] != '\0' ? text : nullptr; }
const wchar_t* NonEmptyOrNull(const wchar_t* text) { return text != nullptr && text[0] != L'\0' ? text : nullptr; }

void SetRemarks(char** remarks, const std::string& text) {
  if (remarks != nullptr) AllocateAndDoStringCopyA(text.c_str(), remarks);
}

bool ShutdownInProgress() { return ShutdownInProgressFlag.load() != 0; }

// The refusal every launcher gives once the machine is shutting down.
template <typename Line>
[[nodiscard]] bool RefusedForShutdown(const char* function, const Line& commandLine, char** remarks) {
  if (!ShutdownInProgress()) return false;
  KLOG_ERROR_AS(function) << process::kShutdownLogText << commandLine;
  SetRemarks(remarks, process::kShutdownRemarks);
  return true;
}

// The gate's refusal of a program outside the agent's folders: logged there, once per program.
// `missing` gets the gate's word on a step that does not exist, for the creation.
[[nodiscard]] bool RefusedForFolder(const char* function, std::string_view program, const char* workingDir,
                                    char** remarks, DWORD& missing) {
  if (process::PathAllowsStart(function, program, workingDir, missing)) return false;
  SetRemarks(remarks, GetErrorMsgForID(process::kRefusedPathCode));
  return true;
}

// Reads what the pipe holds right now, never blocking and never more than `budget` bytes in one
// turn: a child that writes without end must not keep the reader from its deadline. Bytes past
// the kept cap are read and dropped, so the child is never left blocked on a full pipe. True
// when the pipe still had bytes when the budget ran out.
struct CapturedOutput {
  std::string kept;
  std::uint64_t dropped = 0;  // bytes read past kMaxCapturedBytes
};

bool DrainAvailable(HANDLE readEnd, CapturedOutput& captured, std::size_t budget) {
  for (std::size_t taken = 0; taken < budget;) {
    DWORD available = 0;
    if (!PeekNamedPipe(readEnd, nullptr, 0, nullptr, &available, nullptr) || available == 0) return false;
    char buffer[4096];
    DWORD read = 0;
    const DWORD want = static_cast<DWORD>(std::min<std::size_t>({available, sizeof buffer, budget - taken}));
    if (!ReadFile(readEnd, buffer, want, &read, nullptr) || read == 0) return false;
    taken += read;
    const std::size_t room = kMaxCapturedBytes - std::min(kMaxCapturedBytes, captured.kept.size());
    const std::size_t kept = std::min<std::size_t>(room, read);
    captured.kept.append(buffer, kept);
    captured.dropped += read - kept;
  }
  return true;
}

// After the child has ended: what it left in the pipe, read for at most kFinalDrainMs (a
// grandchild holding the pipe could write on for ever).
void DrainRemaining(HANDLE readEnd, CapturedOutput& captured) {
  const ULONGLONG deadline = GetTickCount64() + kFinalDrainMs;
  while (DrainAvailable(readEnd, captured, kPumpBudgetBytes) && GetTickCount64() < deadline) {
  }
}

// Waits for a started child as every waiting launcher does: waitMinutes x 60000 ms, then the exit
// code, or 258 after terminating the child with exit code 0. `remarks` gets the system text of
// the result. `pump`, when given, runs between wait slices; each run is bounded, so the deadline
// is looked at on every turn however much the child writes.
[[nodiscard]] DWORD WaitAndCollect(const char* function, HANDLE child, std::wstring_view commandLine, DWORD waitMinutes,
                                   std::string& remarks, const std::function<void()>& pump) {
  const DWORD total = process::WaitMillisecondsForMinutes(waitMinutes);
  DWORD wait = WAIT_FAILED;
  if (!pump) {
    wait = WaitForSingleObject(child, total);
  } else {
    const ULONGLONG deadline = GetTickCount64() + total;
    for (;;) {
      const ULONGLONG now = GetTickCount64();
      const ULONGLONG left = deadline > now ? deadline - now : 0;
      const DWORD slice = static_cast<DWORD>(std::min<ULONGLONG>(left, kPumpSliceMs));
      wait = WaitForSingleObject(child, slice);
      const DWORD waitError = GetLastError();
      pump();
      SetLastError(waitError);
      if (wait != WAIT_TIMEOUT || left <= kPumpSliceMs) break;
    }
  }

  DWORD result = 0;
  if (wait == WAIT_FAILED) {
    result = GetLastError();
    KLOG_ERROR_AS(function) << "WaitForSingleObject Failed with error code : " << result;
  } else if (wait == WAIT_TIMEOUT) {
    result = process::kTimedOutCode;
    // The texts, trailing blanks included, are the system's own.
    KLOG_INFO_AS(function) << process::TimeExceededLine(commandLine, waitMinutes);
    if (TerminateProcess(child, 0)) {
      KLOG_INFO_AS(function) << "The process has been successfully terminated. ";
    } else {
      const DWORD error = GetLastError();
      KLOG_ERROR_AS(function) << "The process termination is failed with error code : " << error;
    }
    WaitForSingleObject(child, kTerminateWaitMs);
  } else {
    DWORD exitCode = 0;
    if (GetExitCodeProcess(child, &exitCode)) {
      result = exitCode;
      KLOG_INFO_AS(function) << "Exit code for the application : " << exitCode;
    } else {
      result = GetLastError();
      KLOG_INFO_AS(function) << "Unable to find the exit code for the application and the error code is : " << result;
    }
  }
  remarks = GetErrorMsgForID(result);
  return result;
}

// Moves the process to a launch's working directory and back again when it goes away.
class WorkingDirectoryChange {
 public:
  WorkingDirectoryChange() = default;
  WorkingDirectoryChange(const WorkingDirectoryChange&) = delete;
  WorkingDirectoryChange& operator=(const WorkingDirectoryChange&) = delete;
  ~WorkingDirectoryChange() {
    if (!saved_.empty()) SetCurrentDirectoryA(saved_.c_str());
  }

  // False when the current directory cannot be saved: the launch must not go ahead.
  bool Enter(const char* function, const char* workingDir, const char* commandLine) {
    if (NonEmptyOrNull(workingDir) == nullptr) return true;
    char current[kCurrentDirectoryBuffer] = {};
    const DWORD length = GetCurrentDirectoryA(kCurrentDirectoryBuffer, current);
    if (length == 0) {
      KLOG_ERROR_AS(function) << "Failed to get the CurrentWorkingDirectory";
      return false;
    }
    if (length > kCurrentDirectoryBuffer) {  // the length needed, terminator included
      KLOG_ERROR_AS(function) << process::CurrentDirectoryOverflowLine(length);
      return false;
    }
    saved_.assign(current, length);
    KLOG_INFO_AS(function) << "Current Working Directory    : " << saved_;
    KLOG_INFO_AS(function) << "Executing Application Source : " << Text(commandLine);
    KLOG_INFO_AS(function) << "Set Working Directory        : " << workingDir;
    if (!SetCurrentDirectoryA(workingDir)) {
      KLOG_ERROR_AS(function) << "Failed to set the WorkingDirectory " << workingDir;
    }
    return true;
  }

 private:
  std::string saved_;
};

// After a successful creation: owns the child's handles, logs the start and, when the caller
// waits, waits and hands back the result's text as remarks.
[[nodiscard]] DWORD FinishLaunch(const char* function, const UniqueProcessInformation& child, const char* commandLine,
                                 DWORD waitMinutes, char** remarks) {
  KLOG_INFO_AS(function) << "Process successfully created for application " << Text(commandLine);
  if (waitMinutes == 0) return 0;
  std::string text;
  const DWORD result =
      WaitAndCollect(function, child.process(), korva::win::AnsiToWide(Text(commandLine)), waitMinutes, text, {});
  SetRemarks(remarks, text);
  return result;
}

// The launch shared by executeFile and executeInfo: the service's identity, no window.
[[nodiscard]] DWORD LaunchInOwnIdentity(const char* function, const char* workingDir, const char* commandLine,
                                        DWORD flags, char** remarks, DWORD waitMinutes) {
  if (RefusedForShutdown(function, Text(commandLine), remarks)) return process::kShutdownRefusalCode;
  // Named apart as well, so CreateProcess never searches for a program the command line leaves ambiguous.
  const std::string program = process::ProgramOfCommandLine(Text(commandLine));
  DWORD missing = ERROR_SUCCESS;
  if (RefusedForFolder(function, program, workingDir, remarks, missing)) return process::kRefusedPathCode;
  WorkingDirectoryChange directory;
  if (!directory.Enter(function, workingDir, commandLine)) return 0;

  std::string line = Text(commandLine);
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  process::ChildEnvironment environment(function, nullptr);
  UniqueProcessInformation child;
  if (!process::CreateWithOneRetry(function, program, missing, [&] {
        return CreateProcessA(program.c_str(), line.data(), nullptr, nullptr, FALSE, flags | CREATE_UNICODE_ENVIRONMENT,
                              environment.get(), NonEmptyOrNull(workingDir), &startup, child.put());
      })) {
    const DWORD error = korva::LogFailedCallAt(korva::log::kInfo, function, GetLastError(),
                                               "Failed to Create the Process for the application ", Text(commandLine));
    SetRemarks(remarks, GetErrorMsgForID(error));
    return error;
  }
  return FinishLaunch(function, child, commandLine, waitMinutes, remarks);
}

// Every launcher's body runs inside its entry and exit lines; an exception ends it with 574.
template <typename Body>
[[nodiscard]] DWORD GuardedLaunch(const char* function, Body&& body) {
  return korva::log::ScopedGuarded(function, kExceptionCode, static_cast<Body&&>(body), "Exception Caught.");
}

// The application launcher's one Win32 call, wide for both widths of ExecuteAppWithArgs: the narrow
// texts are converted from the ANSI code page, as CreateProcessA would convert them.
[[nodiscard]] BOOL CreateApplicationProcess(const std::wstring& application, wchar_t* line, const wchar_t* workingDir,
                                            process::ChildEnvironment& environment, UniqueProcessInformation& child) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  return CreateProcessW(application.c_str(), line, nullptr, nullptr, FALSE,
                        kApplicationFlags | CREATE_UNICODE_ENVIRONMENT, environment.get(), workingDir, &startup,
                        child.put());
}
std::wstring WideLine(const std::string& line) { return korva::win::AnsiToWide(line); }
const std::wstring& WideLine(const std::wstring& line) { return line; }

// ExecuteAppWithArgs in either width: `application` with `arguments` in a new console. The child's
// command line is the argument text alone (none at all when there are no arguments, so the system
// takes the application's path): the helper programs read their arguments from that line as the
// agent has always handed it to them. The logs name the launch by path and arguments.
// `started`, when given, receives the child's process handle of a launch that does not wait.
template <typename Char>
[[nodiscard]] DWORD LaunchApplication(const Char* application, const Char* workingDir, const Char* arguments,
                                      DWORD waitMinutes, korva::win::UniqueHandle* started = nullptr) {
  constexpr const char* name = "ExecuteAppWithArgs";
  constexpr Char kNull[] = {'(', 'n', 'u', 'l', 'l', ')', '\0'};
  const std::basic_string<Char> applicationText = application != nullptr ? application : std::basic_string<Char>();
  const std::basic_string<Char> launch = process::AppLaunchText(applicationText, arguments);
  if (RefusedForShutdown(name, launch, nullptr)) return process::kShutdownRefusalCode;
  DWORD missing = ERROR_SUCCESS;
  if (!process::PathAllowsStart(name, std::basic_string_view<Char>(applicationText), workingDir, missing)) {
    return process::kRefusedPathCode;
  }
  KLOG_INFO_AS(name) << "Execute Process Name ->" << applicationText;
  KLOG_INFO_AS(name) << "Command Line Params  ->" << (arguments != nullptr ? arguments : kNull);
  // CreateProcessW may write into the command line, so the child gets a copy.
  const auto wide = [](const Char* text) {
    return WideLine(text != nullptr ? std::basic_string<Char>(text) : std::basic_string<Char>());
  };
  std::wstring commandLine = wide(arguments);
  const Char* folder = NonEmptyOrNull(workingDir);
  const std::wstring wideFolder = wide(folder);
  process::ChildEnvironment environment(name, nullptr);
  UniqueProcessInformation child;
  if (!process::CreateWithOneRetry(name, applicationText, missing, [&] {
        return CreateApplicationProcess(WideLine(applicationText), arguments != nullptr ? commandLine.data() : nullptr,
                                        folder != nullptr ? wideFolder.c_str() : nullptr, environment, child);
      })) {
    const DWORD error = GetLastError();
    return korva::LogFailedCall(name, error, "Failed to Create the Process : ", error);
  }
  KLOG_INFO_AS(name) << "Process successfully created for application : " << applicationText;
  if (waitMinutes == 0) {
    if (started != nullptr) *started = child.releaseProcess();
    return 0;
  }
  std::string remarks;
  return WaitAndCollect(name, child.process(), WideLine(launch), waitMinutes, remarks, {});
}

}  // namespace

DWORD executeFile(const char* workingDir, const char* commandLine, char** remarks, DWORD waitMinutes) {
  return GuardedLaunch(__func__, [&]() -> DWORD {
    return LaunchInOwnIdentity("executeFile", workingDir, commandLine, kOwnIdentityFlags, remarks, waitMinutes);
  });
}

DWORD executeInfo(const char* workingDir, const char* commandLine, char** remarks) {
  return GuardedLaunch(__func__, [&]() -> DWORD {
    return LaunchInOwnIdentity("executeInfo", workingDir, commandLine, kProcessGroupFlags, remarks, 0);
  });
}

DWORD ExecuteAppWithArgs(const char* application, const char* workingDir, const char* arguments, DWORD waitMinutes) {
  return GuardedLaunch(__func__, [&] { return LaunchApplication(application, workingDir, arguments, waitMinutes); });
}

DWORD korva::process::StartApplicationKeepingProcess(const char* application, const char* workingDir,
                                                     const char* arguments, korva::win::UniqueHandle& process) {
  process.reset();
  // Its lines are ExecuteAppWithArgs's: the same launch, only its handle is kept.
  return GuardedLaunch("ExecuteAppWithArgs",
                       [&] { return LaunchApplication(application, workingDir, arguments, kNoWait, &process); });
}

DWORD ExecuteAppWithArgs(const wchar_t* workingDir, const wchar_t* application, const wchar_t* arguments,
                         DWORD waitMinutes) {
  return GuardedLaunch(__func__, [&] { return LaunchApplication(application, workingDir, arguments, waitMinutes); });
}

DWORD ExecuteWithToken(HANDLE token, const char* commandLine, const char* workingDir, char** remarks,
                       DWORD waitMinutes) {
  return GuardedLaunch(__func__, [&]() -> DWORD {
    const char* name = "ExecuteWithToken";
    if (RefusedForShutdown(name, Text(commandLine), remarks)) return process::kShutdownRefusalCode;
    const std::string program = process::ProgramOfCommandLine(Text(commandLine));
    DWORD missing = ERROR_SUCCESS;
    if (RefusedForFolder(name, program, workingDir, remarks, missing)) return process::kRefusedPathCode;
    // The user's own environment (profile folders, temp); without it the child would get the service's.
    korva::win::UniqueEnvironmentBlock environment;
    if (!CreateEnvironmentBlock(environment.put(), token, FALSE)) {
      const DWORD error = GetLastError();
      KLOG_ERROR_AS(name) << "CreateEnvironmentBlock failed with error :" << error;
    }
    std::string line = Text(commandLine);
    char desktop[] = "winsta0\\default";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.lpDesktop = desktop;
    // The token's environment (the service's when it could not be made), its PATH judged.
    process::ChildEnvironment childEnvironment(name, environment.get());
    UniqueProcessInformation child;
    if (!process::CreateWithOneRetry(name, program, missing, [&] {
          return CreateProcessAsUserA(token, program.c_str(), line.data(), nullptr, nullptr, FALSE, kUserSessionFlags,
                                      childEnvironment.get(), NonEmptyOrNull(workingDir), &startup, child.put());
        })) {
      const DWORD error =
          korva::LogLastError(name, "Failed to Create the Process for the application ", Text(commandLine));
      SetRemarks(remarks, GetErrorMsgForID(error));
      return error;
    }
    return FinishLaunch(name, child, commandLine, waitMinutes, remarks);
  });
}

DWORD ExecuteInSession(DWORD sessionId, const char* commandLine, const char* workingDir, char** remarks,
                       DWORD waitMinutes) {
  return GuardedLaunch(__func__, [&]() -> DWORD {
    if (RefusedForShutdown("ExecuteInSession", Text(commandLine), remarks)) return process::kShutdownRefusalCode;
    // Refused before any token is taken for it. A missing step is ExecuteWithToken's to act on: it
    // walks the path again just before its creation.
    DWORD missing = ERROR_SUCCESS;
    if (RefusedForFolder("ExecuteInSession", process::ProgramOfCommandLine(Text(commandLine)), workingDir, remarks,
                         missing)) {
      return process::kRefusedPathCode;
    }
    UniqueHandle token;
    if (!GetProcessToken(sessionId, token.put())) {
      KLOG_ERROR_AS("ExecuteInSession") << "Unable to get the Process token.";
      SetRemarks(remarks, GetErrorMsgForID(process::kNoTokenCode));
      return process::kNoTokenCode;
    }
    return ExecuteWithToken(token.get(), commandLine, workingDir, remarks, waitMinutes);
  });
}

DWORD ExecuteInSystemSession(const char* commandLine, const char* workingDir, char** remarks, DWORD waitMinutes) {
  return GuardedLaunch(__func__, [&]() -> DWORD {
    if (RefusedForShutdown("ExecuteInSystemSession", Text(commandLine), remarks)) {
      return process::kShutdownRefusalCode;
    }
    return ExecuteInSession(GetActiveConsoleSessionId(), commandLine, workingDir, remarks, waitMinutes);
  });
}

DWORD ExecuteUIApplicationInSystemSession(const char* commandLine, const char* workingDir, char** remarks,
                                          DWORD waitMinutes) {
  return GuardedLaunch(__func__, [&]() -> DWORD {
    const char* name = "ExecuteUIApplicationInSystemSession";
    if (RefusedForShutdown(name, Text(commandLine), remarks)) return process::kShutdownRefusalCode;
    const DWORD session = GetActiveConsoleSessionId();
    KLOG_INFO_AS(name) << "SessionID : " << session;
    char* user = nullptr;
    DWORD bytes = 0;
    if (WTSQuerySessionInformationA(WTS_CURRENT_SERVER_HANDLE, session, WTSUserName, &user, &bytes)) {
      const korva::win::UniqueWtsMemory owner(user);
      KLOG_INFO_AS(name) << "The active session User name is given by" << Text(user);
    } else {
      const DWORD error = GetLastError();
      KLOG_ERROR_AS(name) << "WTSQuerySessionInformationA failed with error :" << error;
    }
    return ExecuteInSession(session, commandLine, workingDir, remarks, waitMinutes);
  });
}

DWORD ExecuteAndPrintMessage(const char* workingDir, const char* commandLine, DWORD waitMinutes, BOOL* outputObtained,
                             char** output) {
  if (outputObtained != nullptr) *outputObtained = FALSE;
  return GuardedLaunch(__func__, [&]() -> DWORD {
    const char* name = "ExecuteAndPrintMessage";
    if (RefusedForShutdown(name, Text(commandLine), nullptr)) return process::kShutdownRefusalCode;
    const std::string program = process::ProgramOfCommandLine(Text(commandLine));
    DWORD missing = ERROR_SUCCESS;
    if (RefusedForFolder(name, program, workingDir, nullptr, missing)) return process::kRefusedPathCode;

    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    UniqueHandle readEnd;
    UniqueHandle writeEnd;
    if (!CreatePipe(readEnd.put(), writeEnd.put(), &inheritable, kPipeBufferBytes)) {
      const DWORD error = korva::LogLastError(name, "StdoutRd CreatePipe.");
      return error;
    }
    // Only the child's end may be inherited, or the pipe would never break when the child ends.
    if (!SetHandleInformation(readEnd.get(), HANDLE_FLAG_INHERIT, 0)) {
      const DWORD error = korva::LogLastError(name, "Stdout SetHandleInformation.");
      return error;
    }

    // The child inherits its pipe end and nothing else: not another launch's end made at the same
    // moment (which would keep that pipe open for as long as this child lives), nor any file or
    // key the service holds open inheritable as it starts a program as LocalSystem.
    korva::win::InheritedHandles inherited({writeEnd.get()});
    if (inherited.error() != ERROR_SUCCESS) {
      return korva::LogFailedCall(name, inherited.error(), "Stdout inheritance list.");
    }

    WorkingDirectoryChange directory;
    if (!directory.Enter(name, workingDir, commandLine)) return 0;
    std::string line = Text(commandLine);
    STARTUPINFOEXA startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdOutput = writeEnd.get();
    startup.StartupInfo.hStdError = writeEnd.get();  // a setup program's complaints belong in the log too
    startup.StartupInfo.hStdInput = nullptr;
    startup.lpAttributeList = inherited.list();
    process::ChildEnvironment environment(name, nullptr);
    UniqueProcessInformation child;
    if (!process::CreateWithOneRetry(name, program, missing, [&] {
          return CreateProcessA(program.c_str(), line.data(), nullptr, nullptr, TRUE,
                                kOwnIdentityFlags | EXTENDED_STARTUPINFO_PRESENT | CREATE_UNICODE_ENVIRONMENT,
                                environment.get(), NonEmptyOrNull(workingDir), &startup.StartupInfo, child.put());
        })) {
      const DWORD error =
          korva::LogFailedCallAt(korva::log::kInfo, name, GetLastError(),
                                 "Failed to Create the Process for the application ", Text(commandLine));
      return error;
    }
    writeEnd.reset();
    KLOG_INFO_AS(name) << "Process successfully created for application " << Text(commandLine);
    if (waitMinutes == 0) return 0;

    // Polled rather than read to the end: a grandchild holding the pipe open must not hang the launcher.
    CapturedOutput captured;
    const std::function<void()> pump = [&] { (void)DrainAvailable(readEnd.get(), captured, kPumpBudgetBytes); };
    std::string remarks;
    const DWORD result =
        WaitAndCollect(name, child.process(), korva::win::AnsiToWide(line), waitMinutes, remarks, pump);
    DrainRemaining(readEnd.get(), captured);
    const std::vector<std::string> lines = process::OutputLines(captured.kept);
    for (std::size_t i = 0; i < lines.size() && i < kMaxLoggedOutputLines; ++i) {
      KLOG_INFO_AS(name) << "Output : " << lines[i];
    }
    if (lines.size() > kMaxLoggedOutputLines) {
      KLOG_INFO_AS(name) << (lines.size() - kMaxLoggedOutputLines)
                         << " more lines of output are not logged one by one.";
    }
    if (captured.dropped != 0) {
      KLOG_WARNING_AS(name) << "The output went on for " << captured.dropped << " more bytes, read and not kept.";
    }
    if (!captured.kept.empty()) {
      if (outputObtained != nullptr) *outputObtained = TRUE;
      if (output != nullptr) AllocateAndDoStringCopyA(captured.kept.c_str(), output);
    }
    return result;
  });
}
