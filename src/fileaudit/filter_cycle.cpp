// The file-audit filter cycle: whether the filter is wanted, and the self-re-arming pass that
// keeps it attached to every removable drive, on a timer queue of its own.
#include "fileaudit/filter_cycle.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "devicecontrol/drive_inventory.h"
#include "fileaudit/file_shadow.h"
#include "fileaudit/filter_attach.h"
#include "fileaudit/policy_status.h"
#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/registry.h"
#include "shared/one_shot_timer.h"
#include "shared/service_state.h"
#include "win/thread_stack.h"

namespace {

constexpr DWORD kFilterTimerDueMs = 10000;
std::atomic<DWORD> g_dueMs{kFilterTimerDueMs};
std::atomic<unsigned> g_armings{0};

// The filter's timer queue and its one-shot timer. The lock keeps two threads from making two
// queues, and an arming from using a queue the stop is deleting.
std::mutex g_queueMutex;
HANDLE QVFAFilterTimerQueue = nullptr;
HANDLE QVFAFilterTimer = nullptr;

// Takes the queue out of the cycle (its timer goes with it); null when there is none.
HANDLE TakeQueue() {
  const std::lock_guard<std::mutex> lock(g_queueMutex);
  HANDLE queue = QVFAFilterTimerQueue;
  QVFAFilterTimerQueue = nullptr;
  QVFAFilterTimer = nullptr;
  return queue;
}

}  // namespace

int CheckQVFAFilterRequirement() {
  return korva::log::ScopedGuarded(
      __func__, 0,
      [] {
        // A missing or unreadable value means file audit has not been stopped.
        DWORD stopped = 0;
        (void)ReadDwordRegValue(korva::kQvmSettingsKey, "IsStopFileAudit", stopped);
        const int required =
            stopped != 1 && (CheckDeviceControlPolicyStatus() != 0 || CheckSecureUSBConfigurationStatus() != 0) ? 1 : 0;
        KLOG_INFO_AS("CheckQVFAFilterRequirement") << "isQVFAFilterRequired :" << required;
        return required;
      },
      "Exception Caught.");
}

void ProcessQVFAFilterMethod() {
  korva::log::ScopedGuardedVoid(
      __func__,
      [] {
        constexpr const char* kName = "ProcessQVFAFilterMethod";
        if (korva::fileaudit::ReadFilterNeeded() != 1) {
          KLOG_INFO_AS(kName) << "Skipping the Execution and Timer routine.";
          return;
        }
        UpdateRemovableDriveEntries(korva::devicecontrol::kOnlyListNewDrives);
        const std::vector<std::wstring> drives = korva::RemovableDrives();
        if (drives.empty()) KLOG_DEBUG_AS(kName) << "Removable Drive List is Empty";
        // A stop begun while the pass runs (each attach may take minutes) ends it before the next
        // program: none starts after the stop has ended the others.
        const auto stopping = [kName] {
          if (!ServiceIsEnding()) return false;
          KLOG_INFO_AS(kName) << "The service is stopping; the pass ends here.";
          return true;
        };
        for (const std::wstring& drive : drives) {
          if (stopping()) return;
          const wchar_t* shown = drive.empty() ? L"(null)" : drive.c_str();
          if (IsFilterAttachedToDrive(drive) == 0) {
            // No blanks around the drive: the system's own line.
            KLOG_INFO_AS(kName) << "Filter for Drive :" << shown << "started successfully";
            if (stopping()) return;
            ExecuteFileShadowApplication(drive);
          } else {
            KLOG_DEBUG_AS(kName) << "Filter for Drive : {" << shown << "} Already Running";
          }
        }
        korva::ArmFilterTimer(kName);
      },
      "Exception caught.");  // lower-case here, unlike the rest of file audit: the system's own
}

VOID CALLBACK QVFAFilterTimerRoutine(PVOID /*parameter*/, BOOLEAN /*timerFired*/) {
  KLOG_SCOPE();
  ProcessQVFAFilterMethod();
  korva::win::ReleaseUnusedStack();  // the pool's thread may idle, then end, after this
}

namespace korva {

void ArmFilterTimer(const char* function) {
  const std::lock_guard<std::mutex> lock(g_queueMutex);
  if (QVFAFilterTimerQueue == nullptr) {
    KLOG_WARNING_AS(function) << "There is no filter timer queue; the next pass is not armed.";
    return;
  }
  if (!RearmOneShotTimer(QVFAFilterTimerQueue, QVFAFilterTimer, QVFAFilterTimerRoutine, FilterTimerDueMs())) {
    LogLastError(function, "CreateTimerQueueTimer for QVFAFilterTimer failed due to following error.");
    return;
  }
  ++g_armings;
}

void StartFilterCycle(const char* function) {
  {
    const std::lock_guard<std::mutex> lock(g_queueMutex);
    // Decided under the lock the stop's deletion takes too: once a stop or shutdown has begun, no
    // queue is made that the stop would not delete.
    if (ServiceIsEnding()) {
      KLOG_INFO_AS(function) << "The service is stopping; the filter cycle is not started.";
      return;
    }
    if (QVFAFilterTimerQueue == nullptr) {
      QVFAFilterTimerQueue = CreateTimerQueue();
      if (QVFAFilterTimerQueue == nullptr) {
        LogLastError(function, "CreateTimerQueue for QVFAFilterTimerQueue is failed due to following error.");
        return;
      }
      KLOG_INFO_AS(function) << "QVFAFilterTimerQueue is created successfully.";
    }
  }
  ArmFilterTimer(function);
}

void StopFilterCycle(const char* function) {
  // Outside the lock: a pass that is running may be waiting for it to arm the next one. Called
  // also when no queue was ever made (the deletion of none fails), so a service without the filter
  // logs this failure at every stop: deliberate, as the system does.
  if (!DeleteTimerQueue(TakeQueue())) {
    LogLastError(function, "DeleteTimerQueue for QVFAFilterTimerQueue is failed due to following error.");
  }
}

DWORD FilterTimerDueMs() { return g_dueMs.load(); }

void SetFilterTimerDueMsForTest(DWORD dueMs) { g_dueMs.store(dueMs != 0 ? dueMs : kFilterTimerDueMs); }

unsigned FilterTimerArmingsForTest() { return g_armings.load(); }

void DeleteFilterTimerQueueForTest() {
  if (const HANDLE queue = TakeQueue(); queue != nullptr) DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE);
}

}  // namespace korva
