// Where the decryption library is looked for: built from the executable's own folder.
#include <gtest/gtest.h>

#include <string>

#include "tempaccess/core/decryption_path.h"

namespace ta = korva::tempaccess;

namespace {

TEST(DecryptionPath, TwoFoldersUpFromTheExecutableThenBin) {
  EXPECT_EQ(ta::DecryptionLibraryPath(L"C:\\Korva\\DeviceControl\\bin\\korvaAgentService.exe"),
            L"C:\\Korva\\DeviceControl\\bin\\..\\..\\bin\\ClientAuthHandler.dll");
  EXPECT_EQ(ta::DecryptionLibraryPath(L"korvaAgentService.exe"), L"\\..\\..\\bin\\ClientAuthHandler.dll");
}

}  // namespace
