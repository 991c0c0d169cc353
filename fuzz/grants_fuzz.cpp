// The grant file and its members: bounded parse, the records read, each decided at a fuzzed time.
#include "fuzz_input.h"
#include "settings/core/json_text.h"
#include "tempaccess/core/grants.h"

namespace ta = korva::tempaccess;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  korva::fuzz::Input input(data, size);
  const auto now = input.Number<long long>();
  const auto from = input.Number<long long>();
  const auto to = input.Number<long long>();
  rapidjson::Document document;
  if (!korva::json::ParseBounded(input.Rest(), document).ok) return 0;
  const ta::GrantList list = ta::ReadGrants(document);
  korva::fuzz::Check(!list.notAnArray || (list.grants.empty() && list.skipped == 0));
  long long earliest = ta::kNoGrantInForce;
  long long earliestTimed = ta::kNoGrantInForce;
  long long periodEnd = ta::kNoGrantInForce;
  for (const ta::Grant& grant : list.grants) {
    if (!ta::IsOver(grant, {from, to}, now)) {
      earliest = ta::EarliestExpiry(earliest, grant);
      earliestTimed = ta::EarliestTimedExpiry(earliestTimed, grant);
      periodEnd = ta::PeriodEnd({from, to});
      // A grant in force has a period that has not ended yet.
      korva::fuzz::Check(periodEnd > now);
    }
    korva::fuzz::Check(earliest <= earliestTimed && earliestTimed > ta::kLastNoExpiryValue);
    (void)ta::GrantKeyPath(grant.id);
    // A revoked grant is over whatever its period and expiry.
    korva::fuzz::Check(grant.revoked == 0 || ta::IsOver(grant, {from, to}, now));
  }
  // The timer is never armed for a grant without an expiry of its own (but for the end of its
  // period), never after a period's end, and a revoke time already come is due promptly, never
  // wrapped around to weeks away.
  const long long armed = ta::RevokeTimeToArm(earliest, earliestTimed, periodEnd);
  korva::fuzz::Check((armed > ta::kLastNoExpiryValue || armed == periodEnd) && armed <= periodEnd);
  const std::uint32_t dueMs = ta::RevokeDueTimeMs(armed, now);
  korva::fuzz::Check(armed > now || dueMs == ta::kOverdueRetryMs);
  return 0;
}
