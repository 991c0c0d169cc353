// The launchers' and sessions' pure decisions: waits, command lines, output lines, the session and its user.
#include <gtest/gtest.h>

#include "process/core/command_line.h"
#include "process/core/environment_block.h"
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
  EXPECT_EQ(AppLaunchText(std::string_view("C:\\Program Files\\d.exe"), "-c 12"), "\"C:\\Program Files\\d.exe\" -c 12");
  EXPECT_EQ(AppLaunchText(std::string_view("C:\\bin\\u.exe"), ""), "\"C:\\bin\\u.exe\"");
  EXPECT_EQ(AppLaunchText(std::string_view("\"C:\\bin\\x.exe\""), "-s \"U\""), "\"C:\\bin\\x.exe\" -s \"U\"");
  EXPECT_EQ(AppLaunchText(std::string_view("\""), "a"), "\"\"\" a");  // a lone quote is not a quoted path
  EXPECT_EQ(AppLaunchText(std::wstring_view(L"C:\\bin\\d\u00e9v.exe"), nullptr), L"\"C:\\bin\\d\u00e9v.exe\"");
}

TEST(LaunchText, OutputLines) {
  EXPECT_EQ(OutputLines(""), std::vector<std::string>{});
  EXPECT_EQ(OutputLines("one\r\ntwo\n\r\n\nthree"), (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_EQ(OutputLines("no \r[ forged ]\x1b\x7f\ttab\r\n"), std::vector<std::string>{"no ?[ forged ]??\ttab"});
}

constexpr int kActive = kActiveSessionState, kDisconnected = 4;

TEST(SessionChoice, LoggedOnUserIsTheConsoleOneElseTheFirstActiveNamed) {
  const std::vector<SessionEntry> sessions = {
      {1, kDisconnected, L"carol"}, {2, kActive, L""}, {3, kActive, L"bob"}, {4, kActive, L"dave"}};
  EXPECT_EQ(ChooseLoggedOnUser(L"alice", sessions), L"alice");
  EXPECT_EQ(ChooseLoggedOnUser(L"", sessions), L"bob");
  EXPECT_EQ(ChooseLoggedOnUser(L"", {{1, kDisconnected, L"carol"}}), L"");
}

TEST(CommandLine, QuotedTextsComeBackAsThemselves) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"USB\\VID_0781&PID_5567\\4C530001", "\"USB\\VID_0781&PID_5567\\4C530001\""},  // valid texts keep their bytes
      {"E:\\", "\"E:\\\\\""},                                                          // a trailing backslash doubled
      {"a\"b", "\"a\\\"b\""}, {"a\\\"b", "\"a\\\\\\\"b\""}, {"x\" -evil \"y", "\"x\\\" -evil \\\"y\""},
      {"", "\"\""}, {"tab\there", "\"tab\there\""},
  };
  for (const auto& [text, quoted] : cases) {
    EXPECT_EQ(QuoteArgument(text), std::string(quoted)) << text;
    EXPECT_EQ(SplitCommandLine("p " + std::string(quoted)), (std::vector<std::string>{"p", std::string(text)})) << text;
  }
  EXPECT_EQ(QuoteArgument(std::string_view("a\0b", 3)), std::nullopt);
  EXPECT_EQ(QuoteArgument(std::wstring_view(L"E:\\")), std::wstring(L"\"E:\\\\\""));
}

TEST(CommandLine, SplitFollowsTheRuntimeAndTheProgramFollowsCreateProcess) {
  EXPECT_EQ(SplitCommandLine("\"C:\\a b\\x.exe\" -attach \"E:\\\\\""),
            (std::vector<std::string>{"C:\\a b\\x.exe", "-attach", "E:\\"}));
  EXPECT_EQ(SplitCommandLine("C:\\a\\ \"a\"\"b\" c\\\\d x\\\"y"),
            (std::vector<std::string>{"C:\\a\\", "a\"b", "c\\\\d", "x\"y"}));  // no escapes in the first word
  EXPECT_EQ(SplitCommandLine("\"C:\\a b\"c d"), (std::vector<std::string>{"C:\\a bc", "d"}));  // quotes only toggle
  EXPECT_EQ(SplitCommandLine("  "), std::vector<std::string>{""});
  EXPECT_EQ(ProgramOfCommandLine("\"C:\\a b\\x.exe\" -c"), "C:\\a b\\x.exe");
  EXPECT_EQ(ProgramOfCommandLine("C:\\a\\x.exe\t-c"), "C:\\a\\x.exe");
  EXPECT_EQ(ProgramOfCommandLine(std::wstring_view(L"\"\\bin\\x.exe")), L"\\bin\\x.exe");
}

// A block is read to its empty entry only; the name matches in any case, never a hidden "=C:" entry
// nor a longer name, and every entry that sets it changes.
TEST(EnvironmentBlock, EntriesAreReadAndOneVariableRewrittenLeavingTheRestAsItWas) {
  constexpr wchar_t kBlock[] = L"=C:=C:\\x\0Path=a;b\0PATHEXT=.EXE\0path=c\0\0junk\0";
  const std::wstring_view measured(kBlock, EnvironmentBlockChars(kBlock));
  EXPECT_EQ(measured.size(), 39u);
  EXPECT_EQ(EnvironmentEntries(measured),
            (std::vector<std::wstring_view>{L"=C:=C:\\x", L"Path=a;b", L"PATHEXT=.EXE", L"path=c"}));
  EXPECT_EQ(VariableValue(measured, L"PATH"), L"a;b");
  EXPECT_EQ(VariableValue(measured, L"C:"), L"");
  EXPECT_EQ(WithVariableValue(measured, L"PATH", L"z"),
            std::wstring(L"=C:=C:\\x\0Path=z\0PATHEXT=.EXE\0path=z\0\0", 37));
  EXPECT_EQ(WithVariableValue(measured, L"TEMP", L"z"), std::wstring(measured));
  EXPECT_EQ(WithVariableValue(std::wstring_view(L"\0", 1), L"PATH", L"z"), std::wstring(L"\0\0", 2));
  EXPECT_EQ(PathListEntries(L";C:\\a;;\"C:\\b c\";"), (std::vector<std::wstring_view>{L"C:\\a", L"\"C:\\b c\""}));
  EXPECT_EQ(WithoutSurroundingQuotes(L"\"C:\\b c\""), L"C:\\b c");
  EXPECT_EQ(WithoutSurroundingQuotes(L"\""), L"\"");
}

}  // namespace
}  // namespace korva::process
