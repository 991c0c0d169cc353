// Command lines of the file-audit filter's control program and of the file-shadow program.
#include "fileaudit/core/filter_commands.h"

#include "process/core/command_line.h"

namespace korva::fileaudit {

std::string BinFolder(std::string_view installationDirectory) { return std::string(installationDirectory) + "\\bin"; }

std::string DoubledBackslashes(std::string_view drive) {
  std::string single;
  for (std::size_t i = 0; i < drive.size(); ++i) {
    single += drive[i];
    if (drive[i] == '\\' && i + 1 < drive.size() && drive[i + 1] == '\\') ++i;
  }
  std::string doubled;
  for (const char c : single) {
    doubled += c;
    if (c == '\\') doubled += '\\';
  }
  return doubled;
}

std::string DriveArgument(std::string_view drive) {
  std::string argument = DoubledBackslashes(drive);
  std::size_t run = 0;
  while (run < argument.size() && argument[argument.size() - 1 - run] == '\\') ++run;
  argument.resize(argument.size() - run / 2);
  return argument;
}

std::optional<std::string> AttachCommandLine(std::string_view binFolder, std::string_view drive) {
  const std::optional<std::string> quoted = process::QuoteArgument(DriveArgument(drive));
  if (!quoted) return std::nullopt;
  return "\"" + std::string(binFolder) + "\\" + kAttachProgram + "\" -attach " + *quoted;
}

std::optional<std::string> FileShadowCommandLine(std::string_view binFolder, std::string_view drive) {
  const std::optional<std::string> quoted = process::QuoteArgument(DriveArgument(drive));
  if (!quoted) return std::nullopt;
  return "\"" + std::string(binFolder) + "\\" + kFileShadowProgram + "\" " + *quoted;
}

bool IsAttachStarted(unsigned long exitCode) noexcept {
  return exitCode == 0 || exitCode == 1508 || exitCode == 1641 || exitCode == 3010;
}

}  // namespace korva::fileaudit
