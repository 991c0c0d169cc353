// Power and shutdown tracking on the prefix's real registry and files: boot and shutdown times,
// the history file and the forced-shutdown marks for the machine and each loaded user hive.
#include "power/power_tracking.h"

#include <gtest/gtest.h>
#include <sddl.h>
#include <windows.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "power/core/power_rules.h"
#include "service/entry_point.h"
#include "settings/registry.h"
#include "support/test_support.h"
#include "win/strings.h"

namespace {

using korva::test::HasLogLine;
using korva::win::WideToAnsi;

constexpr wchar_t kAgentKey[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent";
constexpr wchar_t kPowerKey[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\PowerEvents";
constexpr wchar_t kUserPowerPath[] = L"\\Software\\Kestrelix\\Tallowmere\\KorvaAgent\\PowerEvents";
// Stand-ins for other loaded hives. Wine, unlike Windows, lets a program create keys at the top of
// HKEY_USERS; they live in memory only, and the tests remove them.
constexpr const wchar_t* kFakeHives[] = {L"S-1-5-21-111-222-333-1001", L"S-1-5-21-111-222-333-1001_Classes",
                                         L"S-1-5-18"};

bool HasLineAt(const std::string& text, const std::string& severity, const std::string& function,
               const std::string& prefix) {
  return text.find("[ " + severity + " ] [ " + function + " ] " + prefix) != std::string::npos;
}

template <typename T>
std::optional<T> Get(HKEY root, const std::wstring& key, const wchar_t* name) {
  T value = 0;
  DWORD size = sizeof value;
  const DWORD type = sizeof(T) == 8 ? RRF_RT_REG_QWORD : RRF_RT_REG_DWORD;
  if (RegGetValueW(root, key.c_str(), name, type, nullptr, &value, &size) != 0) return std::nullopt;
  return value;
}
std::optional<ULONGLONG> Qword(HKEY root, const std::wstring& key, const wchar_t* name) {
  return Get<ULONGLONG>(root, key, name);
}

ULONGLONG UtcNow() { return static_cast<ULONGLONG>(_time64(nullptr)); }

// The string SID of the user this test runs as: the hive Wine has loaded.
std::wstring OwnUserSid() {
  HANDLE token = nullptr;
  BYTE buffer[256];
  DWORD size = 0;
  wchar_t* text = nullptr;
  const bool ok = OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) &&
                  GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size) &&
                  ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text);
  if (token != nullptr) CloseHandle(token);
  const std::wstring sid = ok ? text : L"";
  LocalFree(text);
  return sid;
}

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
  std::string History() const { return korva::test::ReadFileBytes(HistoryFile()); }
  std::wstring HistoryFile() const { return base_.File(L"data\\powerhistory.log"); }

  korva::test::TempDir base_;
  std::string savedInstallDir_;
};

TEST_F(PowerTrackingTest, BootTimeIsUtcNowMinusUptimeInTheAgentKey) {
  const ULONGLONG before = UtcNow();
  const LONGLONG now = korva::CurrentTimeInSeconds();
  korva::test::LogCapture log;
  WriteLastBootUpTime(90'500);
  const ULONGLONG after = UtcNow();
  EXPECT_GE(static_cast<ULONGLONG>(now), before);
  EXPECT_LE(static_cast<ULONGLONG>(now), after);

  const std::optional<ULONGLONG> boot = Qword(HKEY_LOCAL_MACHINE, kAgentKey, L"LastBootUpTime");
  ASSERT_TRUE(boot.has_value());
  EXPECT_GE(*boot, before - 90);
  EXPECT_LE(*boot, after - 90);
  // In the service's 32-bit view, where the start-up reads it.
  HKEY view64 = nullptr;
  ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent", 0,
                          KEY_READ | KEY_WOW64_64KEY, &view64),
            0);
  EXPECT_EQ(Qword(view64, L"", L"LastBootUpTime"), boot);
  RegCloseKey(view64);
  EXPECT_TRUE(HasLogLine(log.Text(), "WriteLastBootUpTime", "LastBootUpTime :" + std::to_string(*boot)));
}

