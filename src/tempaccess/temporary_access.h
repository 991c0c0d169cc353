// Temporary device-access grants and the timer that revokes them.
#pragma once

#include <windows.h>

// One pass over the grants of "ta.json" (enciphered) or "ta.json_tmp" (plain) in the policy folder:
// logs the grants that are over, announces newly ended ones in the user's tray, and unless
// `skipReconfiguration` has the configuration program re-apply policy. Returns the earliest expiry
// among the grants still in force (local-time seconds), the largest 64-bit value when none is.
LONGLONG ProcessandUpdateTemporaryAccess(bool skipReconfiguration);
// Revoke timer callback: a pass with reconfiguration, then the timer armed for the next expiry.
VOID CALLBACK TempAccessRevokeTimerRoutine(PVOID parameter, BOOLEAN timerFired);
// Starts the tray program in the logged-on user's session with "-ta <number>" (not waited for).
void ExecuteAgentTrayIcon_TA(int number);

namespace korva {
// Arms the revoke timer on its queue for `nextRevoke` (seconds on the clock `nowSeconds` was read
// from), replacing the one armed before; a failure is logged under `function`. When a grant without
// an expiry of its own made `nextRevoke` 0, the timer waits for the last pass's earliest timed
// expiry instead, and for the earliest end of a validity period when that comes first
// (tempaccess::RevokeTimeToArm). After a pass that could not read the grants, it keeps the pending
// revoke and looks again within a minute; after one that read them only in part, the pending revoke
// comes no later; while the configuration program owes a run, it comes back for it.
void ArmTempAccessRevokeTimer(const char* function, LONGLONG nextRevoke, LONGLONG nowSeconds);
// The start-up could not make the revoke timer queue: the next arming makes it, and each after it
// until one can, so a grant's revoke is not left unarmed for the rest of the run. A pass comes a
// minute later for it (and a minute after each that could not make it either), should nothing else
// arm meanwhile.
void OweRevokeTimerQueue() noexcept;
// Test seam: how long after OweRevokeTimerQueue its pass comes (0: a minute).
void SetOwedQueuePassDelayForTest(DWORD delayMs);
// A pass with reconfiguration and the timer armed for its result, as one step that no other pass
// comes between. The revoke timer and the settings reaction use it; `function` names the caller.
void ProcessGrantsAndArmRevokeTimer(const char* function);
// Whether the last pass found a time at which a grant in force ends: an expiry of its own, or the
// end of its validity period.
bool LastPassFoundRevokeTime();
// Whether a revoke's configuration run is owed (its program did not start, in this run of the
// service or an earlier one): the start-up then arms the revoke timer even with no grant in force.
bool RevokeOwed();
// Test seam: how long a configuration program may run before a pass ends it (10 minutes).
void SetConfigurationRunLimitForTest(ULONGLONG limitMs);
// Forgets which ended grants the tray was told about, the pending revoke and the owed run (which
// the next pass reads from the registry again), as a service start does.
void ResetGrantStateForTest();
}  // namespace korva
