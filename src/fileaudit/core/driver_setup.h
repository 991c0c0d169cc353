// Command lines of the filter driver's setup program, and the Windows release folder that picks
// its INF file.
#pragma once

#include <string>
#include <string_view>

namespace korva::fileaudit {

// Requests understood by DriverServiceExecution.
enum DriverRequest : int { kDriverStart = 1, kDriverStop = 2, kDriverInstall = 3, kDriverUninstall = 4 };

struct ReleaseFolder {
  bool supported = false;
  std::string folder;   // "Win7", "Win8", "Win8.1", "Win10"; empty when not supported
  std::string message;  // the info line that names the release ("Detected as Windows 8_1." ...)
};
// OS family 3..7 to the driver package's release folder. 6 and 7 share "Win10" on purpose, and the
// 8.1 message spells the release "8_1" while its folder is "Win8.1": both kept as they stand.
ReleaseFolder ReleaseFolderForFamily(int osFamily);

// "driversetup64.exe" on a 64-bit machine, else "driversetup32.exe".
const char* SetupProgram(bool is64Bit) noexcept;
// "\"<bin>\driversetup64.exe\" " (or driversetup32.exe), ending in a blank.
std::string SetupCommandPrefix(std::string_view binFolder, bool is64Bit);
// "\"<bin>\driver\x64\<release>\QVFAFilter.inf\"" (x86 on a 32-bit machine).
std::string InfPath(std::string_view binFolder, bool is64Bit, std::string_view releaseFolder);
// The prefix and the request's option ("-start", "-stop", "-install", "-uninstall"); install and
// uninstall add a blank and the INF path. Any other request leaves the prefix alone.
std::string RequestCommand(std::string_view prefix, int request, std::string_view infPath);
// The install run before a start of an absent driver: prefix, blank, "-install", blank, INF path
// (the prefix already ends in a blank, so two blanks precede the option; kept so).
std::string InstallCommand(std::string_view prefix, std::string_view infPath);

}  // namespace korva::fileaudit
