// The on-demand lock values on the prefix's real registry: reads, the block decision, resets.
#include "ondemand/module_lock.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <optional>
#include <string>

#include "support/test_support.h"

namespace {

constexpr wchar_t kLockKey[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\LockState";

bool HasLineAt(const std::string& text, const std::string& severity, const std::string& function,
               const std::string& message) {
  return text.find("[ " + severity + " ] [ " + function + " ] " + message + "\r\n") != std::string::npos;
}

// Writes into the lock key (created when missing) in the service's own 32-bit view.
void SetRaw(const wchar_t* name, DWORD type, const void* data, DWORD size) {
  ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kLockKey, name, type, data, size), 0);
}
void SetDword(const wchar_t* name, DWORD value) { SetRaw(name, REG_DWORD, &value, sizeof value); }

// The value when it is a 4-byte REG_DWORD; `view` KEY_WOW64_64KEY reads where the 32-bit view keeps it.
std::optional<DWORD> GetDword(const wchar_t* name, REGSAM view = 0) {
  const wchar_t* path = view == 0 ? kLockKey : L"SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\LockState";
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ | view, &key) != 0) return std::nullopt;
  DWORD value = 0;
  DWORD size = sizeof value;
  const LONG code = RegGetValueW(key, nullptr, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
  RegCloseKey(key);
  return code == 0 ? std::optional<DWORD>(value) : std::nullopt;
}

bool LockKeyExists() {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kLockKey, 0, KEY_READ, &key) != 0) return false;
  RegCloseKey(key);
  return true;
}

class ModuleLockTest : public ::testing::Test {
 protected:
  void SetUp() override { korva::test::CleanAgentRegistry(); }
  void TearDown() override { korva::test::CleanAgentRegistry(); }
};

TEST_F(ModuleLockTest, BlocksOnlyWhenLockedAndTheRetriesAreUsedUp) {
  struct Case {
    std::optional<DWORD> lock;
    std::optional<DWORD> retry;
    int locked, retriesCompleted, blocked;
    const char* severity;  // and the line that tells the outcome
    const char* function;
    const char* line;
  };
  const Case cases[] = {
      {1, 4, 1, 0, 0, " INFO", "IsModuleRetriesCompleted", "RETRIES are NOT COMPLETED for ONDEMAND!!"},
      {1, 5, 1, 1, 1, " INFO", "IsModuleRetriesCompleted", "RETRIES are COMPLETED for ONDMENAD !!"},
      {1, 12, 1, 1, 1, " INFO", "IsModuleRetriesCompleted", "Retry Count =12"},
      {1, std::nullopt, 1, 1, 1, "ERROR", "IsModuleRetriesCompleted",
       "Problem while getting RetryCount. Returning retries completed!!"},
      {0x80000000u, 5, 1, 1, 1, " INFO", "CheckModuleLocked",
       "IsModuleRetriesCompleted : Retry count completed need to Block the Module."},
      {0, 5, 0, 1, 0, "ERROR", "CheckModuleLocked", "ModuleLock : False."},
      {std::nullopt, 5, 0, 1, 0, "ERROR", "GetModuleLocked", "Cannot add new NUMERIC value for the key"},
  };
  for (const Case& c : cases) {
    korva::test::CleanAgentRegistry();
    if (c.lock) SetDword(L"ondemandlock", *c.lock);
    if (c.retry) SetDword(L"ondemandlockretry", *c.retry);
    const std::string what = std::to_string(c.lock.value_or(999)) + "/" + std::to_string(c.retry.value_or(999));
    EXPECT_EQ(IsModuleLocked(), c.locked) << what;
    EXPECT_EQ(IsModuleRetriesCompleted(), c.retriesCompleted) << what;
    korva::test::LogCapture log;
    EXPECT_EQ(CheckModuleLocked(), c.blocked) << what;
    const std::string text = log.Text();
    EXPECT_TRUE(HasLineAt(text, c.severity, c.function, c.line)) << what << "\n" << text;
    EXPECT_EQ(text.find("need to Block the Module.") != std::string::npos, c.blocked == 1) << what;
  }
}

TEST_F(ModuleLockTest, UnlockedLineIsAnErrorSoAnErrorOnlyLogKeepsIt) {
  SetDword(L"ondemandlock", 0);
  korva::test::LogCapture log(2);
  EXPECT_EQ(CheckModuleLocked(), 0);
  EXPECT_TRUE(HasLineAt(log.Text(), "ERROR", "CheckModuleLocked", "ModuleLock : False."));
}

