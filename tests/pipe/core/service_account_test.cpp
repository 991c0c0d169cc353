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

}  // namespace
