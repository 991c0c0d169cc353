// Command lines of the file-audit filter's control program and of the file-shadow program, and
// what their exit codes mean.
#pragma once

#include <string>
#include <string_view>

namespace korva::fileaudit {

// "<installation directory>\bin": the installation directory already ends in a backslash, so
// this folder holds a doubled one; Windows reads it as a single separator.
std::string BinFolder(std::string_view installationDirectory);
// The drive as these programs want it: doubled backslashes first collapsed, then every backslash
// doubled, so "E:\" and "E:\\" both give "E:\\" (a lone "\" before the closing quote would
// escape it).
std::string DoubledBackslashes(std::string_view drive);
// "\"<bin>\korvaFaService.exe\" -attach \"<drive, doubled>\"".
std::string AttachCommandLine(std::string_view binFolder, std::string_view drive);
// "\"<bin>\korvaFileShadow.exe\" \"<drive, doubled>\"".
std::string FileShadowCommandLine(std::string_view binFolder, std::string_view drive);
// The attach exit codes that mean the filter was started on the drive now: 0, 1508, 1641, 3010.
bool IsAttachStarted(unsigned long exitCode) noexcept;

}  // namespace korva::fileaudit
