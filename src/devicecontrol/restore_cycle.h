// The blocked-device restore cycle: a one-shot timer, armed once per service run, that has the
// action program restore the devices it blocked, and the switch that skips restores on removal.
#pragma once

#include <windows.h>

#include <atomic>

// 1 when the action program is not to restore devices after a removal (registry
// "SkipRestoreUnpluggedBlocked" of QVM\Settings); the start-up restore runs regardless.
extern std::atomic<LONG> SkipRestoreUnpluggedBlocked;
// The restore timer, in the revoke timer's queue (see ArmRestoreBlockedDeviceTimer); null until it
// is armed.
extern HANDLE RestoreBlockedDeviceTimer;

// Thread procedure: arms the one-shot restore timer and ends. Returns 1.
DWORD WINAPI ProcessRestoreBlockedDeviceThread(LPVOID parameter);
// Restore timer callback: writes the access-log row and runs the restore action (code 12).
VOID CALLBACK RestoreBlockedDeviceTimerRoutine(PVOID context, BOOLEAN timerOrWaitFired);
// Reads the switch that skips the restore action on device removal.
void FetchRestoreUnpluggedBlockedDevice();

namespace korva {

// The restore runs this long after the main thread started its workers.
inline constexpr DWORD kRestoreBlockedDeviceDueMs = 180000;

// Arms RestoreBlockedDeviceTimerRoutine once, `dueMs` from now, on TempAccessRevokeTimerQueue (the
// default timer queue while that is null), and logs the outcome. False when the timer could not be created.
[[nodiscard]] bool ArmRestoreBlockedDeviceTimer(DWORD dueMs);

// Test hook: deletes the restore timer, waiting for a callback that is running, so that a test
// leaves no timer behind.
void DeleteRestoreBlockedDeviceTimerForTest();

}  // namespace korva