TEST_F(PowerTrackingTest, MissingOrWrongTypedShutdownTimeReadsAsZero) {
  EXPECT_EQ(GetShutDownTime(), 0);  // no key
  const DWORD asDword = 1700000000;
  const wchar_t asText[] = L"1700000000";
  const BYTE asBinary[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const ULONGLONG beyondSignedRange = 0x8000000000000000ull;
  struct Case {
    DWORD type;
    const void* data;
    DWORD size;
    const char* errorId;  // null: not an error
  };
  const Case cases[] = {{REG_DWORD, &asDword, sizeof asDword, "Error ID      :1630"},
                        {REG_SZ, asText, sizeof asText, "Error ID      :234"},
                        {REG_BINARY, asBinary, sizeof asBinary, "Error ID      :1630"},
                        {REG_QWORD, &asDword, sizeof asDword, "Error ID      :1630"},
                        {REG_QWORD, &beyondSignedRange, 8, nullptr}};
  for (const Case& c : cases) {
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kPowerKey, L"LastShutdownTime", c.type, c.data, c.size), 0);
    korva::test::LogCapture log;
    EXPECT_EQ(GetShutDownTime(), 0) << c.type;
    const std::string text = log.Text();
    if (c.errorId != nullptr) {
      EXPECT_TRUE(HasLineAt(text, "ERROR", "GetShutDownTime", "Unable to read LastShutdownTime.")) << c.type;
      EXPECT_TRUE(HasLogLine(text, "printErrorMsgForID", c.errorId)) << c.type;
    }
  }
  // A key without the value: nothing recorded yet, which is no error.
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kPowerKey, L"LastShutdownTime");
  korva::test::LogCapture log;
  EXPECT_EQ(GetShutDownTime(), 0);
  const std::string text = log.Text();
  EXPECT_TRUE(HasLogLine(text, "GetShutDownTime", "No shutdown time is recorded."));
  EXPECT_EQ(text.find("ERROR"), std::string::npos);
}

