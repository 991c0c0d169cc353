// Notification threads (stop, suspend, resume, boot, shutdown) and the configuration program run
// under the service's token; the access log they write is shared/access_log.h.
#pragma once

#include <windows.h>

#include <string>

#include "shared/access_log.h"

// Notification codes handed to InvokeShutdown, each in a static integer whose address the new
// thread receives.
extern int ManualServiceStopCode;   // 1
extern int HibernateOrStandbyCode;  // 2
extern int ResumeCode;              // 3
extern int BootNotificationCode;    // 4
extern int MachineShutdownCode;     // 5

// Thread procedure: the work of one notification; `parameter` points to its code, and a null
// parameter counts as code 0.
DWORD WINAPI InvokeShutdown(LPVOID parameter);
// Runs the configuration program under the service's own token and waits up to 12 hours.
void ExecuteConfiguration();

// The configuration program's arguments, "40 0 1 1" unless a caller set others.
extern char ConfigurationCommandLine[260];

namespace korva {
inline constexpr DWORD kConfigurationTimeLimitMs = 43200000;  // 12 hours
// ExecuteConfiguration with another time limit (tests cannot wait 12 hours).
void ExecuteConfigurationWithin(DWORD timeLimitMs);
// Starts InvokeShutdown with `code` and waits for it at most `waitMs` (0: no wait).
void RunNotificationThread(int* code, DWORD waitMs);
}  // namespace korva
