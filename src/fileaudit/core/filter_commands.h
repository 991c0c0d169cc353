// Command lines of the file-audit filter's control program and of the file-shadow program, and
// what their exit codes mean.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korva::fileaudit {

inline constexpr char kAttachProgram[] = "korvaFaService.exe";
inline constexpr char kFileShadowProgram[] = "korvaFileShadow.exe";

// "<installation directory>\bin": the installation directory already ends in a backslash, so
// this folder holds a doubled one; Windows reads it as a single separator.
std::string BinFolder(std::string_view installationDirectory);
// The drive as these programs want it: doubled backslashes first collapsed, then every backslash
// doubled, so "E:\" and "E:\\" both give "E:\\" (a lone "\" before the closing quote would
// escape it). The doubling is deliberate: the command line keeps the bytes it has always carried.
std::string DoubledBackslashes(std::string_view drive);
// The drive argument as these programs read it back: DoubledBackslashes, except that the last run
// of backslashes is read halved, as the closing quote halves it ("E:\" reads as "E:\",
// "F:\mnt\" as "F:\\mnt\"). Quoting it by the C runtime's rules gives the doubled drive between
// quotes again, byte for byte, whatever the drive holds.
std::string DriveArgument(std::string_view drive);
// "\"<bin>\korvaFaService.exe\" -attach \"<drive, doubled>\"". Nothing for a drive holding a NUL.
std::optional<std::string> AttachCommandLine(std::string_view binFolder, std::string_view drive);
// "\"<bin>\korvaFileShadow.exe\" \"<drive, doubled>\"". Nothing for a drive holding a NUL.
std::optional<std::string> FileShadowCommandLine(std::string_view binFolder, std::string_view drive);
// The attach exit codes that mean the filter was started on the drive now: 0, 1508, 1641, 3010.
bool IsAttachStarted(unsigned long exitCode) noexcept;

}  // namespace korva::fileaudit
