// The file-audit filter cycle: whether the filter is wanted. The attachment timer pass and the
// attach command still only log their entry and exit.
#include "fileaudit/filter_cycle.h"

#include "fileaudit/policy_status.h"
#include "settings/log.h"
#include "settings/registry.h"
#include "shared/core/agent_constants.h"

int CheckQVFAFilterRequirement() {
  return korva::log::ScopedGuarded(
      __func__, 0,
      [] {
        // A missing or unreadable value means file audit has not been stopped.
        DWORD stopped = 0;
        (void)ReadDwordRegValue(korva::kQvmSettingsKey, "IsStopFileAudit", stopped);
        const int required =
            stopped == 1 ? 0 : (CheckDeviceControlPolicyStatus() != 0 || CheckSecureUSBConfigurationStatus() != 0);
        KLOG_INFO_AS("CheckQVFAFilterRequirement") << "isQVFAFilterRequired :" << required;
        return required;
      },
      "Exception Caught.");
}

VOID CALLBACK QVFAFilterTimerRoutine(PVOID /*parameter*/, BOOLEAN /*timerFired*/) { KLOG_SCOPE(); }

void AttachFilterToDrive(const std::wstring& /*drive*/) { KLOG_SCOPE(); }
