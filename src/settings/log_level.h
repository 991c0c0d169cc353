// The log's maximum severity, read once at start from the agent's LogLevel registry key.
#pragma once

#include <windows.h>

// Reads the DWORD `valueName` of HKLM "SOFTWARE\Wow6432Node\Kestrelix\Tallowmere\KorvaAgent\LogLevel"
// into `value` (untouched on failure). Returns 0 or the registry error code; a value that is not a
// REG_DWORD gives ERROR_UNSUPPORTED_TYPE.
[[nodiscard]] LONG ReadDwordRegistryData(const char* valueName, DWORD& value);

namespace korva {

// The log's maximum severity as read at start, and how each of its reads went.
struct LogLevelReading {
  int severity = 4;
  LONG componentRead = ERROR_FILE_NOT_FOUND;  // the value "korva_agentservice"
  LONG sharedRead = ERROR_FILE_NOT_FOUND;     // the value "LogLevel", read only when the first fails
};

// The component's own value "korva_agentservice", else "LogLevel", else 4 (info). Taken as stored:
// no range check, so 0 silences the log.
[[nodiscard]] LogLevelReading ReadLogLevel() noexcept;

// The level is read before the log exists, so the lines of a read that failed were never written:
// once the log is open, each value that is there but could not be used (a wrong type or size, a
// key that cannot be opened) gets one line saying so and which level is in force.
void ReportUnusableLogLevelValues(const LogLevelReading& reading);

}  // namespace korva
