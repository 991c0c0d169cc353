// The decision whether a grant is over, the earliest expiry and the revoke due time.
#include <gtest/gtest.h>

#include <climits>
#include <limits>
#include <string>
#include <vector>

#include "tempaccess/core/grants.h"

namespace ta = korva::tempaccess;

namespace {

constexpr long long kMax = std::numeric_limits<long long>::max();

// A file of a million grants is not a million grants' work: the first 4,096 objects are read, the rest only counted.
TEST(Grants, AtMostTheCapOfAFileIsRead) {
  std::string json = "[1, \"x\", null";
  for (int i = 0; i < 5000; ++i) json += ", {}";
  json += "]";
  rapidjson::Document document;
  document.Parse(json.c_str());
  const ta::GrantList list = ta::ReadGrants(document);
  EXPECT_EQ(list.grants.size(), 4096u);
  EXPECT_EQ(list.beyondCap, 5000u - 4096u);
  EXPECT_EQ(list.skipped, 3u);
}

TEST(Grants, OverWhenThePeriodHasEndedTheExpiryHasComeOrRevoked) {
  const struct { long long expiry, revoked, from, to; bool over; } cases[] = {
      {0, 0, 0, 0, true},        // period 0..0 (no registry subkey): begun and ended
      {0, 0, 0, 2000, false},    // open period, no expiry
      {0, 0, 1500, 500, false},  // not begun yet
      {7, 0, 0, 2000, false},    // 7 and below mean no expiry
      {8, 0, 0, 2000, true},     // 8 is an expiry, long past
      {1000, 0, 0, 2000, true},  // expiry exactly now
      {1001, 0, 0, 2000, false}, {kMax, 0, 0, 2000, false},
      {kMax, 1, 0, 2000, true},  // revoked ends it even with an open period
      {kMax, -3, 2000, 3000, true},
  };
  ta::Grant grant;
  long long earliest = kMax;  // none yet
  long long earliestTimed = kMax;
  for (const auto& c : cases) {
    grant.expiryTime = c.expiry;
    grant.revoked = c.revoked;
    const bool over = ta::IsOver(grant, {c.from, c.to}, 1000);
    EXPECT_EQ(over, c.over) << c.expiry << " " << c.revoked << " " << c.from;
    if (!over) earliest = ta::EarliestExpiry(earliest, grant);
    if (!over) earliestTimed = ta::EarliestTimedExpiry(earliestTimed, grant);
  }
  EXPECT_EQ(earliest, 0);  // a grant in force without an expiry of its own counts as 0
  EXPECT_EQ(earliestTimed, 1001);
}

// The timer waits for the earliest timed expiry when a grant without one made the earliest 7 or
// less: armed for that, it would fire at once for as long as the grant lasts, or weeks late. A
// validity period that ends first wakes it then.
TEST(Grants, TheRevokeTimerWaitsForATimedGrantWhenOneWithoutAnExpiryComesFirstOrForAPeriodsEnd) {
  const struct { long long earliest, timed, periodEnd, armed; } cases[] = {
      {1700000100, 1700000100, kMax, 1700000100}, {0, 1700000100, kMax, 1700000100},
      {7, 1700000100, kMax, 1700000100},          {-5, 1700000100, kMax, 1700000100},
      {0, kMax, kMax, kMax},                      {8, 1700000100, kMax, 8},
      {kMax, kMax, kMax, kMax},                   {1700000100, 1700000100, 1700000050, 1700000050},
      {0, kMax, 1700000050, 1700000050},          {1700000100, 1700000100, 1700000200, 1700000100}};
  for (const auto& c : cases) {
    EXPECT_EQ(ta::RevokeTimeToArm(c.earliest, c.timed, c.periodEnd), c.armed) << c.earliest << " " << c.periodEnd;
  }
  // A period ends once both bounds have passed.
  EXPECT_EQ(ta::PeriodEnd({9, 4102444800}), 4102444800);
  EXPECT_EQ(ta::PeriodEnd({4102444800, 9}), 4102444800);
}

TEST(Grants, RevokeDueTimeTruncatesAndWrapsAroundInsteadOfOverflowing) {
  EXPECT_EQ(ta::RevokeDueTimeMs(1000, 990), 10000u);
  // After a pass that could not read the grants: the pending revoke, or a retry within a minute.
  EXPECT_EQ(ta::RetryDueTimeMs({true, 4000}), 4000u);
  EXPECT_EQ(ta::RetryDueTimeMs({true, 0}), 1000u);  // overdue: promptly (once: the shell then forgets it)
  EXPECT_EQ(ta::RetryDueTimeMs({false, 0}), 60000u);
  EXPECT_EQ(ta::RetryDueTimeMs({true, 3600000}), 60000u);
  // After a pass that read part of the grants: its own due time, or the pending revoke's if sooner,
  // and within a minute when what it read may be older.
  const struct { std::uint32_t own; ta::PendingRevoke pending; bool older; std::uint32_t due; } partial[] = {
      {9000, {true, 4000}, false, 4000}, {3000, {true, 4000}, false, 3000},
      {9000, {true, 10}, false, 1000},  // never a timer due at once
      {9000, {true, 0}, false, 9000},   // the revoke that came was this pass's
      {9000, {false, 0}, false, 9000}, {3600000, {false, 0}, true, 60000}, {3600000, {true, 0}, true, 60000},
      {3600000, {true, 5000}, true, 5000}, {3000, {true, 5000}, true, 3000}};
  for (const auto& c : partial) EXPECT_EQ(ta::PartialPassDueTimeMs(c.own, c.pending, c.older), c.due) << c.own;
  // A configuration program that owes a run: at once when owed from an earlier run, then backing off.
  const std::pair<unsigned, std::uint32_t> owed[] = {{0, 1000},   {1, 60000},  {2, 120000},  {4, 480000},
                                                     {5, 900000}, {6, 900000}, {99, 900000}};
  for (const auto& [failures, due] : owed) EXPECT_EQ(ta::ReapplyRetryMs(failures), due) << failures;
  EXPECT_EQ(ta::RevokeDueTimeMs(5000000, 0), static_cast<std::uint32_t>(5000000000ull));  // truncated
  // The "no grant" maximum wraps around instead of overflowing; a revoke time not after now is due
  // promptly, not wrapped around to weeks away.
  EXPECT_EQ(ta::RevokeDueTimeMs(kMax, 1700000000), static_cast<std::uint32_t>(kMax * 1000ull - 1700000000000ull));
  EXPECT_EQ(ta::RevokeDueTimeMs(1699999990, 1700000000), ta::kOverdueRetryMs);
  EXPECT_EQ(ta::RevokeDueTimeMs(1700000000, 1700000000), ta::kOverdueRetryMs);
  // 2^29 seconds ahead truncates to 0 ms, 2^29 + 1 to 1000: never a timer due at once.
  EXPECT_EQ(ta::RevokeDueTimeMs(1700000000LL + 536870912, 1700000000), ta::kOverdueRetryMs);
  EXPECT_EQ(ta::RevokeDueTimeMs(1700000000LL + 536870913, 1700000000), 1000u);
}

// The grants in force kept between runs: the bytes give back the list, sorted and each once; bytes
// that are no such list give none; a grant of the kept list missing from the new one owes a run.
TEST(GrantsCore, GrantsInForceAreKeptAsBytesAndAGrantNoLongerInForceIsFound) {
  const std::vector<long long> ids = ta::SortedUniqueIds({kMax, -1, 7, LLONG_MIN, 7});
  EXPECT_EQ(ids, (std::vector<long long>{LLONG_MIN, -1, 7, kMax}));
  EXPECT_EQ(ta::GrantIdsBytes(ids).size(), 32u);
  EXPECT_EQ(ta::GrantIdsFromBytes(ta::GrantIdsBytes(ids)), ids);
  EXPECT_EQ(ta::GrantIdsFromBytes(std::string("\x01\0\0\0\0\0\0\0", 8)), std::vector<long long>{1});
  EXPECT_EQ(ta::GrantIdsFromBytes(""), std::vector<long long>{});
  EXPECT_FALSE(ta::GrantIdsFromBytes(std::string(9, '\0')));
  EXPECT_FALSE(ta::GrantIdsFromBytes(std::string((ta::kMaxGrantsPerFile + 1) * 8, '\0')));
  const struct { std::vector<long long> before, now; bool owed; } cases[] = {
      {{1, 2}, {1, 2}, false}, {{1, 2}, {1, 2, 3}, false}, {{}, {}, false}, {{1, 2}, {2}, true}, {{1}, {}, true}};
  for (const auto& c : cases) EXPECT_EQ(ta::SomeGrantNoLongerInForce(c.before, c.now), c.owed);
}

}  // namespace
