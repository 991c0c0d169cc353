// Time arithmetic, history-file text and user-hive selection of the power and shutdown tracking.
#include "power/core/power_rules.h"

#include <algorithm>
#include <iterator>

namespace korva::power {

std::string_view EventWord(PowerEvent event) noexcept {
  switch (event) {
    case PowerEvent::kShutdown:
      return "Shutdown";
    case PowerEvent::kServiceStop:
      return "ServiceStop";
    case PowerEvent::kForcedShutdown:
      return "ForcedShutdown";
  }
  return "Unknown";
}

std::uint64_t UnixSecondsFromFileTime(std::uint64_t fileTimeTicks) noexcept {
  // 1601-01-01 to 1970-01-01: 369 years with 89 leap days.
  constexpr std::uint64_t kTicksPerSecond = 10'000'000;
  constexpr std::uint64_t kEpochDifferenceSeconds = 11'644'473'600;
  const std::uint64_t seconds = fileTimeTicks / kTicksPerSecond;
  return seconds < kEpochDifferenceSeconds ? 0 : seconds - kEpochDifferenceSeconds;
}

std::uint64_t BootTimeSeconds(std::uint64_t nowSeconds, std::uint64_t uptimeMs) noexcept {
  const std::uint64_t uptimeSeconds = uptimeMs / 1000;
  return uptimeSeconds > nowSeconds ? 0 : nowSeconds - uptimeSeconds;
}

UtcDateTime ToUtcDateTime(std::uint64_t unixSeconds) noexcept {
  // Days to civil date in the proleptic Gregorian calendar, counting eras of 400 years from
  // 0000-03-01 so that the leap day falls at the end of each counted year.
  const std::uint64_t days = unixSeconds / 86400;
  const std::uint64_t secondOfDay = unixSeconds % 86400;
  const std::uint64_t z = days + 719468;
  const std::uint64_t era = z / 146097;
  const std::uint64_t dayOfEra = z - era * 146097;
  const std::uint64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::uint64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::uint64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
  const int day = static_cast<int>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1);
  const int month = static_cast<int>(monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9);
  const std::int64_t year = static_cast<std::int64_t>(yearOfEra + era * 400) + (month <= 2 ? 1 : 0);
  return UtcDateTime{year,
                     month,
                     day,
                     static_cast<int>(secondOfDay / 3600),
                     static_cast<int>(secondOfDay / 60 % 60),
                     static_cast<int>(secondOfDay % 60)};
}

namespace {
// Decimal digits of `value`, zero-padded on the left to at least `width`.
void AppendPadded(std::string& out, std::uint64_t value, std::size_t width) {
  const std::string digits = std::to_string(value);
  if (digits.size() < width) out.append(width - digits.size(), '0');
  out += digits;
}
}  // namespace

std::string HistoryLine(PowerEvent event, std::uint64_t unixSeconds) {
  const UtcDateTime t = ToUtcDateTime(unixSeconds);
  // "YYYY-MM-DD hh:mm:ss": each field zero-padded, followed by its separator.
  const struct {
    std::int64_t value;
    std::size_t width;
    const char* separator;
  } fields[] = {{t.year, 4, "-"}, {t.month, 2, "-"},  {t.day, 2, " "},
                {t.hour, 2, ":"}, {t.minute, 2, ":"}, {t.second, 2, " UTC\t"}};
  std::string line;
  for (const auto& field : fields) {
    AppendPadded(line, static_cast<std::uint64_t>(field.value), field.width);
    line += field.separator;
  }
  line += EventWord(event);
  line += '\t';
  line += std::to_string(unixSeconds);
  line += "\r\n";
  return line;
}

std::string DataFolderPath(std::string_view basePath) {
  if (basePath.empty()) return {};
  std::string path(basePath);
  if (path.back() != '\\' && path.back() != '/') path += '\\';
  path += "data";
  return path;
}

std::string HistoryFilePath(std::string_view basePath) {
  std::string folder = DataFolderPath(basePath);
  return folder.empty() ? folder : folder + "\\powerhistory.log";
}

bool IsUserHiveName(std::wstring_view name) noexcept {
  // A domain or local account's, or a Microsoft Entra ID (Azure AD) account's.
  constexpr std::wstring_view kUserPrefixes[] = {L"S-1-5-21-", L"S-1-12-1-"};
  const auto* const prefix = std::find_if(std::begin(kUserPrefixes), std::end(kUserPrefixes),
                                          [name](std::wstring_view p) { return name.substr(0, p.size()) == p; });
  if (prefix == std::end(kUserPrefixes)) return false;
  name.remove_prefix(prefix->size());
  // One or more decimal numbers, each separated by a single dash.
  bool inNumber = false;
  for (const wchar_t c : name) {
    if (c >= L'0' && c <= L'9') {
      inNumber = true;
    } else if (c == L'-' && inNumber) {
      inNumber = false;
    } else {
      return false;
    }
  }
  return inNumber;
}

}  // namespace korva::power