TEST_F(ModuleLockTest, ReadsReportTheRegistryErrorAndLeaveTheOutputAlone) {
  korva::test::LogCapture log;
  DWORD value = 77;
  EXPECT_EQ(GetModuleLocked(&value), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(GetModuleRetriesCount(&value), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(GetModuleLocked(nullptr), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(LockKeyExists());  // plain reads never create the key...
  EXPECT_EQ(GetUnHandledExceptionLock(&value), ERROR_FILE_NOT_FOUND);
  EXPECT_TRUE(LockKeyExists());  // ...the unhandled-failure read does
  EXPECT_EQ(value, 77u);
  const std::string text = log.Text();
  EXPECT_TRUE(HasLineAt(text, "ERROR", "GetModuleRetriesCount", "Unable to open registry.")) << text;
  EXPECT_TRUE(HasLineAt(text, "ERROR", "GetUnHandledExceptionLock", "Cannot add new NUMERIC value for the key"));
  EXPECT_TRUE(korva::test::HasLogLine(text, "printErrorMsgForID", "Error ID      :2"));

  SetDword(L"ondemandlock", 3);
  SetDword(L"ondemandlockretry", 4);
  SetDword(L"ondemandUnhandlelock", 1);
  EXPECT_EQ(GetModuleLocked(&value), 0);
  EXPECT_EQ(value, 3u);
  EXPECT_EQ(GetModuleRetriesCount(&value), 0);
  EXPECT_EQ(value, 4u);
  EXPECT_EQ(GetUnHandledExceptionLock(&value), 0);
  EXPECT_EQ(value, 1u);
}

TEST_F(ModuleLockTest, WrongTypedValuesAreFailedReads) {
  // A string "1" would read as the number 49 if its bytes were taken for a DWORD.
  const wchar_t one[] = L"1";
  const BYTE binary[4] = {7, 0, 0, 0};
  const ULONGLONG qword = 6;
  const BYTE shortDword[2] = {9, 0};
  struct Case {
    DWORD type;
    const void* data;
    DWORD size;
    LONG code;
  };
  const Case cases[] = {{REG_SZ, one, sizeof one, ERROR_UNSUPPORTED_TYPE},
                        {REG_BINARY, binary, sizeof binary, ERROR_UNSUPPORTED_TYPE},
                        {REG_QWORD, &qword, sizeof qword, ERROR_MORE_DATA},
                        {REG_DWORD, shortDword, sizeof shortDword, ERROR_UNSUPPORTED_TYPE}};
  for (const Case& c : cases) {
    korva::test::CleanAgentRegistry();
    for (const wchar_t* name : {L"ondemandlock", L"ondemandlockretry", L"ondemandUnhandlelock"}) {
      SetRaw(name, c.type, c.data, c.size);
    }
    korva::test::LogCapture log;
    DWORD value = 55;
    EXPECT_EQ(GetModuleLocked(&value), c.code) << c.type;
    EXPECT_EQ(GetModuleRetriesCount(&value), c.code) << c.type;
    EXPECT_EQ(GetUnHandledExceptionLock(&value), c.code) << c.type;
    EXPECT_EQ(value, 55u) << c.type;
    EXPECT_EQ(IsModuleLocked(), 0) << c.type;            // unreadable lock: unlocked
    EXPECT_EQ(IsModuleRetriesCompleted(), 1) << c.type;  // unreadable count: complete
    const std::string text = log.Text();
    EXPECT_TRUE(HasLineAt(text, "ERROR", "GetModuleLocked", "Cannot add new NUMERIC value for the key")) << c.type;
    EXPECT_TRUE(korva::test::HasLogLine(text, "printErrorMsgForID", "Error ID      :" + std::to_string(c.code)));
  }
  // With the lock itself readable, an unreadable count blocks.
  SetDword(L"ondemandlock", 1);
  EXPECT_EQ(CheckModuleLocked(), 1);
}

TEST_F(ModuleLockTest, ResetsCreateTheKeyAndClearWhatTheOnDemandProgramSet) {
  korva::test::LogCapture log;
  UpdateModuleLockStatus();  // no LockState key yet
  for (const wchar_t* name : {L"ondemandlock", L"ondemandlockretry", L"ondemandUnhandlelock"}) {
    EXPECT_EQ(GetDword(name, KEY_WOW64_64KEY), std::optional<DWORD>(0));  // in the 32-bit view
  }
  EXPECT_EQ(log.Text().find("ERROR"), std::string::npos);

  SetDword(L"ondemandlock", 1);
  SetDword(L"ondemandlockretry", 7);
  SetDword(L"ondemandUnhandlelock", 1);
  SetDword(L"Other", 5);
  UpdateUnHandledExceptionLock();  // only the unhandled-failure mark
  EXPECT_EQ(GetDword(L"ondemandUnhandlelock"), std::optional<DWORD>(0));
  EXPECT_EQ(GetDword(L"ondemandlock"), std::optional<DWORD>(1));
  EXPECT_EQ(GetDword(L"ondemandlockretry"), std::optional<DWORD>(7));

  SetDword(L"ondemandUnhandlelock", 1);
  const wchar_t text[] = L"locked";  // a wrong-typed value is overwritten with a proper DWORD
  SetRaw(L"ondemandlock", REG_SZ, text, sizeof text);
  ResetModuleLockStatus();
  for (const wchar_t* name : {L"ondemandlock", L"ondemandlockretry", L"ondemandUnhandlelock"}) {
    EXPECT_EQ(GetDword(name), std::optional<DWORD>(0));
  }
  EXPECT_EQ(GetDword(L"Other"), std::optional<DWORD>(5));
}

}  // namespace
