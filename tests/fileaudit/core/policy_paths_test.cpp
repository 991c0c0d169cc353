// Where the policy files are looked up.
#include "fileaudit/core/policy_paths.h"

#include <gtest/gtest.h>

TEST(PolicyPaths, PolicyFolderUnderTheBasePathWithOneSeparator) {
  using korva::fileaudit::PolicyFilePath;
  EXPECT_EQ(PolicyFilePath("C:\\Agent", "devicecontrol.json"), "C:\\Agent\\data\\policy\\devicecontrol.json");
  EXPECT_EQ(PolicyFilePath("C:\\Agent\\", "secureusb.json"), "C:\\Agent\\data\\policy\\secureusb.json");
  EXPECT_EQ(PolicyFilePath("", "secureusb.json"), "data\\policy\\secureusb.json");
}
