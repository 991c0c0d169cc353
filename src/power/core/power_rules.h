// Time arithmetic, history-file text and user-hive selection of the power and shutdown tracking.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace korva::power {

// What a power-history line records.
enum class PowerEvent { kShutdown, kServiceStop, kForcedShutdown };

// The event's word in the history file: "Shutdown", "ServiceStop", "ForcedShutdown".
std::string_view EventWord(PowerEvent event) noexcept;

// FILETIME ticks (100 ns since 1601-01-01 UTC) as whole seconds since 1970-01-01 UTC; 0 for any
// time before 1970. Every stored power time uses this unit.
std::uint64_t UnixSecondsFromFileTime(std::uint64_t fileTimeTicks) noexcept;

// The boot time of the machine in seconds: now minus the uptime, in unsigned arithmetic. An
// uptime longer than the clock's reading (a clock set back) gives 0, never a wrapped value.
std::uint64_t BootTimeSeconds(std::uint64_t nowSeconds, std::uint64_t uptimeMs) noexcept;

// A UTC calendar time.
struct UtcDateTime {
  std::int64_t year;
  int month;  // 1-12
  int day;    // 1-31
  int hour;
  int minute;
  int second;
};
UtcDateTime ToUtcDateTime(std::uint64_t unixSeconds) noexcept;

// One line of the power-history file, CR LF at its end:
// "<YYYY-MM-DD hh:mm:ss> UTC<TAB><event word><TAB><seconds since 1970>".
std::string HistoryLine(PowerEvent event, std::uint64_t unixSeconds);

// "<base>\data" and "<base>\data\powerhistory.log", with one separator after the base whether
// or not it ends in one. An empty base gives empty paths: there is nowhere to write.
std::string DataFolderPath(std::string_view basePath);
std::string HistoryFilePath(std::string_view basePath);

// Whether a subkey name of HKEY_USERS is a loaded user profile: a domain or local account SID
// ("S-1-5-21-" and more dash-separated decimal numbers) or a Microsoft Entra ID account's
// ("S-1-12-1-" and more). Not "<SID>_Classes" (the same user's
// class registrations), not ".DEFAULT" and not the service accounts (S-1-5-18, -19, -20).
bool IsUserHiveName(std::wstring_view name) noexcept;

}  // namespace korva::power
