// Line layout and rolled file names of the service log.
#include "settings/core/log_format.h"

#include <gtest/gtest.h>

#include <string>

namespace lf = korva::logformat;

namespace {

std::string Line(unsigned ms, std::uint32_t tid, int severity, const char* message = "m") {
  char date[lf::kDateTimeLength];
  lf::FormatDateTime({2024, 3, 7, 9, 5, 1}, date);
  std::string out;
  lf::AppendLine(out, std::string_view(date, sizeof date), ms, tid, severity, "f", message);
  return out;
}

TEST(LogFormat, LineHasTheExactLayoutWithPaddedFieldsAndCrLf) {
  EXPECT_EQ(Line(42, 4712, 4, "Log\nOpened."),
            "[ 2024-03-07 09:05:01:042 ] [ 00004712 ] [  INFO ] [ f ] Log\r\nOpened.\r\n");
  EXPECT_EQ(Line(7, 0, 4).substr(0, 41), "[ 2024-03-07 09:05:01:007 ] [ 00000000 ] ");
  EXPECT_NE(Line(0, 4294967295u, 4).find("[ 4294967295 ]"), std::string::npos);
}

TEST(LogFormat, SeverityNamesAreRightAlignedInFiveOrWhole) {
  const char* names[] = {"[ UNKNOWN ]", "[ FATAL ]", "[ ERROR ]",   "[ WARNING ]",
                         "[  INFO ]",   "[ DEBUG ]", "[ VERBOSE ]", "[ UNKNOWN ]"};
  for (int s = 0; s <= 7; ++s) EXPECT_NE(Line(0, 1, s).find(names[s]), std::string::npos) << s;
}

TEST(LogFormat, RolledNamesGlueTheNumberBeforeTheExtensionNotAFoldersDot) {
  const lf::SplitName name = lf::SplitFileName(L"C:\\a.b\\logs\\korva_agentservice.log");
  EXPECT_EQ(lf::RolledFileName(name, 0), L"C:\\a.b\\logs\\korva_agentservice.log");
  EXPECT_EQ(lf::RolledFileName(name, 4), L"C:\\a.b\\logs\\korva_agentservice4.log");
  EXPECT_EQ(lf::RolledFileName(lf::SplitFileName(L"C:\\a.b\\logs\\journal"), 3), L"C:\\a.b\\logs\\journal3");
}

}  // namespace
