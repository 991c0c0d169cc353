// Whether the file-audit filter is wanted: the stop switch and the two policy files, against the
// real registry and files.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "fileaudit/filter_cycle.h"
#include "settings/registry.h"
#include "support/test_support.h"

namespace {

using korva::test::HasLogLine;

constexpr const char* kQvmSettings = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings";

enum class File { kAbsent, kEmpty, kPolicy };

struct Case {
  const char* name;
  const char* stopFileAudit;  // DWORD text, or null for no value
  File deviceControl;
  File secureUsb;
  int required;
};

class FilterRequirementTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korva::test::CleanAgentRegistry();
    ASSERT_EQ(writeValue(korva::test::kAgentKey, "BasePath", REG_SZ, base_.NarrowPath()), 0);
    CreateDirectoryW(base_.File(L"data").c_str(), nullptr);
    CreateDirectoryW(base_.File(L"data\\policy").c_str(), nullptr);
  }
  void TearDown() override { korva::test::CleanAgentRegistry(); }

  void Place(const wchar_t* name, File file) const {
    const std::wstring path = base_.File(std::wstring(L"data\\policy\\") + name);
    DeleteFileW(path.c_str());
    if (file != File::kAbsent) korva::test::WriteFileBytes(path, file == File::kPolicy ? "{\"rules\":[]}" : "");
  }

  korva::test::TempDir base_;
};

TEST_F(FilterRequirementTest, StopSwitchAndPolicyFilesDecide) {
  const Case cases[] = {
      {"no policy at all", nullptr, File::kAbsent, File::kAbsent, 0},
      {"empty policy files count as none", nullptr, File::kEmpty, File::kEmpty, 0},
      {"device-control policy", nullptr, File::kPolicy, File::kAbsent, 1},
      {"secure-USB policy alone", "0", File::kEmpty, File::kPolicy, 1},
      {"stopped by policy wins over a policy file", "1", File::kPolicy, File::kPolicy, 0},
      {"a stop switch other than 1 does not stop", "2", File::kPolicy, File::kAbsent, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto settings = korva::test::CreateAgentKey(L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings");
    RegDeleteValueA(settings.get(), "IsStopFileAudit");
    if (c.stopFileAudit != nullptr) {
      ASSERT_EQ(writeValue(kQvmSettings, "IsStopFileAudit", REG_DWORD, c.stopFileAudit), 0);
    }
    Place(L"devicecontrol.json", c.deviceControl);
    Place(L"secureusb.json", c.secureUsb);
    korva::test::LogCapture log;
    EXPECT_EQ(CheckQVFAFilterRequirement(), c.required);
    const std::string text = log.Text();
    EXPECT_TRUE(HasLogLine(text, "CheckQVFAFilterRequirement", "isQVFAFilterRequired :" + std::to_string(c.required)));
    // The secure-USB file is looked at only when the device-control one did not decide.
    const bool secureUsbChecked = c.stopFileAudit == nullptr || std::string(c.stopFileAudit) != "1";
    EXPECT_EQ(text.find("[ CheckSecureUSBConfigurationStatus ] Policy file") != std::string::npos,
              secureUsbChecked && c.deviceControl != File::kPolicy);
  }
}

TEST_F(FilterRequirementTest, WithoutABasePathNoPolicyIsFound) {
  ASSERT_EQ(RegDeleteKeyValueA(korva::test::OpenAgentKey(L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent").get(), nullptr,
                               "BasePath"),
            ERROR_SUCCESS);
  korva::test::LogCapture log;
  EXPECT_EQ(CheckQVFAFilterRequirement(), 0);
  EXPECT_TRUE(HasLogLine(log.Text(), "CheckDeviceControlPolicyStatus",
                         "BasePath is not set; no policy file devicecontrol.json to look for."));
}

}  // namespace
