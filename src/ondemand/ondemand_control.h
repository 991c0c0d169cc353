// Starting and stopping the on-demand program "korvaOnDemand.exe" of the agent's bin folder
// (AgentInstallDirGlobal + "\bin\").
#pragma once

#include <windows.h>

#include <vector>

namespace korva {
// InitiateOnDemandExec's result when the module is blocked (locked with its retries used up).
inline constexpr DWORD kOnDemandModuleBlocked = ERROR_ACCESS_DISABLED_BY_POLICY;
// How long each terminated instance is waited for.
inline constexpr DWORD kOnDemandTerminateWaitMs = 5000;
// The exit code a terminated instance gets: "the process terminated unexpectedly".
inline constexpr UINT kOnDemandTerminatedExitCode = ERROR_PROCESS_ABORTED;

// Where the process ids of the running instances come from: a process snapshot, or in a test (which
// cannot make the system hand an ended instance's id to another process) the ids it gives.
using OnDemandInstanceSource = std::vector<DWORD> (*)();
void SetOnDemandInstanceSourceForTest(OnDemandInstanceSource source);  // nullptr: the snapshot again
}  // namespace korva

// Starts the on-demand program in the service's identity without waiting, unless
// CheckModuleLocked() says the module is blocked. 0 when started, kOnDemandModuleBlocked when
// blocked, ERROR_PATH_NOT_FOUND when AgentInstallDir is not a usable folder (the launch gate), else
// the launcher's Win32 error.
[[nodiscard]] DWORD InitiateOnDemandExec();
// Terminates every running instance (any folder, name compared without regard to case, checked
// again on the opened process before it is ended) with a bounded wait for each, logs the unhandled-failure mark they
// left and resets the lock values.
void StopOnDemandExec();
// Terminates every running instance the same way, on service stop and shutdown. The lock values
// are left as they are: a lock the on-demand program set must outlive an orderly restart.
void StopTESKProcess();
