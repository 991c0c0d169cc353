// The access log: one row per notification the service receives, written by the service host and
// by device control's restore timer.
#pragma once

#include <string>

// Appends one row for `name` to the access log (header first into a new file; the "logs" folder
// made, for SYSTEM and Administrators only, when it is missing). Rows the file cannot take (another
// program holds it) wait, logged once, and go in before the next row that can be written.
void PrintAgentServiceAccessLog(const std::string& name);

namespace korva {
// The access log file of this agent: under BasePath for a sub-product agent that has a usable one,
// else under the installation folder; empty when that is not a folder of the agent's own either.
std::string AccessLogFilePath();
bool CheckFileExists(const std::string& path);
// Gives rows still waiting for the access log a last chance before the process ends: tried every
// 100 ms for up to `waitMs`; how many are lost is logged. True when none waits any more.
bool FlushAccessLog(unsigned long waitMs) noexcept;
}  // namespace korva
