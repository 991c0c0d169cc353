// The driver package's release folder for each OS family.
#include "fileaudit/core/driver_setup.h"

#include <gtest/gtest.h>

TEST(DriverSetup, ReleaseFolderByOsFamily) {
  const struct {
    int family;
    const char* folder;  // empty: not supported
    const char* message;
  } cases[] = {{2, "", ""},
               {3, "Win7", "Detected as Windows 7."},
               {4, "Win8", "Detected as Windows 8."},
               {5, "Win8.1", "Detected as Windows 8_1."},
               {6, "Win10", "Detected as Windows 10."},
               {7, "Win10", "Detected as Windows 10 or Latest."},
               {8, "", ""}};
  for (const auto& c : cases) {
    const auto release = korva::fileaudit::ReleaseFolderForFamily(c.family);
    EXPECT_EQ(release.supported, c.folder[0] != '\0') << c.family;
    EXPECT_EQ(release.folder, c.folder) << c.family;
    EXPECT_EQ(release.message, c.message) << c.family;
  }
}
