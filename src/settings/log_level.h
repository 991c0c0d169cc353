// The log's maximum severity, read once at start from the agent's LogLevel registry key.
#pragma once

#include <windows.h>

// Reads the DWORD `valueName` of HKLM "SOFTWARE\Wow6432Node\Kestrelix\Tallowmere\KorvaAgent\LogLevel"
// into `value` (untouched on failure). Returns 0 or the registry error code; a value that is not a
// REG_DWORD gives ERROR_UNSUPPORTED_TYPE.
[[nodiscard]] LONG ReadDwordRegistryData(const char* valueName, DWORD& value);

namespace korva {

// The component's own value "korva_agentservice", else "LogLevel", else 4 (info). Taken as stored:
// no range check, so 0 silences the log.
[[nodiscard]] int ReadMaximumLogSeverity() noexcept;

}  // namespace korva
