// Entries in the Windows event log.
#pragma once

#include <windows.h>

// Reports `message` under `sourceName` (two insertion strings: the source, then the message).
// Failures are silent: the event log is a courtesy, never a reason to stop.
void WriteEventLogEntry(const char* sourceName, DWORD eventId, WORD type, const char* message);
