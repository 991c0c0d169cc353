// Temporary-access grants: reading the grant records, deciding which are over, the tray notice's
// command line and when the revoke timer is due.
#include "tempaccess/core/grants.h"

#include <algorithm>
#include <utility>

#include "settings/core/agent_constants.h"

namespace korva::tempaccess {

namespace {

void ReadInteger(const rapidjson::Value& record, const char* name, long long& out, std::vector<std::string>& problems) {
  const auto member = record.FindMember(name);
  if (member != record.MemberEnd() && member->value.IsInt64()) {
    out = member->value.GetInt64();
  } else {
    problems.emplace_back(name);
  }
}

Grant ReadGrant(const rapidjson::Value& record) {
  Grant grant;
  ReadInteger(record, "ta_id", grant.id, grant.problems);
  const auto name = record.FindMember("policy_name");
  if (name != record.MemberEnd() && name->value.IsString()) {
    grant.policyName.assign(name->value.GetString(), name->value.GetStringLength());
  } else {
    grant.problems.emplace_back("policy_name");
  }
  ReadInteger(record, "expiry_time", grant.expiryTime, grant.problems);
  ReadInteger(record, "duration_type", grant.durationType, grant.problems);
  ReadInteger(record, "revoked", grant.revoked, grant.problems);
  ReadInteger(record, "duration_from", grant.durationFrom, grant.problems);
  ReadInteger(record, "duration_to", grant.durationTo, grant.problems);
  return grant;
}

}  // namespace

GrantList ReadGrants(const rapidjson::Value& document) {
  GrantList list;
  if (!document.IsArray()) {
    list.notAnArray = true;
    return list;
  }
  for (const rapidjson::Value& record : document.GetArray()) {
    if (record.IsObject()) {
      if (list.grants.size() < kMaxGrantsPerFile) {
        list.grants.push_back(ReadGrant(record));
      } else {
        ++list.beyondCap;
      }
    } else {
      ++list.skipped;
    }
  }
  return list;
}

bool IsOver(const Grant& grant, Period period, long long now) {
  if (period.from <= now && period.to <= now) return true;
  if (grant.expiryTime > kLastNoExpiryValue && grant.expiryTime <= now) return true;
  return grant.revoked != 0;
}

long long EarliestExpiry(long long earliestSoFar, const Grant& grant) {
  return grant.expiryTime < earliestSoFar ? grant.expiryTime : earliestSoFar;
}

long long EarliestTimedExpiry(long long earliestSoFar, const Grant& grant) {
  return grant.expiryTime > kLastNoExpiryValue ? EarliestExpiry(earliestSoFar, grant) : earliestSoFar;
}

long long RevokeTimeToArm(long long earliest, long long earliestTimed, long long earliestPeriodEnd) noexcept {
  const long long byExpiry = earliest <= kLastNoExpiryValue ? earliestTimed : earliest;
  return earliestPeriodEnd < byExpiry ? earliestPeriodEnd : byExpiry;
}

std::string GrantKeyPath(long long id) { return std::string(kTemporaryAccessKey) + "\\" + std::to_string(id); }

std::string TrayFolder(const std::string& installationDirectory) {
  std::string folder = installationDirectory;
  while (!folder.empty() && folder.back() == '\\') folder.pop_back();
  return folder + "\\bin";
}

std::string TrayNoticeCommandLine(const std::string& binFolder, int count) {
  return "\"" + binFolder + "\\korvaAgentTrayIcon.exe\" -ta " + std::to_string(count);
}

std::uint32_t RevokeDueTimeMs(long long nextRevokeSeconds, long long nowSeconds) noexcept {
  if (nextRevokeSeconds <= nowSeconds) return kOverdueRetryMs;
  const std::uint64_t dueMs =
      static_cast<std::uint64_t>(nextRevokeSeconds) * 1000u - static_cast<std::uint64_t>(nowSeconds) * 1000u;
  // A revoke at least a second away that the truncation brings under a second (every 2^29 seconds,
  // the "no grant" maximum once in 49 days) would fire, re-arm the same way and fire again until
  // the clock's second changed.
  const auto truncated = static_cast<std::uint32_t>(dueMs);
  return truncated < kOverdueRetryMs ? kOverdueRetryMs : truncated;
}

std::uint32_t RetryDueTimeMs(PendingRevoke revoke) noexcept {
  if (!revoke.pending || revoke.inMs >= kUnreadableRetryMs) return kUnreadableRetryMs;
  return revoke.inMs == 0 ? kOverdueRetryMs : static_cast<std::uint32_t>(revoke.inMs);
}

std::uint32_t PartialPassDueTimeMs(std::uint32_t dueMs, PendingRevoke revoke, bool mayBeOlder) noexcept {
  if (mayBeOlder && dueMs > kUnreadableRetryMs) dueMs = kUnreadableRetryMs;
  if (!revoke.pending || revoke.inMs == 0 || revoke.inMs >= dueMs) return dueMs;
  return revoke.inMs < kOverdueRetryMs ? kOverdueRetryMs : static_cast<std::uint32_t>(revoke.inMs);
}

std::uint32_t ReapplyRetryMs(unsigned failures) noexcept {
  if (failures == 0) return kOverdueRetryMs;
  std::uint32_t delay = kUnreadableRetryMs;
  for (unsigned i = 1; i < failures && delay < kMaxReapplyRetryMs; ++i) delay *= 2;
  return delay < kMaxReapplyRetryMs ? delay : kMaxReapplyRetryMs;
}

std::vector<long long> SortedUniqueIds(std::vector<long long> ids) {
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

std::string GrantIdsBytes(const std::vector<long long>& sortedIds) {
  std::string bytes;
  bytes.reserve(sortedIds.size() * 8);
  for (const long long id : sortedIds) {
    const auto bits = static_cast<std::uint64_t>(id);
    for (int shift = 0; shift < 64; shift += 8) bytes.push_back(static_cast<char>((bits >> shift) & 0xFFU));
  }
  return bytes;
}

std::optional<std::vector<long long>> GrantIdsFromBytes(std::string_view bytes) {
  if (bytes.size() % 8 != 0 || bytes.size() / 8 > kMaxGrantsPerFile) return std::nullopt;
  std::vector<long long> ids;
  ids.reserve(bytes.size() / 8);
  for (std::size_t at = 0; at < bytes.size(); at += 8) {
    std::uint64_t bits = 0;
    for (int i = 7; i >= 0; --i)
      bits = (bits << 8) | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(i)]);
    ids.push_back(static_cast<long long>(bits));
  }
  return SortedUniqueIds(std::move(ids));
}

bool SomeGrantNoLongerInForce(const std::vector<long long>& before, const std::vector<long long>& now) {
  return !std::includes(now.begin(), now.end(), before.begin(), before.end());
}

}  // namespace korva::tempaccess
