// The blocked-device restore cycle: the restore timer and the switch read at start-up.
#include "devicecontrol/restore_cycle.h"

#include "devicecontrol/summary_program.h"
#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/registry.h"
#include "shared/access_log.h"

std::atomic<LONG> SkipRestoreUnpluggedBlocked{0};
HANDLE RestoreBlockedDeviceTimer = nullptr;

namespace {

constexpr const char* kThreadName = "ProcessRestoreBlockedDeviceThread";
constexpr DWORD kMsPerMinute = 60000;

}  // namespace

namespace korva {

bool ArmRestoreBlockedDeviceTimer(DWORD dueMs) {
  // A null queue is the process's default timer queue: the timer lives as long as the process,
  // and the service's own queues (the filter's is deleted at stop and may never be made) have no
  // say over it.
  HANDLE timer = nullptr;
  if (!CreateTimerQueueTimer(&timer, nullptr, RestoreBlockedDeviceTimerRoutine, nullptr, dueMs, 0, 0)) {
    korva::LogLastError(kThreadName, "Restoring device CreateTimerQueueTimer failed due to following error.");
    return false;
  }
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
  if (timer != nullptr) DeleteTimerQueueTimer(nullptr, timer, INVALID_HANDLE_VALUE);
}

}  // namespace korva

DWORD WINAPI ProcessRestoreBlockedDeviceThread(LPVOID /*parameter*/) {
  // "Method" and the capital O of "End Of" are deliberate: this routine's own entry and exit lines.
  const korva::log::Scope scope(kThreadName, "@@@ Inside ProcessRestoreBlockedDeviceThread Method @@@",
                                "@@@ End Of ProcessRestoreBlockedDeviceThread Method @@@");
  korva::log::GuardedVoid(kThreadName,
                          [] { (void)korva::ArmRestoreBlockedDeviceTimer(korva::kRestoreBlockedDeviceDueMs); });
  return 1;
}

VOID CALLBACK RestoreBlockedDeviceTimerRoutine(PVOID /*context*/, BOOLEAN /*timerOrWaitFired*/) {
  KLOG_SCOPE();
  // Runs whatever SkipRestoreUnpluggedBlocked says: that switch is about removals only.
  korva::log::GuardedVoid(__func__, [] {
    PrintAgentServiceAccessLog("Restore_Device_Notification");
    ProcessSecureDeviceOperation(korva::kRestoreActionCode);
  });
}

void FetchRestoreUnpluggedBlockedDevice() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    // A missing or unreadable value leaves 0: restores on removal stay on.
    DWORD value = 0;
    (void)ReadDwordRegValue(korva::kQvmSettingsKey, "SkipRestoreUnpluggedBlocked", value);
    SkipRestoreUnpluggedBlocked.store(value != 0 ? 1 : 0);
  });
}
