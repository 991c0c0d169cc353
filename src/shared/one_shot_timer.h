// Re-arming the service's one-shot timers without leaving the expired ones behind.
#pragma once

#include <windows.h>

namespace korva {

// Creates a one-shot timer on `queue` due in `dueMs` into `slot`, replacing the timer the slot held.
// The replaced timer is deleted without waiting: it may be the very timer whose callback is
// calling this, and a fired one-shot timer otherwise stays in its queue until the queue goes,
// one more for every pass of a long-lived service. False, with GetLastError telling why, when the
// new timer could not be created (the slot is then empty).
[[nodiscard]] bool RearmOneShotTimer(HANDLE queue, HANDLE& slot, WAITORTIMERCALLBACK callback, DWORD dueMs);

}  // namespace korva
