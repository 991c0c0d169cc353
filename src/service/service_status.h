// Installing, removing and reporting the agent service to the service control manager.
#pragma once

#include <windows.h>

#include <atomic>

#include "shared/service_query.h"

// Set by ServiceMain's thread at start-up when the service finds its own start type is not
// automatic; read by the handler thread, which switches the start type back on shutdown (and in
// the manual-refresh branch, which no control reaches).
extern std::atomic<BOOL> RestoreStartTypeFlag;

// Creates the service (or updates it when it exists): own process, automatic start, LocalSystem,
// the quoted path of this executable, description, recovery actions and access rules; then gives
// the agent's folders their access list (korva::SecureAgentFolders).
[[nodiscard]] bool InstallAgentService();
// Stops the service (bounded wait) and deletes it.
[[nodiscard]] bool UnInstallAgentService();
// Applies the service's DACL (see kServiceSecurityDescriptor).
[[nodiscard]] bool UpdateServiceAccess();
// Reports `state` with the controls, checkpoint and wait hint that go with it. Once STOP_PENDING
// or STOPPED has been reported, any other state is refused (false, logged).
[[nodiscard]] bool ChangeServiceStatus(DWORD state);
[[nodiscard]] bool ChangeServiceStartupTypeToAuto(const wchar_t* serviceName);

namespace korva {
// The start-up's UpdateServiceAccess, then UpdateRestoreStartTypeFlag (sets RestoreStartTypeFlag
// when this service's configured start type is not automatic), through one opening of the service.
void UpdateServiceAccessAndStartType();
// Gives the service its recovery actions (restart after a minute, three times; reset after a day)
// when it has others: a package installer may register it without them. Run after RUNNING.
void EnsureRecoveryActions();
// How long UnInstallAgentService waits for the service to stop before deleting it anyway.
inline constexpr DWORD kUninstallStopWaitMs = 30000;
}  // namespace korva
