// The launchers' pure decisions: wait lengths, child command lines, log lines, output lines.
#include "process/core/launch_text.h"

#include <gtest/gtest.h>

namespace korva::process {
namespace {

TEST(LaunchText, WaitIsMinutesTimesSixtyThousandWithoutWrapping) {
  struct Case {
    std::uint32_t minutes;
    std::uint32_t expected;
  };
  const Case cases[] = {
      {0, 0},
      {1, 60000},
      {2, 120000},
      {60, 3600000},
      {71582, 4294920000u},  // the largest count that fits
      {71583, 0xFFFFFFFEu},  // would wrap to a short wait: saturates below INFINITE
      {0xFFFFFFFFu, 0xFFFFFFFEu},
  };
  for (const Case& c : cases) EXPECT_EQ(WaitMillisecondsForMinutes(c.minutes), c.expected) << c.minutes;
}

TEST(LaunchText, ChildCommandLineQuotesTheApplication) {
  struct Case {
    const char* application;
    const char* arguments;
    const char* expected;
  };
  const Case cases[] = {
      {"C:\\Program Files\\Korva\\bin\\devctrlaction64.exe", "-c 12",
       "\"C:\\Program Files\\Korva\\bin\\devctrlaction64.exe\" -c 12"},
      {"C:\\bin\\korvaFaUser.exe", nullptr, "\"C:\\bin\\korvaFaUser.exe\""},
      {"C:\\bin\\korvaFaUser.exe", "", "\"C:\\bin\\korvaFaUser.exe\""},
      {"\"C:\\bin\\x.exe\"", "-s ET_ENUM 9 2 \"Unknown\"", "\"C:\\bin\\x.exe\" -s ET_ENUM 9 2 \"Unknown\""},
      {"\"", "a", "\"\"\" a"},  // a lone quote is not a quoted path
      {"", nullptr, "\"\""},
  };
  for (const Case& c : cases) EXPECT_EQ(AppCommandLine(std::string_view(c.application), c.arguments), c.expected);
  EXPECT_EQ(AppCommandLine(std::wstring_view(L"C:\\bin\\d\u00e9v.exe"), L"-c 7 -n J\u00fcrgen"),
            L"\"C:\\bin\\d\u00e9v.exe\" -c 7 -n J\u00fcrgen");
  EXPECT_EQ(AppCommandLine(std::wstring_view(L"C:\\bin\\a.exe"), nullptr), L"\"C:\\bin\\a.exe\"");
}

TEST(LaunchText, LogLines) {
  EXPECT_EQ(TimeExceededLine(L"\"C:\\bin\\driversetup64.exe\" -start", 2),
            L"Terminating the Process for application \"C:\\bin\\driversetup64.exe\" -start as time is exceeded 2 "
            L"Minutes ");
  EXPECT_EQ(CurrentDirectoryOverflowLine(5000),
            "CurrentWorkingDirectory Buffer overflow. Need to allocate the length for 5000 chars");
  EXPECT_STREQ(kShutdownRemarks, "Machine is shutdown. Installation will retried in the next reboot");
  EXPECT_EQ(kShutdownRefusalCode, 1237u);
  EXPECT_EQ(kTimedOutCode, 258u);
}

TEST(LaunchText, OutputLines) {
  struct Case {
    const char* output;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"", {}},
      {"one", {"one"}},
      {"one\r\ntwo\r\n", {"one", "two"}},
      {"one\ntwo", {"one", "two"}},
      {"\r\n\r\nafter blanks\n\n", {"after blanks"}},
      {"keeps \r inside\r\n", {"keeps \r inside"}},
  };
  for (const Case& c : cases) EXPECT_EQ(OutputLines(c.output), c.expected) << c.output;
}

}  // namespace
}  // namespace korva::process
