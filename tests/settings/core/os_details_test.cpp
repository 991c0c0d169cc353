// OS family and name from version numbers, epoch seconds of calendar times, address texts.
#include "settings/core/os_details.h"

#include <gtest/gtest.h>

namespace od = korva::osdetails;

namespace {

TEST(OsDetails, FamilyFromVersion) {
  struct Case { std::uint32_t major, minor, build; int family; };
  const Case cases[] = {
      {5, 0, 2195, 1},  {5, 1, 2600, 1},  {5, 2, 3790, 1},  {6, 0, 6002, 2},   {6, 1, 7601, 3},
      {6, 2, 9200, 4},  {6, 3, 9600, 5},  {10, 0, 10240, 6}, {10, 0, 19045, 6}, {10, 0, 21999, 6},
      {10, 0, 22000, 7}, {10, 0, 26100, 7}, {11, 0, 0, 7},   {4, 0, 1381, 0},   {0, 0, 0, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(od::OsFamily({c.major, c.minor, c.build, 1}), c.family) << c.major << "." << c.minor << "." << c.build;
    // A server edition belongs to its client twin's family.
    EXPECT_EQ(od::OsFamily({c.major, c.minor, c.build, 3}), c.family) << c.major << "." << c.minor << "." << c.build;
  }
}

TEST(OsDetails, NameFromVersionAndProductType) {
  struct Case { std::uint32_t major, minor, build; std::uint8_t type; const char* name; };
  const Case cases[] = {
      {10, 0, 19045, 1, "Windows 10"},          {10, 0, 22631, 1, "Windows 11"},
      {10, 0, 14393, 3, "Windows Server 2016"}, {10, 0, 17763, 3, "Windows Server 2019"},
      {10, 0, 20348, 2, "Windows Server 2022"}, {10, 0, 26100, 3, "Windows Server 2025"},
      {6, 3, 9600, 1, "Windows 8.1"},           {6, 3, 9600, 3, "Windows Server 2012 R2"},
      {6, 2, 9200, 1, "Windows 8"},             {6, 1, 7601, 1, "Windows 7"},
      {6, 1, 7601, 3, "Windows Server 2008 R2"}, {6, 0, 6002, 1, "Windows Vista"},
      {5, 2, 3790, 3, "Windows Server 2003"},   {5, 1, 2600, 1, "Windows XP"},
      {12, 3, 1, 1, "Windows 12.3"},            {6, 4, 9841, 1, "Windows 6.4"},
  };
  for (const Case& c : cases) EXPECT_EQ(od::OsName({c.major, c.minor, c.build, c.type}), c.name) << c.name;
}

TEST(OsDetails, SecondsSinceEpochOfCalendarTimes) {
  struct Case { od::CalendarTime time; long long seconds; };
  const Case cases[] = {
      {{1970, 1, 1, 0, 0, 0}, 0},
      {{1970, 1, 1, 0, 0, 1}, 1},
      {{1969, 12, 31, 23, 59, 59}, -1},
      {{2000, 1, 1, 0, 0, 0}, 946684800},
      {{2000, 2, 29, 12, 0, 0}, 951825600},
      {{2024, 2, 29, 0, 0, 0}, 1709164800},
      {{2024, 12, 31, 23, 59, 59}, 1735689599},
      {{2038, 1, 19, 3, 14, 8}, 2147483648LL},
      {{2106, 2, 7, 6, 28, 16}, 4294967296LL},
      {{1601, 1, 1, 0, 0, 0}, -11644473600LL},
      {{30827, 12, 31, 23, 59, 59}, 910670515199LL},
  };
  for (const Case& c : cases) {
    const auto seconds = od::SecondsSinceEpoch(c.time);
    ASSERT_TRUE(seconds.has_value()) << c.time.year << "-" << c.time.month << "-" << c.time.day;
    EXPECT_EQ(*seconds, c.seconds) << c.time.year << "-" << c.time.month << "-" << c.time.day;
  }
}

TEST(OsDetails, OutOfRangeCalendarFieldsGiveNothing) {
  const od::CalendarTime bad[] = {
      {2023, 2, 29, 0, 0, 0}, {1900, 2, 29, 0, 0, 0}, {2024, 4, 31, 0, 0, 0}, {2024, 0, 1, 0, 0, 0},
      {2024, 13, 1, 0, 0, 0}, {2024, 1, 0, 0, 0, 0},  {2024, 1, 1, 24, 0, 0}, {2024, 1, 1, 0, 60, 0},
      {2024, 1, 1, 0, 0, 60}, {1600, 12, 31, 0, 0, 0}, {30828, 1, 1, 0, 0, 0}, {2024, 1, 1, -1, 0, 0},
  };
  for (const od::CalendarTime& t : bad) {
    EXPECT_FALSE(od::SecondsSinceEpoch(t).has_value())
        << t.year << "-" << t.month << "-" << t.day << " " << t.hour << ":" << t.minute << ":" << t.second;
  }
}

TEST(OsDetails, AddressTexts) {
  const unsigned char mac[] = {0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xff};
  EXPECT_EQ(od::FormatMacAddress(mac, sizeof mac), "00-1A-2B-C3-D4-FF");
  EXPECT_EQ(od::FormatMacAddress(mac, 0), "");
  const unsigned char ip[4] = {192, 0, 2, 255};
  EXPECT_EQ(od::FormatIpv4(ip), "192.0.2.255");
  struct Mask { unsigned length; const char* text; };
  const Mask masks[] = {{0, "0.0.0.0"},      {1, "128.0.0.0"},         {8, "255.0.0.0"},
                        {20, "255.255.240.0"}, {24, "255.255.255.0"},   {31, "255.255.255.254"},
                        {32, "255.255.255.255"}};
  for (const Mask& m : masks) EXPECT_EQ(od::Ipv4MaskFromPrefixLength(m.length), m.text) << m.length;
  EXPECT_FALSE(od::Ipv4MaskFromPrefixLength(33).has_value());
}

}  // namespace
