// Watching the agent's settings key for changes.
#pragma once

#include <windows.h>

#include <atomic>

// Non-zero: encrypted-volume monitoring is on (registry "MonitorEncryptedDevice" of QVM\Settings).
extern std::atomic<LONG> MonitorEncryptedDevice;

// Thread procedure: until the stop event, reacts once to each burst of changes under the QVM
// settings key (waiting for the key to exist first).
DWORD WINAPI MonitorSettingsModified(LPVOID parameter);
// Reloads the monitoring switches (encrypted-volume monitoring) from the registry.
void UpdateMonitoringVariable();
