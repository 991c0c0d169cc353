// Starting and stopping the on-demand program of the agent's bin folder.
#include "ondemand/ondemand_control.h"

#include <tlhelp32.h>

#include <cstddef>
#include <string>
#include <vector>

#include "ondemand/core/lock_rules.h"
#include "ondemand/module_lock.h"
#include "process/launch_gate.h"
#include "process/launcher.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "win/process_image.h"
#include "win/process_walk.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

using korva::win::UniqueHandle;

// The ids of the running instances of the on-demand program, this process excluded.
std::vector<DWORD> SnapshotInstances(const char* function) {
  std::vector<DWORD> ids;
  const DWORD self = GetCurrentProcessId();
  const auto failure = korva::win::WalkProcesses([&](const PROCESSENTRY32W& entry) {
    if (entry.th32ProcessID != self && korva::ondemand::IsOnDemandProgramName(entry.szExeFile)) {
      ids.push_back(entry.th32ProcessID);
    }
    return false;
  });
  // An empty list (no first entry) simply has nothing to end.
  if (failure && failure->step == korva::win::ProcessWalkFailure::Step::kSnapshot) {
    korva::LogFailedCall(function, failure->error, "Unable to list the running processes.");
  }
  return ids;
}

korva::OnDemandInstanceSource g_instanceSource = nullptr;

std::vector<DWORD> RunningInstances(const char* function) {
  return g_instanceSource != nullptr ? g_instanceSource() : SnapshotInstances(function);
}

// One instance being ended: its id and the handle to wait on (none once it is known to have ended,
// or when it could not be opened).
struct Ending {
  DWORD processId = 0;
  UniqueHandle process;
  bool ended = false;
};

// Opens one instance and asks it to end, without waiting.
Ending StartEnding(DWORD processId, const char* function) {
  Ending ending{processId, UniqueHandle(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION,
                                                    FALSE, processId))};
  if (!ending.process) {
    const DWORD error = GetLastError();
    if (error == ERROR_INVALID_PARAMETER) {  // no such process any more: it ended on its own
      KLOG_INFO_AS(function) << "korvaOnDemand.exe has already ended, process id :"
                             << static_cast<unsigned long>(processId);
      ending.ended = true;
      return ending;
    }
    korva::LogFailedCall(function, error,
                         "Unable to open korvaOnDemand.exe, process id :", static_cast<unsigned long>(processId));
    return ending;
  }
  // The id comes from a snapshot taken before: the instance may have ended since and its id gone to
  // another process, which this service must not end. The handle holds the process it names, so
  // what it runs is checked on the handle that terminates it.
  DWORD readError = ERROR_SUCCESS;
  const std::wstring image = korva::win::ProcessImagePath(ending.process.get(), readError);
  if (image.empty()) {
    if (WaitForSingleObject(ending.process.get(), 0) == WAIT_OBJECT_0) {  // an ended process has no image
      KLOG_INFO_AS(function) << "korvaOnDemand.exe has already ended, process id :"
                             << static_cast<unsigned long>(processId);
      ending.ended = true;
    } else {
      korva::LogFailedCall(function, readError,
                           "Unable to read the program of process id :", static_cast<unsigned long>(processId),
                           "; it is not terminated.");
    }
    ending.process.reset();
    return ending;
  }
  if (!korva::ondemand::IsOnDemandProgramName(image)) {
    KLOG_WARNING_AS(function) << "Process id :" << static_cast<unsigned long>(processId) << " now runs "
                              << korva::win::WideToUtf8(image) << ", not korvaOnDemand.exe; it is not terminated.";
    ending.process.reset();
    ending.ended = true;  // the instance the snapshot saw has ended on its own
    return ending;
  }
  if (!TerminateProcess(ending.process.get(), korva::kOnDemandTerminatedExitCode)) {
    const DWORD error = GetLastError();
    // A process that is already exiting refuses termination; the wait still tells.
    korva::LogFailedCall(function, error,
                         "Unable to terminate korvaOnDemand.exe, process id :", static_cast<unsigned long>(processId));
  }
  return ending;
}

