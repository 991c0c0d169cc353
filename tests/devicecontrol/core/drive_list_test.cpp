// The drive-list merge: kept part, new part, case folding and repeats.
#include "devicecontrol/core/drive_list.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using korva::devicecontrol::MergeDriveList;
using korva::devicecontrol::SameDrivePath;
using Paths = std::vector<std::wstring>;

TEST(DriveListMerge, KeepsScanOrderPutsNewDrivesLastAndDropsMissingOnes) {
  struct Case { const char* what; Paths current; Paths scan; bool wasEmpty; Paths list; Paths added; };
  const Case cases[] = {
      {"first scan takes the scan as it is", {}, {L"F:\\", L"E:\\"}, true, {L"F:\\", L"E:\\"}, {L"F:\\", L"E:\\"}},
      {"same drives again: nothing new", {L"E:\\", L"F:\\"}, {L"E:\\", L"F:\\"}, false, {L"E:\\", L"F:\\"}, {}},
      {"new drive goes after the kept ones", {L"F:\\"}, {L"E:\\", L"F:\\"}, false, {L"F:\\", L"E:\\"}, {L"E:\\"}},
      {"removed drive drops out", {L"E:\\", L"F:\\", L"G:\\"}, {L"G:\\", L"E:\\"}, false, {L"G:\\", L"E:\\"}, {}},
      {"case differences are the same drive, spelled as scanned", {L"e:\\", L"F:\\"}, {L"E:\\", L"f:\\", L"G:\\"},
       false, {L"E:\\", L"f:\\", L"G:\\"}, {L"G:\\"}},
      {"a repeated scan entry counts once (kept and new)", {L"E:\\"}, {L"E:\\", L"G:\\", L"e:\\", L"g:\\"}, false,
       {L"E:\\", L"G:\\"}, {L"G:\\"}},
  };
  for (const Case& c : cases) {
    const auto merge = MergeDriveList(c.current, c.scan);
    EXPECT_EQ(merge.listWasEmpty, c.wasEmpty) << c.what;
    EXPECT_EQ(merge.list, c.list) << c.what;
    EXPECT_EQ(merge.added, c.added) << c.what;
  }
}

TEST(DriveListMerge, FoldsOnlyAsciiLetters) {
  EXPECT_TRUE(SameDrivePath(L"C:\\Mnt\\Z\\", L"c:\\mNT\\z\\"));
  EXPECT_FALSE(SameDrivePath(L"E:\\", L"E:"));
  // '@' and '`' sit 32 apart around the letters but are not letters.
  EXPECT_FALSE(SameDrivePath(L"@", L"`"));
  EXPECT_FALSE(SameDrivePath(L"\u00C4", L"\u00E4"));  // only ASCII folds
}

}  // namespace
