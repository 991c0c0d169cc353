// Settings-change monitor. For now the thread logs its entry and exit and ends at once;
// UpdateMonitoringVariable reloads the monitoring switch.
#include "devicecontrol/settings_monitor.h"

#include "settings/log.h"
#include "settings/registry.h"
#include "shared/core/agent_constants.h"

std::atomic<LONG> MonitorEncryptedDevice{0};

DWORD WINAPI MonitorSettingsModified(LPVOID /*parameter*/) {
  KLOG_SCOPE();
  return 0;
}

void UpdateMonitoringVariable() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    // A missing or unreadable value turns encrypted-volume monitoring off.
    DWORD value = 0;
    if (ReadDwordRegValue(korva::kQvmSettingsKey, "MonitorEncryptedDevice", value) != ERROR_SUCCESS) value = 0;
    MonitorEncryptedDevice.store(static_cast<LONG>(value));
    KLOG_DEBUG_AS("UpdateMonitoringVariable") << "MonitorEncryptedDevice :" << static_cast<unsigned long>(value);
  });
}
