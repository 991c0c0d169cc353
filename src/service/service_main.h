// ServiceMain (the entry the dispatcher calls), InvokeMainThread, the uptime source of the boot
// check and the signal that ServiceMain has finished; the handles they make are in
// shared/service_state.h.
#pragma once

#include <windows.h>

#include "shared/service_state.h"

void WINAPI ServiceMain(DWORD argc, LPWSTR* argv);
// Start-up work that may take time: boot check and notification, the start-up device action,
// the worker threads; then runs the pipe client on this thread until the stop.
DWORD WINAPI InvokeMainThread(LPVOID parameter);

namespace korva {
// The machine's uptime in milliseconds. Tests replace the source to take the boot path.
using UptimeSource = ULONGLONG (*)();
void SetUptimeSource(UptimeSource source);
ULONGLONG MachineUptimeMs();
// Below this uptime the service counts as starting with the machine.
inline constexpr ULONGLONG kBootWindowMs = 600000;
// The start-up's first step: reads the forced-shutdown check's inputs (the last boot time and the
// last orderly end, "LastShutdownTime"), which InvokeMainThread's check then uses, and removes
// "LastShutdownTime" at once. Whatever ends this run before its own orderly end (power lost in a
// start-up that waits minutes for the filter's setup, a start-up that fails) then leaves no
// orderly end behind, and the next start finds it forced.
void TakeForcedShutdownInputs();

// The dispatcher returns as soon as the service reports STOPPED, while ServiceMain is still writing
// its last records; the entry point waits (bounded) for ServiceMain to finish before the process
// ends, so none of them is lost. Prepare the signal before starting the dispatcher.
void PrepareServiceMainFinishedSignal();
[[nodiscard]] bool WaitForServiceMainToFinish(DWORD timeoutMs);
}  // namespace korva
