// The blocked-device restore cycle: the restore timer and the switch read at start-up.
#include "devicecontrol/restore_cycle.h"

#include "devicecontrol/summary_program.h"
#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/registry.h"
#include "shared/access_log.h"
#include "shared/service_state.h"
#include "win/thread_stack.h"

std::atomic<LONG> SkipRestoreUnpluggedBlocked{0};
HANDLE RestoreBlockedDeviceTimer = nullptr;

namespace {

constexpr const char* kThreadName = "ProcessRestoreBlockedDeviceThread";
constexpr DWORD kMsPerMinute = 60000;
// The queue the restore timer was armed on, for its deletion.
HANDLE g_restoreQueue = nullptr;

}  // namespace

namespace korva {

bool ArmRestoreBlockedDeviceTimer(DWORD dueMs) {
  // The restore timer shares the queue start-up made for the revoke timer: it lives as long as the
  // process and nothing deletes it, whereas the filter's queue is deleted at stop and may never be
  // made. Under Wine every timer queue is a thread of its own, about 1 MB resident, so a second
  // long-lived queue would cost that for one timer. Without that queue (its creation failed, or a
  // test arms this alone) the null queue is the process's default one.
  const HANDLE queue = TempAccessRevokeTimerQueue;
  HANDLE timer = nullptr;
  if (!CreateTimerQueueTimer(&timer, queue, RestoreBlockedDeviceTimerRoutine, nullptr, dueMs, 0, 0)) {
    korva::LogLastError(kThreadName, "Restoring device CreateTimerQueueTimer failed due to following error.");
    return false;
  }
  g_restoreQueue = queue;
  RestoreBlockedDeviceTimer = timer;
  // No blanks around the minutes: the system's own line.
  KLOG_INFO_AS(kThreadName)
      << "Registered the TimerRoutine callback to receive the notification in the device restore refresh cycle in next"
      << static_cast<unsigned long>(dueMs / kMsPerMinute) << "minutes.";
  return true;
}

void DeleteRestoreBlockedDeviceTimerForTest() {
  HANDLE timer = RestoreBlockedDeviceTimer;
  RestoreBlockedDeviceTimer = nullptr;
  if (timer != nullptr) DeleteTimerQueueTimer(g_restoreQueue, timer, INVALID_HANDLE_VALUE);
}

}  // namespace korva

DWORD WINAPI ProcessRestoreBlockedDeviceThread(LPVOID /*parameter*/) {
  // "Method" and the capital O of "End Of" are deliberate: this routine's own entry and exit lines.
  const korva::log::Scope scope(kThreadName, "@@@ Inside ProcessRestoreBlockedDeviceThread Method @@@",
                                "@@@ End Of ProcessRestoreBlockedDeviceThread Method @@@");
  korva::log::GuardedVoid(kThreadName,
                          [] { (void)korva::ArmRestoreBlockedDeviceTimer(korva::kRestoreBlockedDeviceDueMs); });
  korva::win::ReleaseUnusedStack();  // Wine keeps an ended thread's stack until another thread ends
  return 1;
}

VOID CALLBACK RestoreBlockedDeviceTimerRoutine(PVOID /*context*/, BOOLEAN /*timerOrWaitFired*/) {
  KLOG_SCOPE();
  // Runs whatever SkipRestoreUnpluggedBlocked says: that switch is about removals only. A stop
  // before the timer fires means no restore.
  korva::log::GuardedVoid(__func__, [] {
    if (ServiceIsEnding()) {
      KLOG_INFO_AS("RestoreBlockedDeviceTimerRoutine") << "The service is stopping; no restore is run.";
      return;
    }
    PrintAgentServiceAccessLog("Restore_Device_Notification");
    ProcessSecureDeviceOperation(korva::kRestoreActionCode);
  });
  korva::win::ReleaseUnusedStack();  // the pool's thread may idle, then end, after this
}

void FetchRestoreUnpluggedBlockedDevice() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    // A missing or unreadable value leaves 0: restores on removal stay on.
    DWORD value = 0;
    (void)ReadDwordRegValue(korva::kQvmSettingsKey, "SkipRestoreUnpluggedBlocked", value);
    SkipRestoreUnpluggedBlocked.store(value != 0 ? 1 : 0);
  });
}
