// Whether a process's account is a service's.
#include "pipe/core/service_account.h"

#include <algorithm>

namespace korva::pipe {

namespace {

bool IsEnabledServiceGroup(const TokenGroup& group) {
  return group.sid == kServiceGroupSid && (group.attributes & kGroupEnabled) != 0 &&
         (group.attributes & kGroupDenyOnly) == 0;
}

}  // namespace

TrustVerdict JudgeServerAccount(const ServerAccount& account) {
  if (account.user.empty()) return {false, "its token names no user"};
  if (account.user == kLocalSystemSid) return {true, ""};
  if (std::any_of(account.groups.begin(), account.groups.end(), IsEnabledServiceGroup)) return {true, ""};
  return {false, "it runs as " + account.user + ", not as a service"};
}

}  // namespace korva::pipe
