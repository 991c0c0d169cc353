// Temporary device-access grants and the timer that revokes them.
#pragma once

#include <windows.h>

// Reads the grants, applies them and returns the earliest expiry still in force (seconds), the
// largest 64-bit value when no grant is in force.
ULONGLONG ProcessandUpdateTemporaryAccess(bool reconfigure);
// Revoke timer callback.
VOID CALLBACK TempAccessRevokeTimerRoutine(PVOID parameter, BOOLEAN timerFired);
