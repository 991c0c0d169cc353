// Entries in the Windows event log.
#include "settings/event_log.h"

#include <string>

#include "settings/core/log_format.h"
#include "settings/log.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

// An entry's insertion string may hold 31,839 characters; a piece of the records stays well below
// it with its heading. Eight pieces keep far more than the few lines a switch run writes, without
// flooding the event log with a held file's megabytes.
constexpr std::size_t kPieceBytes = 30000;
constexpr std::size_t kMaxPieces = 8;

}  // namespace

void WriteEventLogEntry(const char* sourceName, DWORD eventId, WORD type, const char* message) {
  korva::log::ScopedGuardedVoid(__func__, [&] {
    const korva::win::UniqueEventSource source(RegisterEventSourceA(nullptr, sourceName));
    if (!source) return;
    const char* strings[2] = {sourceName, message};
    ReportEventA(source.get(), type, 0, eventId, nullptr, 2, 0, strings, nullptr);
  });
}

void WriteUnwrittenRecordsToEventLog(const char* sourceName, DWORD eventId, std::string_view records) {
  if (records.empty()) return;
  korva::log::ScopedGuardedVoid(__func__, [&] {
    const std::wstring source = korva::win::Utf8ToWide(sourceName);
    const korva::win::UniqueEventSource eventSource(RegisterEventSourceW(nullptr, source.c_str()));
    if (!eventSource) return;
    const korva::logformat::RecordPieces split = korva::logformat::SplitRecords(records, kPieceBytes, kMaxPieces);
    const std::size_t count = split.pieces.size();
    for (std::size_t i = 0; i < count; ++i) {
      std::string text = "The service log file did not take these records before the process ended (part " +
                         std::to_string(i + 1) + " of " + std::to_string(count) + "):\r\n" + split.pieces[i];
      if (i + 1 == count && split.leftBytes != 0) {
        text += "\r\n" + std::to_string(split.leftBytes) + " more bytes of records are not kept.";
      }
      const std::wstring message = korva::win::Utf8ToWide(text);
      const wchar_t* strings[2] = {source.c_str(), message.c_str()};
      ReportEventW(eventSource.get(), EVENTLOG_WARNING_TYPE, 0, eventId, nullptr, 2, 0, strings, nullptr);
    }
  });
}
