// Where the decryption library is looked for: a full local path from the executable's, or none.
#include <gtest/gtest.h>

#include <string>

#include "tempaccess/core/decryption_path.h"

namespace ta = korva::tempaccess;

namespace {

TEST(DecryptionPath, OnlyAPathFromADriveLetterIsFullyQualified) {
  const struct {
    std::wstring executable;
    bool qualified;
  } cases[] = {
      {L"C:\\Program Files\\Korva\\DeviceControl\\bin\\korvaAgentService.exe", true},
      {L"z:\\a.exe", true},
      {L"C:bin\\a.exe", false},                   // relative to drive C's current folder
      {L"bin\\korvaAgentService.exe", false},     // relative to the current directory
      {L"korvaAgentService.exe", false},          // no folder at all
      {L"\\bin\\korvaAgentService.exe", false},   // the current drive's root
      {L"\\\\server\\share\\bin\\a.exe", false},  // UNC
      {L"\\\\?\\C:\\bin\\a.exe", false},
      {L"1:\\bin\\a.exe", false},
      {std::wstring(L"C:\\b\0in\\a.exe", 13), false},
  };
  for (const auto& c : cases) {
    const std::wstring library = ta::DecryptionLibraryPath(c.executable);
    EXPECT_EQ(ta::IsFullyQualifiedLocalPath(library), c.qualified) << std::string(library.begin(), library.end());
  }
}

}  // namespace
