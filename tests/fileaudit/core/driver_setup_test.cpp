// The setup program's command lines and the release folders.
#include "fileaudit/core/driver_setup.h"

#include <gtest/gtest.h>

namespace {

using namespace korva::fileaudit;

TEST(DriverSetup, ReleaseFolderByOsFamily) {
  const struct {
    int family;
    const char* folder;  // null: not supported
    const char* message;
  } cases[] = {{2, nullptr, ""},
               {3, "Win7", "Detected as Windows 7."},
               {4, "Win8", "Detected as Windows 8."},
               {5, "Win8.1", "Detected as Windows 8_1."},
               {6, "Win10", "Detected as Windows 10."},
               {7, "Win10", "Detected as Windows 10 or Latest."},
               {8, nullptr, ""}};
  for (const auto& c : cases) {
    const ReleaseFolder release = ReleaseFolderForFamily(c.family);
    EXPECT_EQ(release.supported, c.folder != nullptr) << c.family;
    EXPECT_EQ(release.folder, c.folder != nullptr ? c.folder : "") << c.family;
    EXPECT_EQ(release.message, c.message) << c.family;
  }
}

TEST(DriverSetup, CommandsPerRequest) {
  const std::string prefix = SetupCommandPrefix("C:\\A\\bin", true);
  const std::string inf = InfPath("C:\\A\\bin", true, "Win10");
  EXPECT_EQ(prefix, "\"C:\\A\\bin\\driversetup64.exe\" ");
  EXPECT_EQ(inf, "\"C:\\A\\bin\\driver\\x64\\Win10\\QVFAFilter.inf\"");
  EXPECT_EQ(SetupCommandPrefix("B", false), "\"B\\driversetup32.exe\" ");
  EXPECT_EQ(InfPath("B", false, ""), "\"B\\driver\\x86\\\\QVFAFilter.inf\"");
  EXPECT_EQ(RequestCommand(prefix, kDriverStart, inf), prefix + "-start");
  EXPECT_EQ(RequestCommand(prefix, kDriverStop, inf), prefix + "-stop");
  EXPECT_EQ(RequestCommand(prefix, kDriverInstall, inf), prefix + "-install " + inf);
  EXPECT_EQ(RequestCommand(prefix, kDriverUninstall, inf), prefix + "-uninstall " + inf);
  EXPECT_EQ(RequestCommand(prefix, 9, inf), prefix);
  EXPECT_EQ(InstallCommand(prefix, inf), prefix + " -install " + inf);
}

}  // namespace
