// The folder rule: which folders the agent starts programs from and writes files in.
#include <gtest/gtest.h>

#include <cwchar>
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
  const std::pair<const char*, bool> cases[] = {
      {"C:\\ProgramData", true},
      {"c:\\programdata\\", true},
      {"C:\\Windows\\Temp", true},
      {"C:\\windows", true},
      {"C:\\ProgramData\\Microsoft\\Crypto\\RSA\\MachineKeys", true},
      {"C:\\Users", true},
      {"C:\\Users\\alice\\", true},  // a profile
      {"C:\\Users\\Default", true},
      {"C:\\Apps", true},  // above a folder of Windows: its list would reach it by inheritance
      {"D:\\Data", false},
      {"C:\\ProgramData\\Kestrelix", false},
      {"C:\\Program Files\\Kestrelix\\Korva", false},
      {"C:\\Users\\alice\\Temp\\agent", false},
      {"C:\\Users2", false},
      {"C:\\WindowsApps", false}};
  for (const auto& [folder, own] : cases) EXPECT_EQ(IsWindowsOwnFolder(folder, windows), own) << folder;
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

}  // namespace
}  // namespace korva::folders
