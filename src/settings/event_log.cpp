// Entries in the Windows event log.
#include "settings/event_log.h"

#include "settings/log.h"
#include "win/unique_handle.h"

void WriteEventLogEntry(const char* sourceName, DWORD eventId, WORD type, const char* message) {
  korva::log::ScopedGuardedVoid(__func__, [&] {
    const korva::win::UniqueEventSource source(RegisterEventSourceA(nullptr, sourceName));
    if (!source) return;
    const char* strings[2] = {sourceName, message};
    ReportEventA(source.get(), type, 0, eventId, nullptr, 2, 0, strings, nullptr);
  });
}
