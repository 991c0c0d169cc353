// OS family and name from version numbers, epoch seconds of calendar times, address texts.
#include "settings/core/os_details.h"

#include <gtest/gtest.h>

#include <utility>

namespace od = korva::osdetails;

namespace {

TEST(OsDetails, FamilyAndNameFromVersionAndProductType) {
  struct Case {
    od::OsVersion version;
    int family;
    const char* name;
  };
  const Case cases[] = {{{5, 1, 2600, 1}, 1, "Windows XP"},
                        {{6, 0, 6002, 1}, 2, "Windows Vista"},
                        {{6, 1, 7601, 3}, 3, "Windows Server 2008 R2"},
                        {{6, 2, 9200, 1}, 4, "Windows 8"},
                        {{6, 3, 9600, 3}, 5, "Windows Server 2012 R2"},
                        {{10, 0, 21999, 1}, 6, "Windows 10"},
                        {{10, 0, 22000, 1}, 7, "Windows 11"},
                        {{10, 0, 20348, 2}, 6, "Windows Server 2022"},
                        {{10, 0, 26100, 3}, 7, "Windows Server 2025"},
                        {{12, 3, 1, 1}, 7, "Windows 12.3"},
                        {{4, 0, 1381, 1}, 0, "Windows 4.0"}};
  for (const Case& c : cases) {
    EXPECT_EQ(od::OsFamily(c.version), c.family) << c.name;
    EXPECT_EQ(od::OsName(c.version), c.name);
  }
}

TEST(OsDetails, SecondsSinceEpochOfCalendarTimesAndNothingOutOfRange) {
  const std::pair<od::CalendarTime, long long> cases[] = {
      {{1969, 12, 31, 23, 59, 59}, -1},         {{2000, 2, 29, 12, 0, 0}, 951825600},
      {{2024, 12, 31, 23, 59, 59}, 1735689599}, {{2106, 2, 7, 6, 28, 16}, 4294967296LL},
      {{1601, 1, 1, 0, 0, 0}, -11644473600LL},  {{30827, 12, 31, 23, 59, 59}, 910670515199LL},
  };
  for (const auto& [time, seconds] : cases) EXPECT_EQ(od::SecondsSinceEpoch(time), seconds) << time.year;
  const od::CalendarTime bad[] = {{2023, 2, 29, 0, 0, 0},  {1900, 2, 29, 0, 0, 0}, {2024, 4, 31, 0, 0, 0},
                                  {2024, 13, 1, 0, 0, 0},  {2024, 1, 1, 24, 0, 0}, {2024, 1, 1, 0, 0, 60},
                                  {1600, 12, 31, 0, 0, 0}, {30828, 1, 1, 0, 0, 0}, {2024, 1, 1, -1, 0, 0}};
  for (const od::CalendarTime& t : bad) EXPECT_FALSE(od::SecondsSinceEpoch(t).has_value()) << t.year << "-" << t.month;
}

TEST(OsDetails, AddressTexts) {
  const unsigned char mac[] = {0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xff};
  EXPECT_EQ(od::FormatMacAddress(mac, sizeof mac), "00-1A-2B-C3-D4-FF");
  const unsigned char ip[4] = {192, 0, 2, 255};
  EXPECT_EQ(od::FormatIpv4(ip), "192.0.2.255");
  EXPECT_EQ(od::Ipv4MaskFromPrefixLength(0), "0.0.0.0");
  EXPECT_EQ(od::Ipv4MaskFromPrefixLength(20), "255.255.240.0");
  EXPECT_EQ(od::Ipv4MaskFromPrefixLength(32), "255.255.255.255");
  EXPECT_FALSE(od::Ipv4MaskFromPrefixLength(33).has_value());
}

}  // namespace
