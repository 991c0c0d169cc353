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

// The pipe's owner and access list, as no standard user could set them, whichever process serves the pipe.
TEST(ServiceAccount, OnlyAPipeOfAServiceThatKeepsOthersFromAddingInstancesIsTrusted) {
  const pipe::PipeAccessEntry kSystemAll{0, "S-1-5-18", 0x10000000, false};
  const pipe::PipeAccessEntry kEveryoneReads{0, "S-1-1-0", 0x80000000, false};
  const pipe::ServerAccount kSystem{"S-1-5-18", {}};
  const pipe::ServerAccount kOwnService{kUser, {{"S-1-5-6", kOn}}};
  const struct {
    const char* what;
    pipe::PipeSecurity security;
    pipe::ServerAccount server;
    const char* reason;  // empty: trusted
  } cases[] = {
      {"SYSTEM's, everyone reads", {"S-1-5-18", true, {kSystemAll, kEveryoneReads}}, kSystem, ""},
      {"Administrators'", {"S-1-5-32-544", true, {kSystemAll}}, kSystem, ""},
      {"LocalService's", {"S-1-5-19", true, {}}, kSystem, ""},
      {"NetworkService's", {"S-1-5-20", true, {}}, kSystem, ""},
      {"a service SID's", {"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464", true, {}}, kSystem, ""},
      {"a service's own account", {kUser, true, {{0, kUser, 0x001F01FF, false}}}, kOwnService, ""},
      {"no owner", {"", true, {}}, kSystem, "its pipe has no owner"},
      {"a user's", {kUser, true, {}}, kSystem,
       "its pipe belongs to S-1-5-21-1-2-3-1001, not to SYSTEM, Administrators or a service"},
      {"a user's, the server a user", {kUser, true, {}}, {kUser, {}}, "belongs to S-1-5-21-1-2-3-1001,"},
      {"look-alikes", {"S-1-5-80", true, {}}, kSystem, "belongs to S-1-5-80,"},
      {"users'", {"S-1-5-32-545", true, {}}, kSystem, "belongs to S-1-5-32-545,"},
      {"a NULL list", {"S-1-5-18", false, {}}, kSystem, "its pipe has no access list, so anyone may add an instance"},
      {"everyone may do anything", {"S-1-5-18", true, {{0, "S-1-1-0", 0x10000000, false}}}, kSystem,
       "its pipe lets S-1-1-0 add an instance of it or change its access list"},
      {"users may add instances", {"S-1-5-18", true, {{0, "S-1-5-32-545", 0x4, false}}}, kSystem,
       "lets S-1-5-32-545 add"},
      {"users may write", {"S-1-5-18", true, {{0, "S-1-5-11", 0x40000000, false}}}, kSystem, "lets S-1-5-11 add"},
      {"another user may change the list", {kUser, true, {{0, "S-1-5-21-1-2-3-1002", 0x40000, false}}}, kOwnService,
       "lets S-1-5-21-1-2-3-1002 add"},
      {"denied, or for what is made below", {"S-1-5-18", true, {{1, "S-1-1-0", 0x10000000, false},
                                                                   {0, "S-1-1-0", 0x10000000, true}}},
       kSystem, ""},
      {"an entry of another type", {"S-1-5-18", true, {{9, "", 0, false}}}, kSystem,
       "its pipe's access list holds an entry of type 9, which cannot be judged"},
  };
  for (const auto& c : cases) {
    const pipe::TrustVerdict verdict = pipe::JudgePipeSecurity(c.security, c.server);
    EXPECT_EQ(verdict.trusted, *c.reason == '\0') << c.what;
    EXPECT_NE(verdict.reason.find(c.reason), std::string::npos) << c.what << ": " << verdict.reason;
  }
}

}  // namespace
