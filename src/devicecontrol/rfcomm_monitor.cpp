// RFCOMM monitor. Placeholder until the monitor lands: logs its entry and exit; the thread ends.
#include "devicecontrol/rfcomm_monitor.h"

#include "settings/log.h"

DWORD WINAPI MonitorRFCOMMStatus(LPVOID /*parameter*/) {
  KLOG_SCOPE();
  return 0;
}
