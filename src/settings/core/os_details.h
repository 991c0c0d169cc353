// Machine and OS facts turned into the agent's values: OS family and name, epoch seconds, address texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace korva::osdetails {

struct OsVersion {
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
  std::uint32_t build = 0;
  // 1 workstation, 2 domain controller, 3 server (the system's product type).
  std::uint8_t productType = 1;
};

// First build number of Windows 11 (and of the family after Windows 10).
inline constexpr std::uint32_t kWindows11FirstBuild = 22000;

// 7 Windows 11, 6 Windows 10, 5 Windows 8.1, 4 Windows 8, 3 Windows 7, 2 Vista, 1 XP/2003, 0 older.
// Server editions share the family of their client twin.
int OsFamily(const OsVersion& version) noexcept;

// "Windows 10", "Windows Server 2019", ...; "Windows <major>.<minor>" for a version it does not know.
std::string OsName(const OsVersion& version);

// A calendar time as the system clock gives it (no time zone).
struct CalendarTime {
  int year = 1970;
  int month = 1;  // 1-12
  int day = 1;    // 1-31
  int hour = 0;
  int minute = 0;
  int second = 0;
};

// Seconds since 1970-01-01 00:00:00 of that calendar time (negative before it); nothing for a
// field out of range (day 31 of a 30-day month included).
std::optional<long long> SecondsSinceEpoch(const CalendarTime& time) noexcept;

// "00-1A-2B-3C-4D-5E": upper-case hex bytes joined by '-'; empty for no bytes.
std::string FormatMacAddress(const unsigned char* bytes, std::size_t length);
// "192.168.1.20" from the four address bytes in network order.
std::string FormatIpv4(const unsigned char (&bytes)[4]);
// "255.255.255.0" for 24; nothing for a length above 32.
std::optional<std::string> Ipv4MaskFromPrefixLength(unsigned prefixLength);

}  // namespace korva::osdetails