TEST_F(PowerTrackingTest, OrderlyEndsRecordTheirTimeAndAppendHistoryLines) {
  UseBasePath(base_.NarrowPath() + "\\");  // a trailing separator makes no double one
  ASSERT_FALSE(korva::test::FileExists(base_.File(L"data")));
  WriteLastBootUpTime(5'000);
  const ULONGLONG before = UtcNow();
  UpdatePowerEventStatus();
  const LONGLONG shutdown = GetShutDownTime();
  EXPECT_GE(static_cast<ULONGLONG>(shutdown), before);
  EXPECT_LE(static_cast<ULONGLONG>(shutdown), UtcNow());
  // Same unit as the boot time: the start-up's comparison sees an orderly end of this run.
  const std::optional<ULONGLONG> boot = Qword(HKEY_LOCAL_MACHINE, kAgentKey, L"LastBootUpTime");
  ASSERT_TRUE(boot.has_value());
  EXPECT_GE(shutdown, static_cast<LONGLONG>(*boot));
  EXPECT_LE(shutdown - static_cast<LONGLONG>(*boot), 10);
  // The data folder was created; the file is written in text mode (CR LF).
  std::string expected = korva::power::HistoryLine(korva::power::PowerEvent::kShutdown, shutdown);
  expected.insert(expected.size() - 1, "\r");
  EXPECT_EQ(History(), expected);

  Sleep(1100);
  RecordServiceStopTime();
  const LONGLONG stop = GetShutDownTime();
  EXPECT_GT(stop, shutdown);
  const std::string history = History();
  EXPECT_EQ(history.find(expected), 0u) << history;  // appended, never rewritten
  EXPECT_NE(history.find("\tServiceStop\t" + std::to_string(stop) + "\r\n", expected.size()), std::string::npos)
      << history;
}

TEST_F(PowerTrackingTest, HistoryFolderFailuresAreLoggedAndTheTimeStillRecorded) {
  // No BasePath: the installation folder takes its place.
  AgentInstallDirGlobal = base_.NarrowPath();
  RecordServiceStopTime();
  EXPECT_NE(History().find("\tServiceStop\t"), std::string::npos);
  // Neither is set.
  AgentInstallDirGlobal.clear();
  DeleteFileW(HistoryFile().c_str());
  RemoveDirectoryW(base_.File(L"data").c_str());
  {
    korva::test::LogCapture log;
    UpdatePowerEventStatus();
    EXPECT_TRUE(HasLineAt(log.Text(), "ERROR", "UpdatePowerEventStatus", "No folder for the power history"));
  }
  EXPECT_GT(GetShutDownTime(), 0);
  // A file where the data folder should be.
  korva::test::WriteFileBytes(base_.File(L"data"), "not a folder");
  UseBasePath(base_.NarrowPath());
  korva::test::LogCapture log;
  UpdatePowerEventStatus();
  EXPECT_GT(GetShutDownTime(), 0);
  const std::string text = log.Text();
  EXPECT_TRUE(HasLineAt(text, "ERROR", "AppendFormattedText", "Unable to open")) << text;
  EXPECT_TRUE(HasLineAt(text, "ERROR", "UpdatePowerEventStatus", "Unable to add the Shutdown entry to ")) << text;
}

TEST_F(PowerTrackingTest, ForcedShutdownIsMarkedForTheMachineAndEveryLoadedUser) {
  UseBasePath(base_.NarrowPath());
  for (const wchar_t* fake : kFakeHives) {
    ASSERT_EQ(RegSetKeyValueW(HKEY_USERS, (std::wstring(fake) + L"\\Software").c_str(), L"x", REG_DWORD, "\0\0\0", 4),
              0);
  }
  const std::wstring ownSid = OwnUserSid();
  ASSERT_TRUE(korva::power::IsUserHiveName(ownSid)) << WideToAnsi(ownSid);

  korva::test::LogCapture log;
  const ULONGLONG before = UtcNow();
  WriteForceShutdownEntry();
  const ULONGLONG after = UtcNow();

  EXPECT_EQ(Get<DWORD>(HKEY_LOCAL_MACHINE, kPowerKey, L"ForcedShutdown"), std::optional<DWORD>(1));
  const std::optional<ULONGLONG> when = Qword(HKEY_LOCAL_MACHINE, kPowerKey, L"ForcedShutdownTime");
  ASSERT_TRUE(when.has_value());
  EXPECT_GE(*when, before);
  EXPECT_LE(*when, after);
  EXPECT_EQ(GetShutDownTime(), 0);  // the orderly-shutdown time is not touched

  for (const std::wstring& user : {ownSid, std::wstring(kFakeHives[0])}) {
    EXPECT_EQ(Get<DWORD>(HKEY_USERS, user + kUserPowerPath, L"ForcedShutdown"), std::optional<DWORD>(1))
        << WideToAnsi(user);
    EXPECT_EQ(Qword(HKEY_USERS, user + kUserPowerPath, L"ForcedShutdownTime"), when) << WideToAnsi(user);
  }
  // The logged-on user sees it in their own hive.
  EXPECT_EQ(Get<DWORD>(HKEY_CURRENT_USER, kUserPowerPath + 1, L"ForcedShutdown"), std::optional<DWORD>(1));
  // Not in class-registration hives, the default profile or the system account.
  for (const std::wstring& other :
       {std::wstring(kFakeHives[1]), std::wstring(kFakeHives[2]), std::wstring(L".Default")}) {
    EXPECT_FALSE(Get<DWORD>(HKEY_USERS, other + kUserPowerPath, L"ForcedShutdown").has_value()) << WideToAnsi(other);
  }

  EXPECT_NE(History().find("\tForcedShutdown\t" + std::to_string(*when) + "\r\n"), std::string::npos) << History();
  const std::string text = log.Text();
  EXPECT_TRUE(
      HasLogLine(text, "WriteForceShutdownEntry", "Forced shutdown marked for the user hive " + WideToAnsi(ownSid)))
      << text;
  EXPECT_TRUE(HasLogLine(text, "WriteForceShutdownEntry",
                         "Forced shutdown marked for the user hive " + WideToAnsi(kFakeHives[0])));
}

}  // namespace
