// Appending formatted text to small text files.
#include <windows.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "settings/text_file.h"
#include "support/test_support.h"
#include "win/strings.h"

namespace {

using korva::test::FileExists;
using korva::test::ReadFileBytes;

TEST(AppendFormattedText, CreatesTheFileFormatsAndAppendsInTextMode) {
  korva::test::TempDir dir;
  const std::wstring path = dir.File(L"korva_agentserviceaccess.log");
  const std::string narrow = korva::win::WideToAnsi(path);
  const std::string row = "Device_Event_Notification,7-3-2024,09:05:01, 12.3%\r\n";
  ASSERT_EQ(korva::AppendFormattedText(narrow.c_str(), "%s,%d-%d-%d,%02d:%02d:%02d,%5.1f%%\n",
                                       "Device_Event_Notification", 7, 3, 2024, 9, 5, 1, 12.34),
            0);
  EXPECT_EQ(ReadFileBytes(path), row);
  ASSERT_EQ(korva::AppendFormattedText(narrow.c_str(), "no newline %c", 'x'), 0);
  ASSERT_EQ(korva::AppendFormattedText(narrow.c_str(), "%s", ""), 0);
  ASSERT_EQ(korva::AppendFormattedText(narrow.c_str(), "\n%u\n", 4294967295u), 0);
  EXPECT_EQ(ReadFileBytes(path), row + "no newline x\r\n4294967295\r\n");
}

TEST(AppendFormattedText, LongTextIsWrittenWhole) {
  korva::test::TempDir dir;
  const std::wstring path = dir.File(L"long.txt");
  const std::string narrow = korva::win::WideToAnsi(path);
  const std::string existing = "kept as it was";
  korva::test::WriteFileBytes(path, existing);
  const std::string big(100000, 'q');
  ASSERT_EQ(korva::AppendFormattedText(narrow.c_str(), "[%s]", big.c_str()), 0);
  EXPECT_EQ(ReadFileBytes(path), existing + "[" + big + "]");
}

TEST(AppendFormattedText, MissingFolderGivesTheErrnoAndIsLogged) {
  korva::test::TempDir dir;
  const std::wstring path = dir.File(L"absent\\access.log");
  const std::string narrow = korva::win::WideToAnsi(path);
  korva::test::LogCapture log(4);
  EXPECT_EQ(korva::AppendFormattedText(narrow.c_str(), "%d\n", 1), ENOENT);
  EXPECT_FALSE(FileExists(path));
  EXPECT_TRUE(korva::test::HasLogLine(log.Text(), "AppendFormattedText", "Unable to open " + narrow + ". errno : 2"));
}

}  // namespace
