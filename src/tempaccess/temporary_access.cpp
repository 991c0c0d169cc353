// Temporary device-access grants. For now grant processing logs its entry and exit and reports
// that no grant is in force.
#include "tempaccess/temporary_access.h"

#include <limits>

#include "settings/log.h"

ULONGLONG ProcessandUpdateTemporaryAccess(bool /*reconfigure*/) {
  KLOG_SCOPE();
  return std::numeric_limits<ULONGLONG>::max();
}

VOID CALLBACK TempAccessRevokeTimerRoutine(PVOID /*parameter*/, BOOLEAN /*timerFired*/) { KLOG_SCOPE(); }
