// Whether a process's account is a service's: the rule over its token's user and groups.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "pipe/core/trust_verdict.h"

namespace korva::pipe {

inline constexpr char kLocalSystemSid[] = "S-1-5-18";
// Every service's token holds this group, and no interactive logon's does.
inline constexpr char kServiceGroupSid[] = "S-1-5-6";
// A token group's attributes, as the system sets them.
inline constexpr std::uint32_t kGroupEnabled = 0x00000004;
inline constexpr std::uint32_t kGroupDenyOnly = 0x00000010;

struct TokenGroup {
  std::string sid;  // in its string form, "S-1-..."
  std::uint32_t attributes = 0;
};

struct ServerAccount {
  std::string user;  // the token's user SID; empty when it could not be put in text
  std::vector<TokenGroup> groups;
};

// Trusted when the process runs as LocalSystem or its token holds the SERVICE group enabled
// (LocalService, NetworkService and service accounts hold it). A disabled or deny-only SERVICE
// group grants nothing, so it does not count.
TrustVerdict JudgeServerAccount(const ServerAccount& account);

// Trusted when the pipe itself belongs to SYSTEM, Administrators, LocalService, NetworkService or a
// service's own SID (S-1-5-80-...): the owner a service's pipe gets, and one no standard user can
// give an object. It holds whichever process later serves the pipe or takes over its process ID.
// `owner` is the SID in its string form; empty when the pipe has none.
TrustVerdict JudgePipeOwner(const std::string& owner);

}  // namespace korva::pipe
