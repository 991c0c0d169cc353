// Re-arming the service's one-shot timers.
#include "shared/one_shot_timer.h"

#include <mutex>

namespace korva {

namespace {
// The start-up, the settings monitor and the timers' own callbacks re-arm from different threads.
std::mutex g_slotMutex;
}  // namespace

bool RearmOneShotTimer(HANDLE queue, HANDLE& slot, WAITORTIMERCALLBACK callback, DWORD dueMs) {
  const std::lock_guard<std::mutex> lock(g_slotMutex);
  if (slot != nullptr) {
    // ERROR_IO_PENDING from a timer whose callback is running is expected: it goes once that ends.
    (void)DeleteTimerQueueTimer(queue, slot, nullptr);
    slot = nullptr;
  }
  HANDLE created = nullptr;
  const BOOL ok = CreateTimerQueueTimer(&created, queue, callback, nullptr, dueMs, 0, 0);
  const DWORD error = ok ? ERROR_SUCCESS : GetLastError();
  slot = ok ? created : nullptr;
  SetLastError(error);
  return ok != FALSE;
}

}  // namespace korva
