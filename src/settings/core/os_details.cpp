// Machine and OS facts turned into the agent's values: OS family and name, epoch seconds, address texts.
#include "settings/core/os_details.h"

namespace korva::osdetails {

namespace {

constexpr std::uint8_t kWorkstation = 1;

int Windows6Family(std::uint32_t minor) noexcept {
  switch (minor) {
    case 0:
      return 2;  // Vista, Server 2008
    case 1:
      return 3;  // 7, Server 2008 R2
    case 2:
      return 4;  // 8, Server 2012
    default:
      return 5;  // 8.1, Server 2012 R2
  }
}

const char* Windows10ServerName(std::uint32_t build) noexcept {
  if (build >= 26100) return "Windows Server 2025";
  if (build >= 20348) return "Windows Server 2022";
  if (build >= 17763) return "Windows Server 2019";
  return "Windows Server 2016";
}

const char* KnownName(const OsVersion& v) noexcept {
  const bool client = v.productType == kWorkstation;
  if (v.major == 10 && v.minor == 0) {
    if (!client) return Windows10ServerName(v.build);
    return v.build >= kWindows11FirstBuild ? "Windows 11" : "Windows 10";
  }
  if (v.major == 6) {
    switch (v.minor) {
      case 0:
        return client ? "Windows Vista" : "Windows Server 2008";
      case 1:
        return client ? "Windows 7" : "Windows Server 2008 R2";
      case 2:
        return client ? "Windows 8" : "Windows Server 2012";
      case 3:
        return client ? "Windows 8.1" : "Windows Server 2012 R2";
      default:
        return nullptr;
    }
  }
  if (v.major == 5) {
    switch (v.minor) {
      case 0:
        return "Windows 2000";
      case 1:
        return "Windows XP";
      case 2:
        return client ? "Windows XP" : "Windows Server 2003";
      default:
        return nullptr;
    }
  }
  return nullptr;
}

constexpr bool IsLeapYear(int year) noexcept { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) noexcept {
  static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Days from 1970-01-01 to the given proleptic Gregorian date (month 1-12).
long long DaysFromCivil(long long year, long long month, long long day) noexcept {
  year -= month <= 2 ? 1 : 0;
  const long long era = (year >= 0 ? year : year - 399) / 400;
  const long long yearOfEra = year - era * 400;
  const long long dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const long long dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

char HexDigit(unsigned value) noexcept { return "0123456789ABCDEF"[value & 0xF]; }

}  // namespace

int OsFamily(const OsVersion& v) noexcept {
  if (v.major > 10) return 7;
  if (v.major == 10) return v.build >= kWindows11FirstBuild ? 7 : 6;
  if (v.major == 6) return Windows6Family(v.minor);
  if (v.major == 5) return 1;
  return 0;
}

std::string OsName(const OsVersion& version) {
  if (const char* name = KnownName(version)) return name;
  return "Windows " + std::to_string(version.major) + "." + std::to_string(version.minor);
}

std::optional<long long> SecondsSinceEpoch(const CalendarTime& t) noexcept {
  // The range a system time can hold.
  if (t.year < 1601 || t.year > 30827 || t.month < 1 || t.month > 12) return std::nullopt;
  if (t.day < 1 || t.day > DaysInMonth(t.year, t.month)) return std::nullopt;
  if (t.hour < 0 || t.hour > 23 || t.minute < 0 || t.minute > 59 || t.second < 0 || t.second > 59) {
    return std::nullopt;
  }
  const long long days = DaysFromCivil(t.year, t.month, t.day);
  return days * 86400 + t.hour * 3600LL + t.minute * 60LL + t.second;
}

std::string FormatMacAddress(const unsigned char* bytes, std::size_t length) {
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    if (i != 0) text.push_back('-');
    text.push_back(HexDigit(bytes[i] >> 4));
    text.push_back(HexDigit(bytes[i]));
  }
  return text;
}

std::string FormatIpv4(const unsigned char (&bytes)[4]) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    if (i != 0) text.push_back('.');
    text.append(std::to_string(bytes[i]));
  }
  return text;
}

std::optional<std::string> Ipv4MaskFromPrefixLength(unsigned prefixLength) {
  if (prefixLength > 32) return std::nullopt;
  unsigned char bytes[4] = {};
  for (unsigned bit = 0; bit < prefixLength; ++bit) bytes[bit / 8] |= static_cast<unsigned char>(0x80u >> (bit % 8));
  return FormatIpv4(bytes);
}

}  // namespace korva::osdetails
