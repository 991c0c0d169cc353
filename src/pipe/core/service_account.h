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

// One entry of the pipe's access list, as the system keeps it.
struct PipeAccessEntry {
  int type = 0;  // 0 allows, 1 denies; any other type is not judged and refuses the pipe
  std::string sid;
  std::uint32_t mask = 0;
  bool inheritOnly = false;  // applies to objects made below, never to the pipe itself
};

struct PipeSecurity {
  std::string owner;           // empty when the pipe has none
  bool hasAccessList = false;  // false: a NULL list, which lets anyone do anything
  std::vector<PipeAccessEntry> entries;
};

// An allowed right that lets its holder add an instance of the pipe (FILE_CREATE_PIPE_INSTANCE,
// which FILE_GENERIC_WRITE includes) or change who may.
inline constexpr std::uint32_t kPipeTakeoverRights =
    0x00000004 /* FILE_CREATE_PIPE_INSTANCE */ | 0x00040000 /* WRITE_DAC */ | 0x00080000 /* WRITE_OWNER */ |
    0x02000000 /* MAXIMUM_ALLOWED */ | 0x10000000 /* GENERIC_ALL */ | 0x40000000 /* GENERIC_WRITE */;

// Trusted when the pipe belongs to SYSTEM, Administrators, LocalService, NetworkService, a
// service's own SID (S-1-5-80-...), or the account of `server` when that runs as a service (a
// service under an account of its own), and when no one else may add an instance of it or change
// its access list. A standard user can neither give an object such an owner nor, then, add an
// instance of such a pipe. That holds whichever process later serves the pipe or takes over the
// process ID it recorded when it was made.
TrustVerdict JudgePipeSecurity(const PipeSecurity& security, const ServerAccount& server);

}  // namespace korva::pipe
