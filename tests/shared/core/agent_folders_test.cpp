// The folder rule: which folders the agent starts programs from and writes files in.
#include <gtest/gtest.h>

#include <cwchar>
#include <optional>
#include <tuple>
#include <vector>

#include "shared/core/agent_folders.h"

namespace korva::folders {
namespace {

using F = FolderFault;

TEST(AgentFolders, OnlyLocalAbsoluteFoldersBelowARootPass) {
  const struct { std::string_view folder; FolderFault fault; } cases[] = {
      {"C:\\Program Files\\Kestrelix\\Korva", F::kNone}, {"c:\\Agent\\DeviceControl\\", F::kNone},
      {"D:\\Agent\\DeviceControl\\\\bin", F::kNone},  // the doubled separator the agent's own paths hold
      {"C:\\Agent/bin", F::kNone}, {"", F::kEmpty}, {std::string_view("C:\\Agent\0x", 10), F::kHasNul},
      {"DeviceControl\\", F::kNotFullyQualified},  // a settings file without agent_installed_dir
      {"\\bin", F::kNotFullyQualified}, {"C:bin", F::kNotFullyQualified}, {"C:", F::kNotFullyQualified},
      {"1:\\Agent", F::kNotFullyQualified}, {"C:/Agent", F::kNotFullyQualified},
      {"\\\\server\\share\\Agent", F::kNetworkOrDevice}, {"\\\\?\\C:\\Agent", F::kNetworkOrDevice},
      {"//server/share", F::kNetworkOrDevice}, {"C:\\", F::kDriveRoot}, {"C:\\\\\\", F::kDriveRoot},
      {"C:\\Agent\\..\\bin", F::kDotSegment}, {"C:\\Agent\\. \\bin", F::kDotSegment}, {"C:\\..", F::kDotSegment},
      {"C:\\Korva \\bin", F::kTrailingBlankOrDot}, {"C:\\Korva.", F::kTrailingBlankOrDot},
      {"C:\\Agent:stream", F::kBadCharacter}, {"C:\\Agent\"\\bin", F::kBadCharacter},
      {"C:\\Agent\n\\bin", F::kBadCharacter}, {"C:\\Ag*nt", F::kBadCharacter},
  };
  for (const auto& c : cases) EXPECT_EQ(CheckAgentFolder(c.folder), c.fault) << c.folder;
  EXPECT_EQ(CheckAgentFolder(std::wstring_view(L"C:\\Agent\\bin")), F::kNone);
  EXPECT_EQ(CheckAgentFolder(std::wstring_view(L"\\bin")), F::kNotFullyQualified);
  EXPECT_EQ(CheckAgentFolder(std::string(kMaxFolderChars + 1, 'a').insert(0, "C:\\")), F::kTooLong);
}

TEST(AgentFolders, ProgramPathNeedsAPlainNameInAnAgentFolder) {
  const struct { std::string_view path; FolderFault fault; } cases[] = {
      {"C:\\Agent\\bin\\korvaFaService.exe", F::kNone},
      {"\\bin\\driversetup64.exe", F::kNotFullyQualified},  // an empty installation folder
      {"driversetup64.exe", F::kNotFullyQualified}, {"", F::kEmpty}, {"C:\\korvaConfig.exe", F::kDriveRoot},
      {"C:\\Agent\\bin\\", F::kNotFullyQualified}, {"C:\\Agent\\bin\\..", F::kDotSegment},
      {"C:\\Agent\\bin\\x.exe:ads", F::kBadCharacter}, {"C:\\Agent\\bin\\x.exe ", F::kTrailingBlankOrDot},
  };
  for (const auto& c : cases) EXPECT_EQ(CheckProgramPath(c.path), c.fault) << c.path;
  EXPECT_EQ(CheckProgramPath(std::wstring_view(L"C:\\A\\korvaConfig.exe")), F::kNone);
  EXPECT_STRNE(FaultText(F::kDriveRoot), FaultText(F::kNotFullyQualified));
  for (const auto& [path, folder, within] : {std::tuple{L"C:\\Korva\\bin\\x.dll", L"c:/korva\\", true},
                                              {L"C:\\Korva\\x.dll", L"C:\\Korva", true},
                                              {L"C:\\Korva", L"C:\\Korva", false},
                                              {L"C:\\KorvaX\\x.dll", L"C:\\Korva", false},
                                              {L"C:\\bin\\x.dll", L"C:\\Korva", false},
                                              {L"C:\\x.dll", L"", false}}) {
    EXPECT_EQ(IsWithinFolder(path, folder), within) << std::string(path, path + std::wcslen(path));
  }
  EXPECT_TRUE(IsSameOrWithinFolder("C:\\Korva\\DeviceControl\\", "c:\\korva"));
  EXPECT_TRUE(IsSameOrWithinFolder("C:\\Korva\\", "C:\\Korva"));
  EXPECT_FALSE(IsSameOrWithinFolder("C:\\Users\\Public\\DeviceControl\\", "C:\\Korva"));
  EXPECT_FALSE(IsSameOrWithinFolder("C:\\Korva2", "C:\\Korva"));
  EXPECT_EQ(PrintableText("C:\\a\r\n[ main ] forged\x7f"), "C:\\a??[ main ] forged?");
}

// Windows' own folders, those above them and anything inside the Windows folder never get the
// agent's list; an application's folder inside ProgramData or Program Files does.
TEST(AgentFolders, WindowsOwnFoldersAreTheirsAndWhatLiesAboveThem) {
  const WindowsFolders windows = {{"C:\\ProgramData", "C:\\Program Files\\", "C:\\Users", "", "C:\\Apps\\Shared"},
                                   {"C:\\Windows", "C:\\ProgramData\\Microsoft", ""},
                                   "C:\\Users"};
  const char* const own[] = {"C:\\ProgramData", "c:\\programdata\\", "C:\\Windows\\Temp", "C:\\windows",
                             "C:\\ProgramData\\Microsoft\\Crypto\\RSA\\MachineKeys", "C:\\Users",
                             "C:\\Users\\alice\\",  // a profile
                             "C:\\Users\\Default",
                             "C:\\Apps"};  // above a folder of Windows: its list would reach it by inheritance
  const char* const notOwn[] = {"D:\\Data", "C:\\ProgramData\\Kestrelix", "C:\\Program Files\\Kestrelix\\Korva",
                                "C:\\Users\\alice\\Temp\\agent", "C:\\Users2", "C:\\WindowsApps"};
  for (const char* folder : own) EXPECT_TRUE(IsWindowsOwnFolder(folder, windows)) << folder;
  for (const char* folder : notOwn) EXPECT_FALSE(IsWindowsOwnFolder(folder, windows)) << folder;
}

// Each step a path is opened through, so each can be looked at for a link.
TEST(AgentFolders, PathStepsAreEachFolderBelowTheRootThenThePath) {
  using Steps = std::vector<std::wstring_view>;
  const struct { std::wstring_view path; Steps steps; } cases[] = {
      {L"C:\\Korva\\bin\\x.exe", {L"C:\\Korva", L"C:\\Korva\\bin", L"C:\\Korva\\bin\\x.exe"}},
      {L"c:/Korva\\\\DeviceControl\\", {L"c:/Korva", L"c:/Korva\\\\DeviceControl"}},
      {L"D:\\\\A", {L"D:\\\\A"}}, {L"C:\\", {}}, {L"C:", {}}, {L"\\\\server\\share\\A", {}}, {L"Korva\\bin", {}},
  };
  for (const auto& c : cases) {
    Steps steps;
    for (const std::size_t end : PathStepEnds(c.path)) steps.push_back(c.path.substr(0, end));
    EXPECT_EQ(steps, c.steps) << std::string(c.path.begin(), c.path.end());
  }
}

// A drive is the machine's own only on disks no user can bring. The disks under the volume decide when
// they are known, every one of them; a volume with none is judged by its own bus.
TEST(AgentFolders, ADriveIsTheMachinesOwnOnlyOnDisksNoUserCanBring) {
  enum : unsigned {
    k1394 = 0x4, kUsb = 0x7, kRaid = 0x8, kIscsi = 0x9, kSata = 0xB, kSd = 0xC, kMmc = 0xD, kVirtual = 0xE,
    kFileBacked = 0xF, kSpaces = 0x10, kNvme = 0x11
  };
  using Disks = std::optional<DiskBuses>;
  using D = DriveDoubt;
  const struct { std::optional<unsigned> volume; Disks disks; DriveDoubt doubt; const char* what; } cases[] = {
      {kSata, {}, D::kNone, "a basic disk"},
      {kNvme, {}, D::kNone, "an NVMe disk"},
      {kRaid, {}, D::kNone, "a RAID set"},
      {kIscsi, {}, D::kNone, "an iSCSI disk"},
      {kSpaces, {}, D::kWorkstationSpace, "a storage space on a workstation: its pool may be USB disks"},
      {kUsb, {}, D::kUserBus, "a USB disk"},
      {k1394, {}, D::kUserBus, "a FireWire disk"},
      {kSd, {}, D::kUserBus, "an SD card"},
      {kMmc, {}, D::kUserBus, "an MMC card"},
      {kFileBacked, {}, D::kUserBus, "a disk image"},
      {kVirtual, {}, D::kContainer, "a container's volume, no disk under it"},
      {std::nullopt, {}, D::kUnreadableBus, "nothing readable"},
      {kSata, DiskBuses{}, D::kNone, "no extents: the volume's own bus"},
      {kVirtual, DiskBuses{}, D::kContainer, "no extents: the volume's own bus, virtual"},
      {kVirtual, DiskBuses{kVirtual}, D::kNone, "a network block disk on a storage adapter"},
      {std::nullopt, DiskBuses{kSata, kNvme}, D::kNone, "a spanned volume with no bus of its own"},
      {std::nullopt, DiskBuses{kSata, kUsb}, D::kUserBus, "mirrored onto a USB disk"},
      {std::nullopt, DiskBuses{kSata, std::nullopt}, D::kUnreadableBus, "one disk's bus unreadable"},
      {kSata, DiskBuses{kUsb}, D::kUserBus, "the disk decides over the volume"},
      {std::nullopt, DiskBuses{kSata, kSpaces}, D::kWorkstationSpace, "spanned onto a storage space on a workstation"},
      {kVirtual, DiskBuses{kFileBacked}, D::kUserBus, "on a disk image"},
  };
  for (const auto& c : cases) EXPECT_EQ(DoubtAboutDrive(DriveBuses{c.volume, c.disks, false}), c.doubt) << c.what;
  // On a server a storage space is the server's storage; nothing else changes there.
  const struct { std::optional<unsigned> volume; Disks disks; DriveDoubt doubt; const char* what; } onServer[] = {
      {kSpaces, {}, D::kNone, "a storage space"},
      {kSata, DiskBuses{kSpaces, kSata}, D::kNone, "spanned onto a storage space"},
      {kUsb, {}, D::kUserBus, "a USB disk"},
      {kVirtual, {}, D::kContainer, "a container's volume"},
      {std::nullopt, DiskBuses{kSpaces, std::nullopt}, D::kUnreadableBus, "one disk's bus unreadable"},
  };
  for (const auto& c : onServer) EXPECT_EQ(DoubtAboutDrive(DriveBuses{c.volume, c.disks, true}), c.doubt) << c.what;
}

// Only the system's own disk stack's volumes name real disks in their extents; another volume driver
// may make a disk number up.
TEST(AgentFolders, OnlyTheDiskStacksVolumesNameTheirDisks) {
  const struct { std::wstring_view device; bool stack; } cases[] = {
      {L"\\Device\\HarddiskVolume3", true}, {L"\\device\\harddiskvolume12", true},
      {L"\\Device\\HarddiskDmVolumes\\PC-Dg0\\Volume1", true}, {L"\\Device\\HarddiskVolume", false},
      {L"\\Device\\HarddiskDmVolumes\\", false}, {L"\\Device\\Volume{d6cc17c5-1734-4085-bce7-964f1e9f5de9}", false},
      {L"\\Device\\VeraCryptVolumeZ", false}, {L"\\??\\C:\\Users\\alice\\box", false},
      {L"\\Device\\CdRom0", false}, {L"", false}, {L"HarddiskVolume3", false},
      {L"\\Device\\HarddiskVolumeShadowCopy1", false}, {L"\\Device\\HarddiskVolume3\\x", false},
      {L"\\Device\\HarddiskDmVolumes\\\\Volume1", false}, {L"\\Device\\HarddiskDmVolumes\\PC-Dg0\\Volume", false},
      {L"\\Device\\HarddiskDmVolumes\\PC-Dg0\\Volume1\\x", false}};
  for (const auto& c : cases) {
    EXPECT_EQ(IsDiskStackVolume(c.device), c.stack) << std::string(c.device.begin(), c.device.end());
  }
}

}  // namespace
}  // namespace korva::folders
