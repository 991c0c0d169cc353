// The encrypted-volume handler's pure rules.
#include <gtest/gtest.h>

#include "encryption/core/volume_rules.h"

namespace korva::encryption {
namespace {

// Only a drive's root names a letter: a folder mount's first letter is the volume that holds the
// folder, which is not the one to check or block.
TEST(DriveLetterOf, OnlyADrivesRootNamesTheVolume) {
  const struct { std::vector<std::wstring> paths; std::optional<wchar_t> letter; } cases[] = {
      {{L"E:\\"}, L'E'}, {{L"e:\\"}, L'E'}, {{L"C:\\mnt\\usb\\", L"F:\\"}, L'F'}, {{L"C:\\mnt\\usb\\"}, std::nullopt},
      {{L"E:"}, std::nullopt}, {{L"1:\\"}, std::nullopt}, {{L"\\\\?\\Volume{1}\\"}, std::nullopt}, {{}, std::nullopt}};
  for (const auto& c : cases) {
    EXPECT_EQ(DriveLetterOf(c.paths), c.letter) << (c.paths.empty() ? std::wstring(L"none") : c.paths.front());
  }
}

}  // namespace
}  // namespace korva::encryption
