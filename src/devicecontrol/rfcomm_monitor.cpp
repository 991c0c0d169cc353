// RFCOMM monitor. For now its thread logs its entry and exit and ends.
#include "devicecontrol/rfcomm_monitor.h"

#include "settings/log.h"

DWORD WINAPI MonitorRFCOMMStatus(LPVOID /*parameter*/) {
  KLOG_SCOPE();
  return 0;
}
