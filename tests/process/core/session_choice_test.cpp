// Choosing the interactive session and its user from the session list.
#include "process/core/session_choice.h"

#include <gtest/gtest.h>

namespace korva::process {
namespace {

constexpr int kConnected = 1;
constexpr int kDisconnected = 4;
constexpr int kListening = 6;

TEST(SessionChoice, LastActiveSessionWinsElseTheFallback) {
  struct Case {
    const char* what;
    std::vector<SessionEntry> sessions;
    std::uint32_t expected;
  };
  const Case cases[] = {
      {"no sessions", {}, 1},
      {"session 0 and a disconnected one", {{0, kDisconnected, L""}, {2, kDisconnected, L""}}, 1},
      {"one active", {{0, kDisconnected, L""}, {3, kActiveSessionState, L""}, {65536, kListening, L""}}, 3},
      {"two active: the later one",
       {{2, kActiveSessionState, L""}, {0, kConnected, L""}, {5, kActiveSessionState, L""}},
       5},
      {"active session 0 counts too", {{0, kActiveSessionState, L""}}, 0},
  };
  for (const Case& c : cases) EXPECT_EQ(LastActiveSession(c.sessions, 1), c.expected) << c.what;
}

TEST(SessionChoice, LoggedOnUserPrefersTheConsole) {
  struct Case {
    const char* what;
    std::wstring console;
    std::vector<SessionEntry> sessions;
    std::wstring expected;
  };
  const Case cases[] = {
      {"console user", L"alice", {{2, kActiveSessionState, L"bob"}}, L"alice"},
      {"no console user: first active named",
       L"",
       {{1, kDisconnected, L"carol"},
        {2, kActiveSessionState, L""},
        {3, kActiveSessionState, L"bob"},
        {4, kActiveSessionState, L"dave"}},
       L"bob"},
      {"nobody", L"", {{1, kDisconnected, L"carol"}}, L""},
      {"no list", L"", {}, L""},
  };
  for (const Case& c : cases) EXPECT_EQ(ChooseLoggedOnUser(c.console, c.sessions), c.expected) << c.what;
}

TEST(SessionChoice, Windows2000ByEitherSpelling) {
  EXPECT_TRUE(IsWindows2000("Microsoft Windows 2000"));
  EXPECT_TRUE(IsWindows2000("Windows 2000"));
  EXPECT_FALSE(IsWindows2000("Windows XP"));
  EXPECT_FALSE(IsWindows2000("Windows Server 2003"));
  EXPECT_FALSE(IsWindows2000(""));
}

}  // namespace
}  // namespace korva::process
