// The rule that a pipe server's account is a service's, over the user and groups of its token.
#include <gtest/gtest.h>

#include "pipe/core/service_account.h"

namespace {

namespace pipe = korva::pipe;

constexpr std::uint32_t kOn = 0x7;  // mandatory, enabled by default, enabled
constexpr char kUser[] = "S-1-5-21-1-2-3-1001";

TEST(ServiceAccount, OnlyLocalSystemOrAnEnabledServiceGroupIsTrusted) {
  const struct { const char* what; pipe::ServerAccount account; const char* reason /* empty: trusted */; } cases[] = {
      {"LocalSystem", {"S-1-5-18", {}}, ""}, {"LocalService", {"S-1-5-19", {{"S-1-1-0", kOn}, {"S-1-5-6", kOn}}}, ""},
      {"a user's service", {kUser, {{"S-1-5-6", 0x4 /* enabled */}, {"S-1-5-11", kOn}}}, ""},
      {"SERVICE disabled", {kUser, {{"S-1-5-6", 0}}}, "it runs as S-1-5-21-1-2-3-1001, not as a service"},
      {"SERVICE deny-only", {kUser, {{"S-1-5-6", 0x10 /* deny-only */}}}, "not as a service"},
      {"SERVICE deny-only and enabled", {kUser, {{"S-1-5-6", 0x10 | kOn}}}, "not as a service"},
      {"interactive user", {kUser, {{"S-1-1-0", kOn}, {"S-1-5-4", kOn}, {"S-1-5-11", kOn}, {"S-1-5-32-544", 0xF}}},
       "it runs as S-1-5-21-1-2-3-1001, not as a service"},
      {"look-alike groups", {kUser, {{"S-1-5-61", kOn}, {"S-1-5-6-1", kOn}, {"S-1-5-18", kOn}}}, "not as a service"},
      {"look-alike user", {"S-1-5-18-1", {}}, "it runs as S-1-5-18-1, not as a service"},
      {"no groups", {kUser, {}}, "not as a service"}, {"no user", {"", {{"S-1-5-6", kOn}}}, "its token names no user"},
      {"nothing", {}, "its token names no user"},
  };
  for (const auto& c : cases) {
    const pipe::TrustVerdict verdict = pipe::JudgeServerAccount(c.account);
    EXPECT_EQ(verdict.trusted, *c.reason == '\0') << c.what;
    EXPECT_NE(verdict.reason.find(c.reason), std::string::npos) << c.what << ": " << verdict.reason;
    EXPECT_EQ(verdict.reason.empty(), verdict.trusted) << c.what;  // a refusal always says why
  }
}

// The pipe's owner, as the owner of an object a standard user made could never be.
TEST(ServiceAccount, OnlyAPipeOwnedBySystemAdministratorsOrAServiceIsTrusted) {
  const struct { const char* owner; const char* reason /* empty: trusted */; } cases[] = {
      {"S-1-5-18", ""}, {"S-1-5-32-544", ""}, {"S-1-5-19", ""}, {"S-1-5-20", ""},
      {"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464", ""}, {"", "its pipe has no owner"},
      {kUser, "its pipe belongs to S-1-5-21-1-2-3-1001, not to SYSTEM, Administrators or a service"},
      {"S-1-5-80-", "belongs to S-1-5-80-,"}, {"S-1-5-80", "belongs to S-1-5-80,"}, {"S-1-5-18-1", "belongs to"},
      {"S-1-5-32-545", "belongs to S-1-5-32-545,"}, {"S-1-5-6", "belongs to S-1-5-6,"},
  };
  for (const auto& c : cases) {
    const pipe::TrustVerdict verdict = pipe::JudgePipeOwner(c.owner);
    EXPECT_EQ(verdict.trusted, *c.reason == '\0') << c.owner;
    EXPECT_NE(verdict.reason.find(c.reason), std::string::npos) << c.owner << ": " << verdict.reason;
  }
}

}  // namespace
