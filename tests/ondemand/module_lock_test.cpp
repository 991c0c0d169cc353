// The on-demand lock values on the prefix's real registry: reads, the block decision, resets.
#include "ondemand/module_lock.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <optional>
#include <string>

#include "support/test_support.h"

namespace {

constexpr wchar_t kLockKey[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\LockState";
constexpr const wchar_t* kLockValues[] = {L"ondemandlock", L"ondemandlockretry", L"ondemandUnhandlelock"};

bool HasLineAt(const std::string& text, const std::string& severity, const std::string& function,
               const std::string& message) {
  return text.find("[ " + severity + " ] [ " + function + " ] " + message + "\r\n") != std::string::npos;
}
void SetRaw(const wchar_t* name, DWORD type, const void* data, DWORD size) {
  ASSERT_EQ(RegSetKeyValueW(korva::test::CreateAgentKey(kLockKey).get(), nullptr, name, type, data, size), 0);
}
void SetDword(const wchar_t* name, DWORD value) { SetRaw(name, REG_DWORD, &value, sizeof value); }
std::optional<DWORD> GetDword(const wchar_t* name) {
  DWORD value = 0;
  DWORD size = sizeof value;
  if (RegGetValueW(korva::test::OpenAgentKey(kLockKey).get(), nullptr, name, RRF_RT_REG_DWORD, nullptr, &value, &size) != 0) return std::nullopt;
  return value;
}

class ModuleLockTest : public ::testing::Test {
 protected:
  void SetUp() override { korva::test::CleanAgentRegistry(); }
  void TearDown() override { korva::test::CleanAgentRegistry(); }
};

// The four cases: locked with retries left, locked with the retries used up, locked with an
// unreadable count, and not locked.
TEST_F(ModuleLockTest, BlocksOnlyWhenLockedAndTheRetriesAreUsedUp) {
  const struct {
    std::optional<DWORD> lock, retry;
    int locked, retriesCompleted, blocked;
    const char* severity;  // and the line that tells the outcome
    const char* function;
    const char* line;
  } cases[] = {
      {1, 4, 1, 0, 0, " INFO", "IsModuleRetriesCompleted", "RETRIES are NOT COMPLETED for ONDEMAND!!"},
      {1, 5, 1, 1, 1, " INFO", "IsModuleRetriesCompleted", "RETRIES are COMPLETED for ONDMENAD !!"},
      {1, std::nullopt, 1, 1, 1, "ERROR", "IsModuleRetriesCompleted",
       "Problem while getting RetryCount. Returning retries completed!!"},
      {0, 5, 0, 1, 0, "ERROR", "CheckModuleLocked", "ModuleLock : False."},
      {std::nullopt, 5, 0, 1, 0, "ERROR", "GetModuleLocked", "Cannot add new NUMERIC value for the key"},
  };
  for (const auto& c : cases) {
    korva::test::CleanAgentRegistry();
    if (c.lock) SetDword(L"ondemandlock", *c.lock);
    if (c.retry) SetDword(L"ondemandlockretry", *c.retry);
    const std::string what = std::to_string(c.lock.value_or(999)) + "/" + std::to_string(c.retry.value_or(999));
    EXPECT_EQ(IsModuleLocked(), c.locked) << what;
    EXPECT_EQ(IsModuleRetriesCompleted(), c.retriesCompleted) << what;
    korva::test::LogCapture log;
    EXPECT_EQ(CheckModuleLocked(), c.blocked) << what;
    EXPECT_TRUE(HasLineAt(log.Text(), c.severity, c.function, c.line)) << what << "\n" << log.Text();
  }
}

TEST_F(ModuleLockTest, MissingKeyOrWrongTypedValuesAreFailedReadsThatLeaveTheOutputAlone) {
  {
    korva::test::LogCapture log;
    DWORD value = 77;
    EXPECT_EQ(GetModuleRetriesCount(&value), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(value, 77u);
    EXPECT_TRUE(HasLineAt(log.Text(), "ERROR", "GetModuleRetriesCount", "Unable to open registry.")) << log.Text();
  }
  // A string "1" would read as the number 49 if its bytes were taken for a DWORD.
  for (const wchar_t* name : kLockValues) SetRaw(name, REG_SZ, L"1", 4);
  korva::test::LogCapture log;
  DWORD value = 55;
  EXPECT_EQ(GetModuleLocked(&value), ERROR_UNSUPPORTED_TYPE);
  EXPECT_EQ(GetUnHandledExceptionLock(&value), ERROR_UNSUPPORTED_TYPE);
  EXPECT_EQ(value, 55u);
  EXPECT_EQ(IsModuleLocked(), 0);            // unreadable lock: unlocked
  EXPECT_EQ(IsModuleRetriesCompleted(), 1);  // unreadable count: complete
  EXPECT_TRUE(HasLineAt(log.Text(), "ERROR", "GetModuleLocked", "Cannot add new NUMERIC value for the key"));
}

TEST_F(ModuleLockTest, ResetsCreateTheKeyAndClearWhatTheOnDemandProgramSet) {
  UpdateModuleLockStatus();  // no LockState key yet
  for (const wchar_t* name : kLockValues) EXPECT_EQ(GetDword(name), std::optional<DWORD>(0));

  for (const wchar_t* name : kLockValues) SetDword(name, 1);
  UpdateUnHandledExceptionLock();  // only the unhandled-failure mark
  EXPECT_EQ(GetDword(L"ondemandUnhandlelock"), std::optional<DWORD>(0));
  EXPECT_EQ(GetDword(L"ondemandlock"), std::optional<DWORD>(1));

  const wchar_t text[] = L"locked";  // a wrong-typed value is overwritten with a proper DWORD
  SetRaw(L"ondemandlock", REG_SZ, text, sizeof text);
  ResetModuleLockStatus();
  for (const wchar_t* name : kLockValues) EXPECT_EQ(GetDword(name), std::optional<DWORD>(0));
}

}  // namespace
