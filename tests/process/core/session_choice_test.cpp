// Choosing the interactive session and its user from the session list.
#include "process/core/session_choice.h"

#include <gtest/gtest.h>

namespace korva::process {
namespace {

constexpr int kActive = kActiveSessionState, kDisconnected = 4;

TEST(SessionChoice, LastActiveSessionWinsElseTheFallback) {
  EXPECT_EQ(LastActiveSession({}, 1), 1u);
  EXPECT_EQ(LastActiveSession({{0, kDisconnected, L""}, {2, kDisconnected, L""}}, 1), 1u);
  EXPECT_EQ(LastActiveSession({{2, kActive, L""}, {0, 1, L""}, {5, kActive, L""}, {65536, 6, L""}}, 1), 5u);
  EXPECT_EQ(LastActiveSession({{0, kActive, L""}}, 1), 0u);  // an active session 0 counts too
}

TEST(SessionChoice, LoggedOnUserIsTheConsoleOneElseTheFirstActiveNamed) {
  const std::vector<SessionEntry> sessions = {
      {1, kDisconnected, L"carol"}, {2, kActive, L""}, {3, kActive, L"bob"}, {4, kActive, L"dave"}};
  EXPECT_EQ(ChooseLoggedOnUser(L"alice", sessions), L"alice");
  EXPECT_EQ(ChooseLoggedOnUser(L"", sessions), L"bob");
  EXPECT_EQ(ChooseLoggedOnUser(L"", {{1, kDisconnected, L"carol"}}), L"");
}

TEST(SessionChoice, Windows2000ByEitherSpelling) {
  EXPECT_TRUE(IsWindows2000("Microsoft Windows 2000"));
  EXPECT_TRUE(IsWindows2000("Windows 2000"));
  EXPECT_FALSE(IsWindows2000("Windows Server 2003"));
}

}  // namespace
}  // namespace korva::process
