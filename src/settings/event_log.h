// Entries in the Windows event log.
#pragma once

#include <windows.h>

#include <string_view>

// Reports `message` under `sourceName` (two insertion strings: the source, then the message).
// Failures are silent: the event log is a courtesy, never a reason to stop.
void WriteEventLogEntry(const char* sourceName, DWORD eventId, WORD type, const char* message);

// Keeps `records` (UTF-8 lines of the service log that its file never took) in the event log under
// `sourceName`: as few entries as its string limit allows, each saying which part it is, a bounded
// number of them, the last one counting what did not fit. Nothing when `records` is empty.
void WriteUnwrittenRecordsToEventLog(const char* sourceName, DWORD eventId, std::string_view records);
