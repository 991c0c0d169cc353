// Whether a process's account is a service's.
#include "pipe/core/service_account.h"

#include <algorithm>
#include <iterator>

namespace korva::pipe {

namespace {

bool IsEnabledServiceGroup(const TokenGroup& group) {
  return group.sid == kServiceGroupSid && (group.attributes & kGroupEnabled) != 0 &&
         (group.attributes & kGroupDenyOnly) == 0;
}

// "S-1-5-80-" and at least one more sub-authority: a service's SID.
bool IsServiceSid(const std::string& sid) {
  constexpr char kServiceSidPrefix[] = "S-1-5-80-";
  constexpr std::size_t kPrefixLength = sizeof kServiceSidPrefix - 1;
  return sid.size() > kPrefixLength && sid.compare(0, kPrefixLength, kServiceSidPrefix) == 0;
}

}  // namespace

TrustVerdict JudgePipeOwner(const std::string& owner) {
  if (owner.empty()) return {false, "its pipe has no owner"};
  constexpr const char* kTrustedOwners[] = {kLocalSystemSid, "S-1-5-32-544", "S-1-5-19", "S-1-5-20"};
  if (std::find(std::begin(kTrustedOwners), std::end(kTrustedOwners), owner) != std::end(kTrustedOwners) ||
      IsServiceSid(owner)) {
    return {true, ""};
  }
  return {false, "its pipe belongs to " + owner + ", not to SYSTEM, Administrators or a service"};
}

TrustVerdict JudgeServerAccount(const ServerAccount& account) {
  if (account.user.empty()) return {false, "its token names no user"};
  if (account.user == kLocalSystemSid) return {true, ""};
  if (std::any_of(account.groups.begin(), account.groups.end(), IsEnabledServiceGroup)) return {true, ""};
  return {false, "it runs as " + account.user + ", not as a service"};
}

}  // namespace korva::pipe
