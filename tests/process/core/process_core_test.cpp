// The launchers' and sessions' pure decisions: waits, command lines, output lines, the session and its user.
#include <gtest/gtest.h>

#include "process/core/launch_text.h"
#include "process/core/session_choice.h"

namespace korva::process {
namespace {

TEST(LaunchText, WaitIsMinutesTimesSixtyThousandWithoutWrapping) {
  const std::pair<std::uint32_t, std::uint32_t> cases[] = {
      {0, 0}, {1, 60000}, {71582, 4294920000u} /* the largest that fits */, {71583, 0xFFFFFFFEu}, {~0u, 0xFFFFFFFEu}};
  for (const auto& [minutes, expected] : cases) EXPECT_EQ(WaitMillisecondsForMinutes(minutes), expected) << minutes;
}

TEST(LaunchText, LaunchTextQuotesTheApplicationOnce) {
  EXPECT_EQ(AppLaunchText(std::string_view("C:\\Program Files\\d.exe"), "-c 12"),
            "\"C:\\Program Files\\d.exe\" -c 12");
  EXPECT_EQ(AppLaunchText(std::string_view("C:\\bin\\u.exe"), ""), "\"C:\\bin\\u.exe\"");
  EXPECT_EQ(AppLaunchText(std::string_view("\"C:\\bin\\x.exe\""), "-s \"U\""), "\"C:\\bin\\x.exe\" -s \"U\"");
  EXPECT_EQ(AppLaunchText(std::string_view("\""), "a"), "\"\"\" a");  // a lone quote is not a quoted path
  EXPECT_EQ(AppLaunchText(std::wstring_view(L"C:\\bin\\d\u00e9v.exe"), nullptr), L"\"C:\\bin\\d\u00e9v.exe\"");
}

TEST(LaunchText, OutputLines) {
  EXPECT_EQ(OutputLines(""), std::vector<std::string>{});
  EXPECT_EQ(OutputLines("one\r\ntwo\n\r\n\nthree"), (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_EQ(OutputLines("keeps \r inside\r\n"), std::vector<std::string>{"keeps \r inside"});
}

constexpr int kActive = kActiveSessionState, kDisconnected = 4;

TEST(SessionChoice, LoggedOnUserIsTheConsoleOneElseTheFirstActiveNamed) {
  const std::vector<SessionEntry> sessions = {
      {1, kDisconnected, L"carol"}, {2, kActive, L""}, {3, kActive, L"bob"}, {4, kActive, L"dave"}};
  EXPECT_EQ(ChooseLoggedOnUser(L"alice", sessions), L"alice");
  EXPECT_EQ(ChooseLoggedOnUser(L"", sessions), L"bob");
  EXPECT_EQ(ChooseLoggedOnUser(L"", {{1, kDisconnected, L"carol"}}), L"");
}

}  // namespace
}  // namespace korva::process
