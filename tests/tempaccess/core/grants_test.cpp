// Grant records and the decision whether each is over; the revoke timer's due time.
#include <gtest/gtest.h>

#include <limits>

#include "tempaccess/core/grants.h"

namespace ta = korva::tempaccess;

namespace {

constexpr long long kMax = std::numeric_limits<long long>::max();

ta::GrantList Parse(const char* json) {
  rapidjson::Document document;
  document.Parse(json);
  return ta::ReadGrants(document);
}

TEST(Grants, MembersReadAsIntegersAndTheOthersAreNamed) {
  const ta::GrantList list = Parse(
      R"([{"ta_id":-5,"policy_name":"usb","expiry_time":9223372036854775807,"duration_type":1,"revoked":0,)"
      R"("duration_from":10,"duration_to":20}, 3, {"ta_id":18446744073709551615,"policy_name":7,"revoked":"1",)"
      R"("expiry_time":1.5}])");
  ASSERT_EQ(list.grants.size(), 2u);
  EXPECT_EQ(list.skipped, 1u);
  const ta::Grant& whole = list.grants[0];
  EXPECT_EQ(whole.id, -5);
  EXPECT_EQ(whole.policyName, "usb");
  EXPECT_EQ(whole.expiryTime, kMax);
  EXPECT_TRUE(ta::PeriodFromRegistry(whole));
  EXPECT_EQ(whole.durationTo, 20);
  EXPECT_TRUE(whole.problems.empty());
  const ta::Grant& wrong = list.grants[1];  // too big, wrong types, absent: all read as 0
  EXPECT_EQ(wrong.id, 0);
  EXPECT_EQ(wrong.revoked, 0);
  EXPECT_EQ(wrong.problems, (std::vector<std::string>{"ta_id", "policy_name", "expiry_time", "duration_type",
                                                       "revoked", "duration_from", "duration_to"}));
  EXPECT_TRUE(Parse(R"({"ta_id":1})").notAnArray);
  EXPECT_TRUE(Parse("[]").grants.empty());
}

TEST(Grants, OverWhenThePeriodHasEndedTheExpiryHasComeOrRevoked) {
  const long long now = 1000;
  const struct {
    long long expiry, revoked, from, to;
    bool over;
  } cases[] = {
      {0, 0, 0, 0, true},            // period 0..0 (no registry subkey): begun and ended
      {0, 0, 0, 2000, false},        // open period, no expiry
      {0, 0, 1500, 500, false},      // not begun yet
      {7, 0, 0, 2000, false},        // 7 and below mean no expiry
      {8, 0, 0, 2000, true},         // 8 is an expiry, long past
      {1000, 0, 0, 2000, true},      // expiry exactly now
      {1001, 0, 0, 2000, false},
      {kMax, 0, 0, 2000, false},
      {kMax, 1, 0, 2000, true},      // revoked ends it even with an open period
      {kMax, -3, 2000, 3000, true},
  };
  for (const auto& c : cases) {
    ta::Grant grant;
    grant.expiryTime = c.expiry;
    grant.revoked = c.revoked;
    EXPECT_EQ(ta::IsOver(grant, {c.from, c.to}, now), c.over) << c.expiry << " " << c.revoked << " " << c.from;
  }
}

TEST(Grants, EarliestExpiryIsTheSmallestSignedValueAndZeroCounts) {
  ta::Grant grant;
  long long earliest = ta::kNoGrantInForce;
  for (long long expiry : {kMax, 5000LL, 9000LL, 0LL, 7LL}) {
    grant.expiryTime = expiry;
    earliest = ta::EarliestExpiry(earliest, grant);
  }
  EXPECT_EQ(earliest, 0);
  EXPECT_EQ(ta::TrayNoticeCommandLine(ta::TrayFolder("C:\\A\\DeviceControl\\"), 3),
            "\"C:\\A\\DeviceControl\\bin\\korvaAgentTrayIcon.exe\" -ta 3");
  EXPECT_EQ(ta::TrayFolder("C:\\A"), "C:\\A\\bin");
  EXPECT_EQ(ta::GrantKeyPath(-12), "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\TemporaryAccess\\-12");
}

TEST(Grants, RevokeDueTimeIsTheDistanceInMillisecondsKeptToThirtyTwoBits) {
  EXPECT_EQ(ta::RevokeDueTimeMs(1000, 990), 10000u);
  EXPECT_EQ(ta::RevokeDueTimeMs(5000000, 0), static_cast<std::uint32_t>(5000000000ull));  // truncated
  // A past revoke time and the "no grant" maximum wrap around instead of overflowing.
  EXPECT_EQ(ta::RevokeDueTimeMs(10, 11), static_cast<std::uint32_t>(0xFFFFFFFFFFFFFC18ull));
  const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(ta::RevokeDueTimeMs(max, 1700000000), static_cast<std::uint32_t>(max * 1000u - 1700000000000ull));
}

}  // namespace
