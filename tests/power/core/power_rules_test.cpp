// Time arithmetic, history lines, paths and user-hive names of the power tracking.
#include "power/core/power_rules.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using korva::power::BootTimeSeconds;
using korva::power::HistoryLine;
using korva::power::IsUserHiveName;
using korva::power::PowerEvent;

TEST(PowerRules, BootTimeIsNowMinusWholeSecondsOfUptime) {
  EXPECT_EQ(BootTimeSeconds(1700000000, 999), 1700000000u);
  EXPECT_EQ(BootTimeSeconds(1700000000, 599999), 1699999401u);
  EXPECT_EQ(BootTimeSeconds(1700000000, 86400000ull * 400), 1700000000u - 86400u * 400);  // past 49.7 days
  EXPECT_EQ(BootTimeSeconds(10, 11000), 0u);  // an uptime longer than the clock never wraps around
}

TEST(PowerRules, HistoryLinesCarryTheCalendarTime) {
  EXPECT_EQ(HistoryLine(PowerEvent::kShutdown, 1709294400), "2024-03-01 12:00:00 UTC\tShutdown\t1709294400\r\n");
  EXPECT_EQ(HistoryLine(PowerEvent::kServiceStop, 951868799), "2000-02-29 23:59:59 UTC\tServiceStop\t951868799\r\n");
  EXPECT_EQ(HistoryLine(PowerEvent::kForcedShutdown, 4107542400),  // 2100 has no Feb 29
            "2100-03-01 00:00:00 UTC\tForcedShutdown\t4107542400\r\n");
}

TEST(PowerRules, OnlyUserAccountSidsAreUserHives) {
  const std::pair<const wchar_t*, bool> cases[] = {
      {L"S-1-5-21-3623811015-3361044348-30300820-1013", true}, {L"S-1-5-21-0-0-0-1000_Classes", false},
      {L".DEFAULT", false}, {L"S-1-5-18", false}, {L"S-1-5-21-1-2-", false}, {L"S-1-5-210-1", false},
      {L"S-1-12-1-1234567890-1234567890-1234567890-1234567890", true}, {L"S-1-12-1-1-2_Classes", false},
      {L"S-1-12-2-1-2", false}, {L"S-1-12-1-", false},
  };
  for (const auto& [name, user] : cases) EXPECT_EQ(IsUserHiveName(name), user) << std::wstring(name).size();
}

}  // namespace
