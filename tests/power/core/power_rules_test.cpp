// Time arithmetic, history lines, paths and user-hive names of the power tracking.
#include "power/core/power_rules.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using korva::power::BootTimeSeconds;
using korva::power::PowerEvent;

TEST(PowerRules, FileTimeTicksBecomeSecondsSince1970) {
  struct Case {
    std::uint64_t ticks;
    std::uint64_t seconds;
  };
  const Case cases[] = {
      {116444736000000000ull, 0},  // 1970-01-01 00:00:00
      {116444736009999999ull, 0},  // still within the first second
      {116444736010000000ull, 1},
      {133538112000000000ull, 1709337600},  // 2024-03-02 00:00:00
      {116444735990000000ull, 0},           // 1969: before the epoch
      {0, 0},
      {0xFFFFFFFFFFFFFFFFull, 1844674407370ull - 11644473600ull},
  };
  for (const Case& c : cases) EXPECT_EQ(korva::power::UnixSecondsFromFileTime(c.ticks), c.seconds) << c.ticks;
}

TEST(PowerRules, BootTimeIsNowMinusWholeSecondsOfUptime) {
  EXPECT_EQ(BootTimeSeconds(1700000000, 0), 1700000000u);
  EXPECT_EQ(BootTimeSeconds(1700000000, 999), 1700000000u);
  EXPECT_EQ(BootTimeSeconds(1700000000, 1000), 1699999999u);
  EXPECT_EQ(BootTimeSeconds(1700000000, 599999), 1699999401u);
  // A 49.7-day tick count and a longer 64-bit one.
  EXPECT_EQ(BootTimeSeconds(1700000000, 0xFFFFFFFFull), 1700000000u - 4294967u);
  EXPECT_EQ(BootTimeSeconds(1700000000, 86400000ull * 400), 1700000000u - 86400u * 400);
  // An uptime longer than the clock can account for never wraps around.
  EXPECT_EQ(BootTimeSeconds(10, 11000), 0u);
  EXPECT_EQ(BootTimeSeconds(10, 10000), 0u);
  EXPECT_EQ(BootTimeSeconds(0, 0xFFFFFFFFFFFFFFFFull), 0u);
}

TEST(PowerRules, CalendarTimeOfKnownInstants) {
  struct Case {
    std::uint64_t seconds;
    std::int64_t year;
    int month, day, hour, minute, second;
  };
  const Case cases[] = {
      {0, 1970, 1, 1, 0, 0, 0},
      {951782400, 2000, 2, 29, 0, 0, 0},  // leap day of a century leap year
      {951868799, 2000, 2, 29, 23, 59, 59},
      {951868800, 2000, 3, 1, 0, 0, 0},
      {1709251199, 2024, 2, 29, 23, 59, 59},
      {1735689599, 2024, 12, 31, 23, 59, 59},
      {1735689600, 2025, 1, 1, 0, 0, 0},
      {4107542400, 2100, 3, 1, 0, 0, 0},  // 2100 is not a leap year: Feb 28 is followed by Mar 1
      {4107456000, 2100, 2, 28, 0, 0, 0},
      {2147483648, 2038, 1, 19, 3, 14, 8},  // past the 32-bit signed limit
  };
  for (const Case& c : cases) {
    const korva::power::UtcDateTime t = korva::power::ToUtcDateTime(c.seconds);
    EXPECT_EQ(t.year, c.year) << c.seconds;
    EXPECT_EQ(t.month, c.month) << c.seconds;
    EXPECT_EQ(t.day, c.day) << c.seconds;
    EXPECT_EQ(t.hour, c.hour) << c.seconds;
    EXPECT_EQ(t.minute, c.minute) << c.seconds;
    EXPECT_EQ(t.second, c.second) << c.seconds;
  }
}

TEST(PowerRules, HistoryLinesNameTheEventAndTheTimeBothWays) {
  EXPECT_EQ(korva::power::HistoryLine(PowerEvent::kShutdown, 1709294400),
            "2024-03-01 12:00:00 UTC\tShutdown\t1709294400\n");
  EXPECT_EQ(korva::power::HistoryLine(PowerEvent::kServiceStop, 5), "1970-01-01 00:00:05 UTC\tServiceStop\t5\n");
  EXPECT_EQ(korva::power::HistoryLine(PowerEvent::kForcedShutdown, 1735689599),
            "2024-12-31 23:59:59 UTC\tForcedShutdown\t1735689599\n");
}

TEST(PowerRules, HistoryPathsUnderTheBaseFolder) {
  EXPECT_EQ(korva::power::HistoryFilePath("C:\\ProgramData\\Korva"), "C:\\ProgramData\\Korva\\data\\powerhistory.log");
  EXPECT_EQ(korva::power::HistoryFilePath("C:\\ProgramData\\Korva\\"),
            "C:\\ProgramData\\Korva\\data\\powerhistory.log");
  EXPECT_EQ(korva::power::DataFolderPath("D:\\k"), "D:\\k\\data");
  EXPECT_EQ(korva::power::DataFolderPath(""), "");
  EXPECT_EQ(korva::power::HistoryFilePath(""), "");
}

TEST(PowerRules, OnlyUserAccountSidsAreUserHives) {
  struct Case {
    const wchar_t* name;
    bool user;
  };
  const Case cases[] = {
      {L"S-1-5-21-0-0-0-1000", true},  // Wine's user
      {L"S-1-5-21-3623811015-3361044348-30300820-1013", true},
      {L"S-1-5-21-3623811015-3361044348-30300820-1013_Classes", false},
      {L"S-1-5-21-0-0-0-1000_Classes", false},
      {L".DEFAULT", false},
      {L".Default", false},
      {L"S-1-5-18", false},
      {L"S-1-5-19", false},
      {L"S-1-5-20", false},
      {L"S-1-5-21-", false},
      {L"S-1-5-21", false},
      {L"S-1-5-21-1--2", false},
      {L"S-1-5-21-1-2-", false},
      {L"s-1-5-21-1-2-3-4", false},
      {L"S-1-5-210-1", false},
      {L"S-1-5-21-1", true},
      {L"", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(korva::power::IsUserHiveName(c.name), c.user) << std::wstring(c.name).size();
  }
}

TEST(PowerRules, EventWords) {
  EXPECT_EQ(korva::power::EventWord(PowerEvent::kShutdown), "Shutdown");
  EXPECT_EQ(korva::power::EventWord(PowerEvent::kServiceStop), "ServiceStop");
  EXPECT_EQ(korva::power::EventWord(PowerEvent::kForcedShutdown), "ForcedShutdown");
}

}  // namespace
