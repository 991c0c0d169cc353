// Temporary-access grants: reading the grant records, deciding which are over, and when the
// revoke timer is due.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korva::tempaccess {

// The earliest expiry when no grant is in force.
inline constexpr long long kNoGrantInForce = std::numeric_limits<long long>::max();
// An expiry_time at or below this means the grant has no expiry of its own.
inline constexpr long long kLastNoExpiryValue = 7;

// One grant record; a member that is missing or not a 64-bit integer (a string for policy_name)
// reads as 0 (empty) and is named in `problems`.
struct Grant {
  long long id = 0;
  std::string policyName;
  long long expiryTime = 0;
  long long durationType = 0;
  long long revoked = 0;
  long long durationFrom = 0;
  long long durationTo = 0;
  std::vector<std::string> problems;
};

// The validity period of a grant, in seconds on the local-time clock.
struct Period {
  long long from = 0;
  long long to = 0;
};

// At most this many grants of a file are processed; a file is not a reason for unbounded work.
inline constexpr std::size_t kMaxGrantsPerFile = 4096;
// Member problems are logged one by one for this many grants, then only counted.
inline constexpr std::size_t kGrantsWithProblemLines = 100;

// The grants of a grant document: its array of objects, in order, the first kMaxGrantsPerFile of
// them. A document that is not an array gives none and sets `notAnArray`; an element that is not
// an object is skipped and counted in `skipped`; objects past the cap are counted in `beyondCap`.
struct GrantList {
  std::vector<Grant> grants;
  bool notAnArray = false;
  std::size_t skipped = 0;
  std::size_t beyondCap = 0;
};
GrantList ReadGrants(const rapidjson::Value& document);

// duration_type 1: the validity period comes from the registry rather than the record.
inline bool PeriodFromRegistry(const Grant& grant) { return grant.durationType == 1; }
// Over when its period has begun and ended, when it has an expiry that has come, or when revoked.
bool IsOver(const Grant& grant, Period period, long long now);
// The earliest expiry among the grants in force (signed comparison); kNoGrantInForce when none.
long long EarliestExpiry(long long earliestSoFar, const Grant& grant);

// The grant's registry key (under HKEY_LOCAL_MACHINE): "...\QVM\TemporaryAccess\<id in decimal>".
std::string GrantKeyPath(long long id);
// The configuration program's arguments that make it re-apply policy after grants changed.
inline constexpr char kReapplyPolicyArguments[] = "40 0 3";
// "<installation directory>\bin", with one backslash between them whether or not the directory
// ends in one.
std::string TrayFolder(const std::string& installationDirectory);
// "\"<bin folder>\korvaAgentTrayIcon.exe\" -ta <count>": the tray notice of grants that are over.
std::string TrayNoticeCommandLine(const std::string& binFolder, int count);
// The earliest expiry among the grants in force that have one of their own (an expiry_time past
// kLastNoExpiryValue); kNoGrantInForce when none does. What the revoke timer waits for when a
// grant without an expiry makes EarliestExpiry's result 0.
long long EarliestTimedExpiry(long long earliestSoFar, const Grant& grant);
// When a grant's validity period ends it: once both of its bounds have passed (IsOver), so at the
// later of them.
inline long long PeriodEnd(Period period) noexcept { return period.from > period.to ? period.from : period.to; }
// The revoke time the timer is armed for: `earliest` (EarliestExpiry's), or `earliestTimed`
// (EarliestTimedExpiry's) when a grant without an expiry of its own (or a negative one) made
// `earliest` kLastNoExpiryValue or less; and `earliestPeriodEnd` (the earliest PeriodEnd among the
// grants in force) when that comes first: a grant whose period ends before its expiry, or that has
// no expiry, is over then, and the timer wakes for it.
// Armed for that 0, the timer would either be due at once and fire again and again for as long as
// the grant lasts, or, wrapped around, up to 49 days late for the timed grants beside it.
long long RevokeTimeToArm(long long earliest, long long earliestTimed, long long earliestPeriodEnd) noexcept;
// A pass that could not read its grant files is retried this soon.
inline constexpr std::uint32_t kUnreadableRetryMs = 60000;
// ...and this soon, once, when the revoke it keeps has come: promptly, but never in a loop (the
// retries after that one wait kUnreadableRetryMs).
inline constexpr std::uint32_t kOverdueRetryMs = 1000;
// Milliseconds until the revoke timer is due: next x 1000 - now x 1000 in unsigned 64-bit
// arithmetic, truncated to the 32 bits the timer call takes. With no grant in force (next is
// kNoGrantInForce) the product wraps and the truncated value is used as it comes: kept
// deliberately. A revoke time not after now (the start-up reads the clock with the daylight bias
// the other way, so a grant in force for the pass may seem over to it) is due in kOverdueRetryMs:
// wrapped around, the difference would put the revoke up to 49 days off. Never less than
// kOverdueRetryMs: a truncation that comes out under it would have the timer fire in a loop.
std::uint32_t RevokeDueTimeMs(long long nextRevokeSeconds, long long nowSeconds) noexcept;
// A pending revoke: none, or due `inMs` from now (0: due already).
struct PendingRevoke {
  bool pending = false;
  std::uint64_t inMs = 0;
};
// The revoke timer's due time after such a pass: the pending revoke's own when that comes within
// kUnreadableRetryMs (kOverdueRetryMs once it is due), else a retry in kUnreadableRetryMs.
std::uint32_t RetryDueTimeMs(PendingRevoke revoke) noexcept;
// The due time after a pass that read only part of what may be in force (entries that are no
// grants, grants past the cap; or, `mayBeOlder`, the plain file read in place of an enciphered one
// it could not read): its own `dueMs`, unless the pending revoke (decided by the last whole
// reading) comes first, and within kUnreadableRetryMs when what it read may be older than the
// grants in force, so that a whole reading follows soon. Such a pass can bring a revoke nearer,
// never put it off. A revoke that has come is the one this pass made.
std::uint32_t PartialPassDueTimeMs(std::uint32_t dueMs, PendingRevoke revoke, bool mayBeOlder) noexcept;
// The longest wait between two tries of a configuration program that owes a run.
inline constexpr std::uint32_t kMaxReapplyRetryMs = 15 * 60000;
// The ids of the grants in force at the last whole reading are kept between runs of the service, so
// that a start can tell a grant that ended or was taken away while no pass ran: sorted, each once,
// as little-endian 64-bit integers, at most kMaxGrantsPerFile of them.
std::vector<long long> SortedUniqueIds(std::vector<long long> ids);
std::string GrantIdsBytes(const std::vector<long long>& sortedIds);
// The list the bytes hold; nullopt when they hold none (a length that is not a whole number of ids,
// or more ids than a grant file can put in force).
std::optional<std::vector<long long>> GrantIdsFromBytes(std::string_view bytes);
// True when a grant of `before` is not among those of `now` (both sorted): its revoke is owed.
bool SomeGrantNoLongerInForce(const std::vector<long long>& before, const std::vector<long long>& now);
// While the configuration program owes a run (it did not start), the timer comes back this soon
// after `failures` failed starts in a row: at once (kOverdueRetryMs) for a run owed from an earlier
// run of the service (no failure in this one), then a minute, doubling up to kMaxReapplyRetryMs.
std::uint32_t ReapplyRetryMs(unsigned failures) noexcept;

}  // namespace korva::tempaccess