// Waits for an instance asked to end, until `deadline` (a GetTickCount64 value); true once it has
// ended.
[[nodiscard]] bool WaitForEnd(const Ending& ending, ULONGLONG deadline, const char* function) {
  if (ending.ended) return true;
  if (!ending.process) return false;
  const ULONGLONG now = GetTickCount64();
  const DWORD waited =
      WaitForSingleObject(ending.process.get(), now < deadline ? static_cast<DWORD>(deadline - now) : 0);
  const DWORD processId = ending.processId;
  if (waited != WAIT_OBJECT_0) {
    const DWORD error = waited == WAIT_FAILED ? GetLastError() : WAIT_TIMEOUT;
    korva::LogFailedCall(function, error,
                         "korvaOnDemand.exe did not end in time, process id :", static_cast<unsigned long>(processId));
    return false;
  }
  KLOG_INFO_AS(function) << "korvaOnDemand.exe is terminated, process id :" << static_cast<unsigned long>(processId);
  return true;
}

// Ends every running instance; the number that ended.
std::size_t TerminateAllInstances(const char* function) {
  const std::vector<DWORD> ids = RunningInstances(function);
  if (ids.empty()) {
    KLOG_INFO_AS(function) << "korvaOnDemand.exe is not running.";
    return 0;
  }
  // Every instance is asked to end first, then all are waited for within one bound: however many
  // there are (any user may run a program of that name), a stop or an on-demand request waits
  // kOnDemandTerminateWaitMs at most.
  std::vector<Ending> endings;
  endings.reserve(ids.size());
  for (const DWORD id : ids) endings.push_back(StartEnding(id, function));
  const ULONGLONG deadline = GetTickCount64() + korva::kOnDemandTerminateWaitMs;
  std::size_t ended = 0;
  for (const Ending& ending : endings) ended += WaitForEnd(ending, deadline, function) ? 1 : 0;
  return ended;
}

}  // namespace

DWORD InitiateOnDemandExec() {
  return korva::log::ScopedGuarded(__func__, static_cast<DWORD>(ERROR_INVALID_FUNCTION), []() -> DWORD {
    constexpr const char* kFunction = "InitiateOnDemandExec";
    if (CheckModuleLocked() == 1) {
      KLOG_WARNING_AS(kFunction) << "The on-demand module is blocked; korvaOnDemand.exe is not started.";
      return korva::kOnDemandModuleBlocked;
    }
    const korva::AgentFolder install = korva::AgentInstallFolder();
    if (!korva::process::FolderAllowsStart(kFunction, korva::ondemand::kOnDemandProgramA, install)) {
      return korva::process::kRefusedPathCode;
    }
    const std::string folder = install.path + "\\bin";
    const std::string commandLine = "\"" + folder + "\\" + std::string(korva::ondemand::kOnDemandProgramA) + "\"";
    KLOG_INFO_AS(kFunction) << "Starting the on-demand program :" << commandLine;
    korva::win::UniqueMallocText<char> remarks;
    const DWORD code = executeFile(folder.c_str(), commandLine.c_str(), remarks.put(), korva::process::kNoWait);
    if (code != 0) {
      KLOG_ERROR_AS(kFunction) << "Unable to start korvaOnDemand.exe, error :" << static_cast<unsigned long>(code);
      if (remarks && remarks.get()[0] != '\0') KLOG_ERROR_AS(kFunction) << "Remarks :" << remarks.get();
      return code;
    }
    KLOG_INFO_AS(kFunction) << "korvaOnDemand.exe is started.";
    return 0;
  });
}

void StopOnDemandExec() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    constexpr const char* kFunction = "StopOnDemandExec";
    const std::size_t ended = TerminateAllInstances(kFunction);
    KLOG_INFO_AS(kFunction) << "korvaOnDemand.exe instances ended :" << static_cast<unsigned long>(ended);
    // Read once no instance can change it any more, and before the reset clears it.
    DWORD unhandled = 0;
    if (GetUnHandledExceptionLock(&unhandled) == ERROR_SUCCESS) {
      KLOG_INFO_AS(kFunction) << "ondemandUnhandlelock :" << static_cast<unsigned long>(unhandled);
    }
    ResetModuleLockStatus();
  });
}

void korva::SetOnDemandInstanceSourceForTest(OnDemandInstanceSource source) { g_instanceSource = source; }

void StopTESKProcess() {
  korva::log::ScopedGuardedVoid(__func__, [] { (void)TerminateAllInstances("StopTESKProcess"); });
}
