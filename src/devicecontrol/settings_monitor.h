// Watching the agent's settings key for changes.
#pragma once

#include <windows.h>

#include <atomic>

// Non-zero: encrypted-volume monitoring is on (registry "MonitorEncryptedDevice" of QVM\Settings).
extern std::atomic<LONG> MonitorEncryptedDevice;

// Thread procedure: reacts to changes of the agent's settings for the service's lifetime.
DWORD WINAPI MonitorSettingsModified(LPVOID parameter);
// Reloads the monitoring switches (encrypted-volume monitoring) from the registry.
void UpdateMonitoringVariable();
