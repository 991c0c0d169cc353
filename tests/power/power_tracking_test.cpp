// Power and shutdown tracking on the prefix's real registry and files: boot and shutdown times,
// the history file and the forced-shutdown marks for the machine and each loaded user hive.
#include "power/power_tracking.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <ctime>
#include <optional>
#include <string>

#include "power/core/power_rules.h"
#include "service/entry_point.h"
#include "settings/registry.h"
#include "support/test_support.h"

namespace {

using korva::test::HasLogLine;

constexpr wchar_t kAgentKey[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent";
constexpr wchar_t kPowerKey[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\PowerEvents";
constexpr wchar_t kUserPowerPath[] = L"\\Software\\Kestrelix\\Tallowmere\\KorvaAgent\\PowerEvents";
// Stand-ins for other loaded hives. Wine, unlike Windows, lets a program create keys at the top of
// HKEY_USERS; they live in memory only, and the tests remove them.
constexpr const wchar_t* kFakeHives[] = {L"S-1-5-21-111-222-333-1001", L"S-1-5-21-111-222-333-1001_Classes"};

template <typename T>
std::optional<T> Get(HKEY root, const std::wstring& key, const wchar_t* name) {
  T value = 0;
  DWORD size = sizeof value;
  const DWORD type = sizeof(T) == 8 ? RRF_RT_REG_QWORD : RRF_RT_REG_DWORD;
  // The machine's agent key is in the agent's view; user hives have one view only.
  const korva::win::UniqueRegKey agentKey =
      root == HKEY_LOCAL_MACHINE ? korva::test::OpenAgentKey(key.c_str()) : korva::win::UniqueRegKey();
  const LONG code = root == HKEY_LOCAL_MACHINE ? RegGetValueW(agentKey.get(), nullptr, name, type, nullptr, &value, &size)
                                               : RegGetValueW(root, key.c_str(), name, type, nullptr, &value, &size);
  if (code != 0) return std::nullopt;
  return value;
}
ULONGLONG UtcNow() { return static_cast<ULONGLONG>(_time64(nullptr)); }

class PowerTrackingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CleanAll();
    savedInstallDir_ = AgentInstallDirGlobal;
    AgentInstallDirGlobal.clear();
  }
  void TearDown() override {
    CleanAll();
    AgentInstallDirGlobal = savedInstallDir_;
  }
  static void CleanAll() {
    korva::test::CleanAgentRegistry();
    RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\Kestrelix");
    for (const wchar_t* fake : kFakeHives) RegDeleteTreeW(HKEY_USERS, fake);
  }
  static void UseBasePath(const std::string& path) {
    ASSERT_EQ(writeValue("SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent", "BasePath", REG_SZ, path), 0);
  }
  std::string History() const { return korva::test::ReadFileBytes(base_.File(L"data\\powerhistory.log")); }

  korva::test::TempDir base_;
  std::string savedInstallDir_;
};

TEST_F(PowerTrackingTest, BootTimeIsUtcNowMinusUptime) {
  const ULONGLONG before = UtcNow();
  WriteLastBootUpTime(90'500);
  const std::optional<ULONGLONG> boot = Get<ULONGLONG>(HKEY_LOCAL_MACHINE, kAgentKey, L"LastBootUpTime");
  ASSERT_TRUE(boot.has_value());
  EXPECT_GE(*boot, before - 90);
  EXPECT_LE(*boot, UtcNow() - 90);
}

TEST_F(PowerTrackingTest, MissingOrWrongTypedShutdownTimeReadsAsZero) {
  EXPECT_EQ(GetShutDownTime(), 0);  // no key
  const DWORD asDword = 1700000000;  // a QWORD of four bytes
  ASSERT_EQ(RegSetKeyValueW(korva::test::CreateAgentKey(kPowerKey).get(), nullptr, L"LastShutdownTime", REG_QWORD, &asDword, 4), 0);
  {
    korva::test::LogCapture log;
    EXPECT_EQ(GetShutDownTime(), 0);
    EXPECT_NE(log.Text().find("[ ERROR ] [ GetShutDownTime ] Unable to read LastShutdownTime."), std::string::npos);
    EXPECT_TRUE(HasLogLine(log.Text(), "printErrorMsgForID", "Error ID      :1630")) << log.Text();
  }
  // A key without the value: nothing recorded yet, which is no error.
  RegDeleteKeyValueW(korva::test::OpenAgentKey(kPowerKey).get(), nullptr, L"LastShutdownTime");
  korva::test::LogCapture log;
  EXPECT_EQ(GetShutDownTime(), 0);
  EXPECT_TRUE(HasLogLine(log.Text(), "GetShutDownTime", "No shutdown time is recorded."));
  EXPECT_EQ(log.Text().find("ERROR"), std::string::npos);
}

TEST_F(PowerTrackingTest, OrderlyEndsRecordTheirTimeAndAppendHistoryLines) {
  UseBasePath(base_.NarrowPath() + "\\");  // a trailing separator makes no double one
  WriteLastBootUpTime(5'000);
  UpdatePowerEventStatus();
  const LONGLONG shutdown = GetShutDownTime();
  // Same unit as the boot time: the start-up's comparison sees an orderly end of this run.
  const LONGLONG boot = static_cast<LONGLONG>(Get<ULONGLONG>(HKEY_LOCAL_MACHINE, kAgentKey, L"LastBootUpTime").value_or(0));
  EXPECT_TRUE(shutdown >= boot && shutdown - boot <= 10) << shutdown << " " << boot;
  // The data folder was created; the file is written in text mode (CR LF).
  std::string expected = korva::power::HistoryLine(korva::power::PowerEvent::kShutdown, shutdown);
  expected.insert(expected.size() - 1, "\r");
  EXPECT_EQ(History(), expected);

  Sleep(1100);
  RecordServiceStopTime();
  const LONGLONG stop = GetShutDownTime();
  EXPECT_GT(stop, shutdown);
  EXPECT_EQ(History().find(expected), 0u);  // appended, never rewritten
  EXPECT_NE(History().find("\tServiceStop\t" + std::to_string(stop) + "\r\n"), std::string::npos) << History();
}

TEST_F(PowerTrackingTest, HistoryFolderFailuresAreLoggedAndTheTimeStillRecorded) {
  {  // Neither BasePath nor the installation folder is set.
    korva::test::LogCapture log;
    UpdatePowerEventStatus();
    EXPECT_NE(log.Text().find("[ ERROR ] [ UpdatePowerEventStatus ] No folder for the power history"), std::string::npos);
  }
  EXPECT_GT(GetShutDownTime(), 0);
  // A file where the data folder should be.
  RegDeleteTreeW(korva::test::OpenAgentKey(kAgentKey).get(), L"PowerEvents");
  korva::test::WriteFileBytes(base_.File(L"data"), "not a folder");
  UseBasePath(base_.NarrowPath());
  korva::test::LogCapture log;
  UpdatePowerEventStatus();
  EXPECT_GT(GetShutDownTime(), 0);
  EXPECT_NE(log.Text().find("[ ERROR ] [ UpdatePowerEventStatus ] Unable to add the Shutdown entry to "), std::string::npos);
}

TEST_F(PowerTrackingTest, ForcedShutdownIsMarkedForTheMachineAndEveryLoadedUser) {
  UseBasePath(base_.NarrowPath());
  for (const wchar_t* fake : kFakeHives) {
    ASSERT_EQ(RegSetKeyValueW(HKEY_USERS, (std::wstring(fake) + L"\\Software").c_str(), L"x", REG_SZ, L"", 2), 0);
  }
  const ULONGLONG before = UtcNow();
  WriteForceShutdownEntry();
  EXPECT_EQ(Get<DWORD>(HKEY_LOCAL_MACHINE, kPowerKey, L"ForcedShutdown"), std::optional<DWORD>(1));
  const std::optional<ULONGLONG> when = Get<ULONGLONG>(HKEY_LOCAL_MACHINE, kPowerKey, L"ForcedShutdownTime");
  ASSERT_TRUE(when.has_value());
  EXPECT_GE(*when, before);
  EXPECT_LE(*when, UtcNow());
  EXPECT_EQ(GetShutDownTime(), 0);  // the orderly-shutdown time is not touched

  const std::wstring otherUser = std::wstring(kFakeHives[0]) + kUserPowerPath;
  EXPECT_EQ(Get<ULONGLONG>(HKEY_USERS, otherUser, L"ForcedShutdownTime"), when);
  // The logged-on user sees it in their own hive; a class-registration hive gets nothing.
  EXPECT_EQ(Get<DWORD>(HKEY_CURRENT_USER, kUserPowerPath + 1, L"ForcedShutdown"), std::optional<DWORD>(1));
  EXPECT_FALSE(Get<DWORD>(HKEY_USERS, std::wstring(kFakeHives[1]) + kUserPowerPath, L"ForcedShutdown").has_value());
  EXPECT_NE(History().find("\tForcedShutdown\t" + std::to_string(*when) + "\r\n"), std::string::npos) << History();
}

}  // namespace
