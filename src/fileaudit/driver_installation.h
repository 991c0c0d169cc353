// Filter driver installation: the setup program's start, stop, install and uninstall requests,
// and the driver's user-mode companion program.
#pragma once

#include <string>

#include "fileaudit/core/driver_setup.h"  // korva::fileaudit::DriverRequest

// The filter driver's service.
inline constexpr wchar_t kFileAuditFilterService[] = L"QVFAFilter";

// 1 with `folder` set to the driver package's release folder for this Windows, 0 (folder empty)
// when the OS family is not supported.
[[nodiscard]] int GetOSBasedDriverPath(std::string& folder);
// Runs the setup program with a korva::fileaudit::DriverRequest (kDriverStart, installing first
// when the driver service is absent; kDriverStop; kDriverInstall; kDriverUninstall), its output
// captured into the log.
void DriverServiceExecution(int request);
// Starts "korvaFaUser.exe" from the bin folder, without arguments.
void StartDriverUserApplication();

namespace korva {
// Test seam: where the OS family comes from (null: GetOsFamily again).
void SetOsFamilySourceForTest(int (*source)());
}  // namespace korva
