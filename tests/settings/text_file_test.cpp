// Appending formatted text to small text files.
#include <windows.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "settings/text_file.h"
#include "support/test_support.h"
#include "win/strings.h"

namespace {

using korva::test::ReadFileBytes;

// A missing folder gives the errno and its line; the next file is written all the same.
TEST(AppendFormattedText, FormatsAndAppendsInTextModeAndAMissingFolderIsLogged) {
  korva::test::TempDir dir;
  const std::string absent = korva::win::WideToAnsi(dir.File(L"absent\\access.log"));
  korva::test::LogCapture log(4);
  EXPECT_EQ(korva::AppendFormattedText(absent.c_str(), "%d\n", 1), ENOENT);
  EXPECT_TRUE(korva::test::HasLogLine(log.Text(), "AppendFormattedText", "Unable to open " + absent + ". errno : 2"));

  const std::wstring path = dir.File(L"korva_agentserviceaccess.log");
  const std::string narrow = korva::win::WideToAnsi(path);
  korva::test::WriteFileBytes(path, "kept ");
  ASSERT_EQ(korva::AppendFormattedText(narrow.c_str(), "%s,%d-%d,%02d,%5.1f%%\n", "Device_Event_Notification", 7, 2024,
                                       5, 12.34),
            0);
  const std::string big(100000, 'q');
  ASSERT_EQ(korva::AppendFormattedText(narrow.c_str(), "[%s]\n", big.c_str()), 0);
  EXPECT_EQ(ReadFileBytes(path), "kept Device_Event_Notification,7-2024,05, 12.3%\r\n[" + big + "]\r\n");
}

}  // namespace
