// Line layout, header bytes and rolled file names of the service log.
#include "settings/core/log_format.h"

#include <gtest/gtest.h>

#include <string>

namespace lf = korva::logformat;

namespace {

std::string Line(unsigned ms, std::uint32_t tid, int severity, const char* function, const char* message) {
  char date[lf::kDateTimeLength];
  lf::FormatDateTime({2024, 3, 7, 9, 5, 1}, date);
  std::string out;
  lf::AppendLine(out, std::string_view(date, sizeof date), ms, tid, severity, function, message);
  return out;
}

TEST(LogFormat, LineHasTheExactLayout) {
  EXPECT_EQ(Line(42, 4712, 4, "main", "Log Opened."),
            "[ 2024-03-07 09:05:01:042 ] [ 00004712 ] [  INFO ] [ main ] Log Opened.\r\n");
}

TEST(LogFormat, SeverityNamesAreRightAlignedInFiveOrWhole) {
  struct Case { int severity; const char* text; };
  const Case cases[] = {{1, "[ FATAL ]"}, {2, "[ ERROR ]"}, {3, "[ WARNING ]"}, {4, "[  INFO ]"},
                        {5, "[ DEBUG ]"}, {6, "[ VERBOSE ]"}, {7, "[ UNKNOWN ]"}, {0, "[ UNKNOWN ]"}};
  for (const Case& c : cases) {
    EXPECT_NE(Line(0, 1, c.severity, "f", "m").find(c.text), std::string::npos) << c.severity;
  }
}

TEST(LogFormat, ThreadIdPadsToEightAndGrowsBeyond) {
  EXPECT_NE(Line(0, 0, 4, "f", "m").find("[ 00000000 ]"), std::string::npos);
  EXPECT_NE(Line(0, 4294967295u, 4, "f", "m").find("[ 4294967295 ]"), std::string::npos);
}

TEST(LogFormat, MillisecondsAndDateFieldsAreZeroPadded) {
  char date[lf::kDateTimeLength];
  lf::FormatDateTime({2025, 12, 31, 23, 59, 58}, date);
  EXPECT_EQ(std::string(date, sizeof date), "2025-12-31 23:59:58");
  EXPECT_EQ(Line(7, 1, 4, "f", "m").substr(0, 28), "[ 2024-03-07 09:05:01:007 ] ");
  EXPECT_EQ(Line(999, 1, 4, "f", "m").substr(0, 28), "[ 2024-03-07 09:05:01:999 ] ");
}

TEST(LogFormat, EveryNewlineBecomesCrLf) {
  const std::string line = Line(0, 1, 4, "f", "a\nb\n");
  EXPECT_EQ(line.substr(line.find("[ f ]")), "[ f ] a\r\nb\r\n\r\n");
  std::string out;
  lf::AppendWithCrLf(out, "\n\nx");
  EXPECT_EQ(out, "\r\n\r\nx");
}

TEST(LogFormat, NewFileStartsWithBomAndHeader) {
  EXPECT_EQ(lf::NewFileHeaderBytes(), "\xEF\xBB\xBF" "Date/Time | ThreadID | Severity | Function | Message\r\n");
}

TEST(LogFormat, RolledNamesGlueTheNumberBeforeTheExtension) {
  const lf::SplitName name = lf::SplitFileName(L"C:\\ProgramData\\logs\\korva_agentservice.log");
  EXPECT_EQ(lf::RolledFileName(name, 0), L"C:\\ProgramData\\logs\\korva_agentservice.log");
  EXPECT_EQ(lf::RolledFileName(name, 1), L"C:\\ProgramData\\logs\\korva_agentservice1.log");
  EXPECT_EQ(lf::RolledFileName(name, 4), L"C:\\ProgramData\\logs\\korva_agentservice4.log");
}

TEST(LogFormat, DotInTheFolderDoesNotSplitTheName) {
  const lf::SplitName name = lf::SplitFileName(L"C:\\a.b\\logs\\korva_agentservice.log");
  EXPECT_EQ(name.nameWithoutExtension, L"C:\\a.b\\logs\\korva_agentservice");
  EXPECT_EQ(name.extension, L"log");
  EXPECT_EQ(lf::RolledFileName(name, 2), L"C:\\a.b\\logs\\korva_agentservice2.log");
  const lf::SplitName noExt = lf::SplitFileName(L"C:\\a.b\\logs\\journal");
  EXPECT_EQ(noExt.extension, L"");
  EXPECT_EQ(lf::RolledFileName(noExt, 3), L"C:\\a.b\\logs\\journal3");
}

}  // namespace
