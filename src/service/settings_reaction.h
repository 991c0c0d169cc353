// The service's reaction to a settled change of the agent's settings, which the settings watcher
// of device control calls, and the reload of the monitoring switches.
#pragma once

#include "devicecontrol/settings_monitor.h"
#include "shared/monitoring_state.h"  // MonitorEncryptedDevice, which UpdateMonitoringVariable writes

// Reloads the monitoring switches (encrypted-volume monitoring) from the registry; monitoring
// turned on checks every removable volume at once.
void UpdateMonitoringVariable();

namespace korva {
// The reaction the service hands the settings watcher (it lives as long as the process): re-reads
// the monitoring and restore switches, starts or stops the file-audit filter as the policies now
// want, processes the temporary-access grants again and re-runs the device summary.
SettingsReaction& ServiceSettingsReaction();
// What the service hands its settings watcher (it lives as long as the process): that reaction,
// and the baseline ServiceMain takes before its start-up reads the settings.
SettingsWatch& ServiceSettingsWatch();
}  // namespace korva
