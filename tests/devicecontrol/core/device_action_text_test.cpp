// Device instance paths, the device helpers' folders and argument texts, and the class table.
#include "devicecontrol/core/device_action_text.h"

#include <gtest/gtest.h>

#include "devicecontrol/core/device_classes.h"

namespace korva::devicecontrol {
namespace {

TEST(DeviceActionText, InstancePathFromInterfacePath) {
  struct Case { const wchar_t* interfacePath; InstancePathStatus status; const wchar_t* path; };
  const Case cases[] = {
      {L"\\\\?\\USB#VID_0781&PID_5567#4c530001#{a5dcbf10-6530-11d2-901f-00c04fb951ed}", InstancePathStatus::kFound,
       L"USB\\VID_0781&PID_5567\\4C530001"},
      // An instance path that already holds '\' keeps it; only the last '#' ends the path.
      {L"\\\\?\\ROOT\\x#0000#{guid}", InstancePathStatus::kFound, L"ROOT\\X\\0000"},
      // The prefix is skipped whatever it holds, so a '#' inside it does not count.
      {L"#\\?#USB", InstancePathStatus::kNoHash, nullptr},
      {L"\\\\?\\USB-VID_0781", InstancePathStatus::kNoHash, nullptr},
      {L"", InstancePathStatus::kNoHash, nullptr},
      {L"\\\\?\\ABC#{a5dcbf10-6530-11d2-901f-00c04fb951ed}", InstancePathStatus::kNoSlash, nullptr},
  };
  for (const Case& c : cases) {
    const InstancePath result = DeviceInstancePathFromInterfacePath(c.interfacePath);
    EXPECT_EQ(result.status, c.status) << c.interfacePath;
    EXPECT_EQ(result.path, c.path != nullptr ? c.path : L"") << c.interfacePath;
  }
}

TEST(DeviceActionText, ActionProgramArgumentsNameTheUserOnlyForTwoThreeAndSeven) {
  struct Case { int code; const wchar_t* user; const wchar_t* expected; };
  const Case cases[] = {
      {0, L"alice", L"-c 1"},          {2, L"alice", L"-c 2 -n alice"}, {3, L"alice", L"-c 3 -n alice"},
      {7, L"Jane Doe", L"-c 7 -n Jane Doe"},  // not quoted
      {12, L"alice", L"-c 12"},        {4, L"alice", L"-c 4"},
  };
  for (const Case& c : cases) EXPECT_EQ(ActionProgramArguments(c.code, c.user), c.expected) << c.code;
}

TEST(DeviceActionText, SummaryArgumentsCallOnlyClassNineAnEnumeration) {
  struct Case { int eventClass; int kind; const char* path; const char* expected; };
  const Case cases[] = {
      {9, 2, "Unknown", "-s ET_ENUM 9 2 \"Unknown\""},
      {1, 0, "USB\\VID_0781&PID_5567\\4C530001", "-s ET_COL 1 0 \"USB\\VID_0781&PID_5567\\4C530001\""},
      {10, 0, "\xc3\xa9", "-s ET_COL 10 0 \"\xc3\xa9\""},
  };
  for (const Case& c : cases) EXPECT_EQ(SummaryArguments(c.eventClass, c.kind, c.path), c.expected);
}

TEST(DeviceClasses, TableInRegistrationOrder) {
  const char* expected[kDeviceInterfaceClassCount] = {
      "{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}", "{E5323777-F976-4F5B-9B55-B94699C46E44}",
      "{50DD5230-BA8A-11D1-BF5D-0000F805F530}", "{53F56307-B6BF-11D0-94F2-00A0C91EFB8B}",
      "{53F56308-B6BF-11D0-94F2-00A0C91EFB8B}", "{86E0D1E0-8089-11D0-9CE4-08003E301F73}",
      "{53F56311-B6BF-11D0-94F2-00A0C91EFB8B}", "{4D1E55B2-F16F-11CF-88CB-001111000030}",
      "{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}", "{2C7089AA-2E0E-11D1-B114-00C04FC2AAE4}",
      "{AD498944-762F-11D0-8DCB-00C04FC3358C}", "{97F76EF0-F883-11D0-AF1F-0000F800845C}",
      "{811FC6A5-F728-11D0-A537-0000F8753ED1}", "{4D36E978-E325-11CE-BFC1-08002BE10318}",
      "{53F5630B-B6BF-11D0-94F2-00A0C91EFB8B}", "{A5DCBF10-6530-11D2-901F-00C04FB951ED}",
      "{F72FE0D4-CBCB-407D-8814-9ED673D0DD6B}",
  };
  for (std::size_t i = 0; i < kDeviceInterfaceClassCount; ++i) {
    EXPECT_EQ(GuidText(DeviceInterfaceClassTable[i]), expected[i]) << i;
  }
}

TEST(DeviceClasses, CustomEventsAreMatchedOnAllBytes) {
  EXPECT_EQ(ClassifyCustomEvent(kVolumeEncryptionStatusChange), CustomVolumeEvent::kEncryptionStatusChange);
  EXPECT_EQ(ClassifyCustomEvent(kVolumeChange), CustomVolumeEvent::kVolumeChange);
  ClassGuid nearly = kVolumeChange;  // a difference in the last byte is another event
  nearly.data4[7] ^= 1;
  EXPECT_EQ(ClassifyCustomEvent(nearly), CustomVolumeEvent::kOther);
}

}  // namespace
}  // namespace korva::devicecontrol
