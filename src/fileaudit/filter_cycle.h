// The file-audit filter: whether it is needed, and its attachment timer cycle with the timer queue it owns.
#pragma once

#include <windows.h>

// 1 when the file-audit filter is required on this machine, 0 otherwise.
int CheckQVFAFilterRequirement();
// One pass of the attachment cycle: refresh the drive list, attach the filter to each drive
// (starting the file-shadow program where it was started now), and arm the next pass 10 s later.
// A pass that finds the filter no longer wanted ends the cycle.
void ProcessQVFAFilterMethod();
// Filter timer callback: one pass of the attachment cycle.
VOID CALLBACK QVFAFilterTimerRoutine(PVOID parameter, BOOLEAN timerFired);

namespace korva {
// The cycle owns its timer queue and the one pass armed on it; starting, arming and stopping may
// come from different threads (the start-up, the settings reaction, the pass itself, the stop).
//
// Arms the next pass on the filter's timer queue, FilterTimerDueMs() from now; a failure is
// logged under `function`. Without a queue (never started, or stopped) nothing is armed.
void ArmFilterTimer(const char* function);
// Creates the filter's timer queue when there is none yet (logged under `function`), then arms the
// next pass. Nothing is armed when the queue cannot be made.
void StartFilterCycle(const char* function);
// Deletes the filter's timer queue, and the pass armed on it, without waiting for a pass that is
// running (which then arms nothing); a failure, a queue never made included, is logged under
// `function`. A later StartFilterCycle makes a new queue.
void StopFilterCycle(const char* function);
// The due time every arming uses; tests shorten it.
DWORD FilterTimerDueMs();
void SetFilterTimerDueMsForTest(DWORD dueMs);
// Test hooks: how many passes have been armed so far; deleting the queue, waiting for a pass
// that is running, so that a test leaves no timer behind.
unsigned FilterTimerArmingsForTest();
void DeleteFilterTimerQueueForTest();
}  // namespace korva
