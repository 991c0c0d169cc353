// The attach and file-shadow command lines and the attach exit codes.
#include "fileaudit/core/filter_commands.h"

#include <gtest/gtest.h>

namespace {

using namespace korva::fileaudit;

TEST(FilterCommands, DriveBackslashesAreDoubledOnceWhateverTheyWere) {
  const struct {
    const char* drive;
    const char* expected;
  } cases[] = {{"E:\\", "E:\\\\"},
               {"E:\\\\", "E:\\\\"},
               {"", ""},
               {"\\\\\\", "\\\\\\\\"},
               {"C:\\mnt\\usb\\", "C:\\\\mnt\\\\usb\\\\"}};
  for (const auto& c : cases) EXPECT_EQ(DoubledBackslashes(c.drive), c.expected) << c.drive;
}

TEST(FilterCommands, CommandLinesQuoteTheProgramAndTheDrive) {
  EXPECT_EQ(BinFolder("C:\\Agent"), "C:\\Agent\\bin");
  EXPECT_EQ(AttachCommandLine(BinFolder("C:\\Agent"), "E:\\"),
            "\"C:\\Agent\\bin\\korvaFaService.exe\" -attach \"E:\\\\\"");
  EXPECT_EQ(FileShadowCommandLine("C:\\A\\bin", "E:\\\\"), "\"C:\\A\\bin\\korvaFileShadow.exe\" \"E:\\\\\"");
}

TEST(FilterCommands, OnlyTheFourSuccessCodesMeanStartedNow) {
  for (unsigned long code : {0ul, 1508ul, 1641ul, 3010ul}) EXPECT_TRUE(IsAttachStarted(code)) << code;
  for (unsigned long code : {1ul, 2ul, 258ul, 1507ul, 3011ul}) EXPECT_FALSE(IsAttachStarted(code)) << code;
}

}  // namespace
