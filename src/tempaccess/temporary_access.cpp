// Temporary device-access grants. Placeholder until grant processing lands: it logs its entry and
// exit and reports that no grant is in force.
#include "tempaccess/temporary_access.h"

#include <limits>

#include "settings/log.h"

ULONGLONG ProcessandUpdateTemporaryAccess(bool /*reconfigure*/) {
  KLOG_SCOPE();
  return std::numeric_limits<ULONGLONG>::max();
}

VOID CALLBACK TempAccessRevokeTimerRoutine(PVOID /*parameter*/, BOOLEAN /*timerFired*/) { KLOG_SCOPE(); }
