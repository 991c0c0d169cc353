// Command lines of the filter driver's setup program.
#include "fileaudit/core/driver_setup.h"

namespace korva::fileaudit {

ReleaseFolder ReleaseFolderForFamily(int osFamily) {
  switch (osFamily) {
    case 3:
      return {true, "Win7", "Detected as Windows 7."};
    case 4:
      return {true, "Win8", "Detected as Windows 8."};
    case 5:
      return {true, "Win8.1", "Detected as Windows 8_1."};
    case 6:
      return {true, "Win10", "Detected as Windows 10."};
    case 7:
      return {true, "Win10", "Detected as Windows 10 or Latest."};
    default:
      return {};
  }
}

const char* SetupProgram(bool is64Bit) noexcept { return is64Bit ? "driversetup64.exe" : "driversetup32.exe"; }

std::string SetupCommandPrefix(std::string_view binFolder, bool is64Bit) {
  return "\"" + std::string(binFolder) + "\\" + SetupProgram(is64Bit) + "\" ";
}

std::string InfPath(std::string_view binFolder, bool is64Bit, std::string_view releaseFolder) {
  return "\"" + std::string(binFolder) + "\\driver\\" + (is64Bit ? "x64" : "x86") + "\\" + std::string(releaseFolder) +
         "\\QVFAFilter.inf\"";
}

std::string RequestCommand(std::string_view prefix, int request, std::string_view infPath) {
  std::string command(prefix);
  switch (request) {
    case kDriverStart:
      return command + "-start";
    case kDriverStop:
      return command + "-stop";
    case kDriverInstall:
      return command + "-install " + std::string(infPath);
    case kDriverUninstall:
      return command + "-uninstall " + std::string(infPath);
    default:
      return command;
  }
}

std::string InstallCommand(std::string_view prefix, std::string_view infPath) {
  return std::string(prefix) + " -install " + std::string(infPath);
}

}  // namespace korva::fileaudit
