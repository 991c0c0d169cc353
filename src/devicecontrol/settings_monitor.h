// Watching the agent's settings key for changes.
#pragma once

#include <windows.h>

#include "shared/monitoring_state.h"  // MonitorEncryptedDevice, which this monitor writes

// Thread procedure: until the stop event, reacts once to each burst of changes under the QVM
// settings key (waiting for the key to exist first).
DWORD WINAPI MonitorSettingsModified(LPVOID parameter);
// Reloads the monitoring switches (encrypted-volume monitoring) from the registry.
void UpdateMonitoringVariable();
