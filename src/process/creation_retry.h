// One more try for a process creation the system could not complete for a reason of its own.
#pragma once

#include <windows.h>

#include "process/core/launch_text.h"
#include "settings/log.h"
#include "shared/service_state.h"

namespace korva::process {

// How long to let the system settle before the second try.
inline constexpr DWORD kCreationRetryDelayMs = 250;

// Runs `create` (a CreateProcess* call, returning its BOOL) and, when it failed with
// ERROR_INTERNAL_ERROR, once more. That error says the new process ended before any of the program
// ran (the system could not bring it up at all: under load Wine's loader dies this way now and then),
// so a second try cannot run anything twice, and the start the agent decided on is not lost to it.
// A shutdown that began meanwhile refuses the second try, with the code of every launcher's shutdown
// refusal as the last error. Every other failure is the start's own and stands; the last error is
// the last try's. `missing` is the launch gate's word on a step of the program's way that did not
// exist (process/launch_gate.h): then nothing is tried, and the start fails at once with that error,
// as its creation would have failed when the gate looked.
template <typename Program, typename Create>
[[nodiscard]] BOOL CreateWithOneRetry(const char* function, const Program& program, DWORD missing, Create&& create) {
  if (missing != ERROR_SUCCESS) {
    SetLastError(missing);
    return FALSE;
  }
  if (create()) return TRUE;
  if (GetLastError() != ERROR_INTERNAL_ERROR) return FALSE;
  KLOG_WARNING_AS(function) << "The process of " << program << " did not come up (error " << ERROR_INTERNAL_ERROR
                            << "); it is created once more.";
  Sleep(kCreationRetryDelayMs);
  if (ShutdownInProgressFlag.load() != 0) {
    KLOG_ERROR_AS(function) << "The machine is shutting down; " << program << " is not created again.";
    SetLastError(kShutdownRefusalCode);
    return FALSE;
  }
  return create();
}

}  // namespace korva::process
