// Whether a process's account is a service's.
#include "pipe/core/service_account.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace korva::pipe {

namespace {

constexpr int kAccessAllowed = 0;
constexpr int kAccessDenied = 1;

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

TrustVerdict JudgePipeSecurity(const PipeSecurity& security, const ServerAccount& server) {
  constexpr const char* kTrustedSids[] = {kLocalSystemSid, "S-1-5-32-544", "S-1-5-19", "S-1-5-20"};
  const bool serverIsService = JudgeServerAccount(server).trusted;
  const auto trusted = [&](const std::string& sid) {
    return std::find(std::begin(kTrustedSids), std::end(kTrustedSids), sid) != std::end(kTrustedSids) ||
           IsServiceSid(sid) || (serverIsService && !sid.empty() && sid == server.user);
  };
  if (security.owner.empty()) return {false, "its pipe has no owner"};
  if (!trusted(security.owner)) {
    return {false, "its pipe belongs to " + security.owner + ", not to SYSTEM, Administrators or a service"};
  }
  if (!security.hasAccessList) return {false, "its pipe has no access list, so anyone may add an instance of it"};
  for (const PipeAccessEntry& entry : security.entries) {
    if (entry.inheritOnly || entry.type == kAccessDenied) continue;
    if (entry.type != kAccessAllowed) {
      return {false, "its pipe's access list holds an entry of type " + std::to_string(entry.type) +
                         ", which cannot be judged"};
    }
    if ((entry.mask & kPipeTakeoverRights) != 0 && !trusted(entry.sid)) {
      return {false, "its pipe lets " + entry.sid + " add an instance of it or change its access list"};
    }
  }
  return {true, ""};
}

TrustVerdict JudgeServerAccount(const ServerAccount& account) {
  if (account.user.empty()) return {false, "its token names no user"};
  if (account.user == kLocalSystemSid) return {true, ""};
  if (std::any_of(account.groups.begin(), account.groups.end(), IsEnabledServiceGroup)) return {true, ""};
  return {false, "it runs as " + account.user + ", not as a service"};
}

}  // namespace korva::pipe
