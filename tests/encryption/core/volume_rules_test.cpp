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

// A volume is named by its letter, or by its GUID name when it has none; only those two shapes open a
// volume or reach a query, so no other text (a quote among it) ever gets into one.
TEST(VolumeId, ALetterOrTheGuidNameAndOnlyThoseOpenOrQuery) {
  const std::wstring guid = L"\\\\?\\Volume{0b5e2ac1-aB09-0000-0000-100000000000}\\";
  EXPECT_EQ(VolumeId({L"C:\\mnt\\usb\\", L"e:\\"}, guid), L"E:");
  EXPECT_EQ(VolumeId({L"C:\\mnt\\usb\\"}, guid), guid);
  EXPECT_EQ(VolumeId({}, guid), guid);
  const std::wstring select = L"SELECT DriveLetter, ProtectionStatus FROM Win32_EncryptableVolume WHERE ";
  const struct { std::wstring volume, device; std::optional<std::wstring> query; } cases[] = {
      {L"E:", L"\\\\.\\E:", select + L"DriveLetter = 'E:'"},
      {guid, guid.substr(0, guid.size() - 1),
       select + L"DeviceID = '\\\\\\\\?\\\\Volume{0b5e2ac1-aB09-0000-0000-100000000000}\\\\'"},
      {L"e:", L"", std::nullopt}, {L"E:\\", L"", std::nullopt}, {L"", L"", std::nullopt},
      {L"\\\\?\\Volume{}\\", L"", std::nullopt}, {L"\\\\?\\Volume{1' OR '1'='1}\\", L"", std::nullopt},
      {L"\\\\?\\Volume{12}", L"", std::nullopt}, {L"\\\\.\\Volume{12}\\", L"", std::nullopt}};
  for (const auto& c : cases) {
    EXPECT_EQ(IsVolumeGuidName(c.volume), c.volume == guid) << c.volume;
    EXPECT_EQ(VolumeDevicePath(c.volume), c.device) << c.volume;
    EXPECT_EQ(ProtectionQuery(c.volume), c.query) << c.volume;
  }
}

// A volume is blocked once while it stays unprotected, and again once it lost a protection it had
// (read protected, or locked, in between); with monitoring off nothing is blocked.
TEST(ShouldBlock, OnceWhileUnprotectedAndAgainAfterItWasProtected) {
  const struct { bool monitoring; std::vector<long> statuses; int blocks; } cases[] = {
      {true, {0, 0, 0}, 1}, {true, {0, 1, 0}, 2}, {true, {0, 2, 0, 0}, 2}, {true, {1, 1, 0, 0, 1, 0}, 2},
      {true, {1, 2}, 0},    {false, {0, 1, 0}, 0}};
  for (const auto& c : cases) {
    bool blocked = false;
    int blocks = 0;
    for (const long status : c.statuses) {
      blocked = BlockStands(status, blocked);
      if (ShouldBlock(c.monitoring, status, blocked)) {
        ++blocks;
        blocked = true;
      }
    }
    EXPECT_EQ(blocks, c.blocks) << "case " << &c - cases;
  }
}

}  // namespace
}  // namespace korva::encryption
