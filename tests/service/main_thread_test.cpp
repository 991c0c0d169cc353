// InvokeMainThread and the revoke timer in-process, with the uptime seam taking either branch.
#include <windows.h>

#include "ondemand/module_lock.h"
#include "power/power_tracking.h"
#include "support/service_fixture.h"
#include "service/service_main.h"
#include "settings/registry.h"

namespace {

using korva::kLockStateKey;
using korva::kPowerEventsKey;
using korva::test::HasLogLine;

// The orderly shutdown time as the power tracking stores it.
void RecordShutdownTime(LONGLONG seconds) { korva::test::WriteQword(kPowerEventsKey, "LastShutdownTime", seconds); }

ULONGLONG FiveMinutes() { return 5 * 60 * 1000; }
ULONGLONG TenMinutes() { return 10 * 60 * 1000; }

class MainThreadTest : public korva::test::ServiceHostTest {
 protected:
  void TearDown() override {
    korva::SetUptimeSource(nullptr);
    ServiceHostTest::TearDown();
  }
};

TEST_F(MainThreadTest, StartWithinTenMinutesOfBootAfterAForcedShutdownMarksItAndSendsOneBootRow) {
  korva::SetUptimeSource(&FiveMinutes);
  korva::test::WriteQword(korva::test::kAgentKey, "LastBootUpTime", 2000);
  RecordShutdownTime(1000);  // older than the last boot: no orderly shutdown since
  ASSERT_EQ(writeValue(kLockStateKey, "ondemandlock", REG_DWORD, "1"), 0);
  ASSERT_EQ(writeValue(kLockStateKey, "ondemandlockretry", REG_DWORD, "5"), 0);
  ASSERT_EQ(writeValue(kLockStateKey, "ondemandUnhandlelock", REG_DWORD, "0"), 0);

  EXPECT_EQ(InvokeMainThread(nullptr), 0u);
  EXPECT_EQ(WaitForAccessRows("Machine_Bootup_Notification", 1, 10000), 1u);
  Sleep(200);
  EXPECT_EQ(CountOf(AccessLog(), "Machine_Bootup_Notification"), 1u);
  DWORD lock = 9;
  DWORD retries = 9;
  EXPECT_EQ(ReadDwordRegValue(kLockStateKey, "ondemandlock", lock), 0);
  EXPECT_EQ(ReadDwordRegValue(kLockStateKey, "ondemandlockretry", retries), 0);
  EXPECT_EQ(lock, 0u);
  EXPECT_EQ(retries, 0u);
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "InvokeMainThread", "System Bootup time :300000"));
  EXPECT_TRUE(HasLogLine(log, "InvokeMainThread", "Check for ForceShudown : LastBoot :2000"));
  EXPECT_TRUE(HasLogLine(log, "InvokeMainThread", "Check for ForceShudown : Shutdown :1000"));
  EXPECT_TRUE(HasLogLine(log, "InvokeMainThread", "Check for ForceShudown : ondemandunhandlelock :0"));
  EXPECT_TRUE(HasLogLine(log, "WriteForceShutdownEntry", "@@@ Inside WriteForceShutdownEntry @@@"));
  EXPECT_TRUE(HasLogLine(log, "InvokeMainThread", "Computer Bootup Notification is assigned."));
  EXPECT_TRUE(HasLogLine(log, "ExecuteDeviceEventAction", "@@@ Inside ExecuteDeviceEventAction @@@"));
}

TEST_F(MainThreadTest, UnhandledMarkKeepsTheLockValuesButTheForcedShutdownIsStillWritten) {
  korva::SetUptimeSource(&FiveMinutes);
  korva::test::WriteQword(korva::test::kAgentKey, "LastBootUpTime", 2000);
  RecordShutdownTime(1000);
  ASSERT_EQ(writeValue(kLockStateKey, "ondemandlock", REG_DWORD, "1"), 0);
  ASSERT_EQ(writeValue(kLockStateKey, "ondemandUnhandlelock", REG_DWORD, "1"), 0);
  EXPECT_EQ(InvokeMainThread(nullptr), 0u);
  DWORD lock = 0;
  EXPECT_EQ(ReadDwordRegValue(kLockStateKey, "ondemandlock", lock), 0);
  EXPECT_EQ(lock, 1u);
  EXPECT_TRUE(HasLogLine(log_->Text(), "WriteForceShutdownEntry", "@@@ Inside WriteForceShutdownEntry @@@"));
}

TEST_F(MainThreadTest, AnOrderlyShutdownAfterTheLastBootIsNotAForcedOne) {
  korva::SetUptimeSource(&FiveMinutes);
  korva::test::WriteQword(korva::test::kAgentKey, "LastBootUpTime", 2000);
  RecordShutdownTime(3000);
  EXPECT_EQ(InvokeMainThread(nullptr), 0u);
  EXPECT_EQ(WaitForAccessRows("Machine_Bootup_Notification", 1, 10000), 1u);
  const std::string log = log_->Text();
  EXPECT_FALSE(HasLogLine(log, "WriteForceShutdownEntry", "@@@ Inside WriteForceShutdownEntry @@@"));
  EXPECT_FALSE(korva::test::HasLogLineStartingWith(log, "InvokeMainThread", "Check for ForceShudown : ondemandunhandlelock"));
}

TEST_F(MainThreadTest, TenMinutesAfterBootThereIsNoCheckAndNoBootRow) {
  korva::SetUptimeSource(&TenMinutes);
  korva::test::WriteQword(korva::test::kAgentKey, "LastBootUpTime", 2000);
  RecordShutdownTime(1000);
  EXPECT_EQ(InvokeMainThread(nullptr), 0u);
  Sleep(300);
  EXPECT_EQ(AccessLog(), "");
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "InvokeMainThread", "Power Refresh Notification is assigned."));
  EXPECT_FALSE(korva::test::HasLogLineStartingWith(log, "InvokeMainThread", "Check for ForceShudown"));
  // The boot time of this run is stored for the next start's check.
  const LONGLONG boot = korva::test::ReadQword(korva::test::kAgentKey, "LastBootUpTime");
  EXPECT_NEAR(static_cast<double>(boot), static_cast<double>(korva::CurrentTimeInSeconds() - 600), 5.0);
}

TEST_F(MainThreadTest, RevokeTimerIsNotArmedForZeroAndFiresAtTheEarliestExpiry) {
  TempAccessRevokeTimerQueue = CreateTimerQueue();
  ASSERT_NE(TempAccessRevokeTimerQueue, nullptr);
  korva::ArmTempAccessRevokeTimer(0);
  korva::ArmTempAccessRevokeTimer(korva::LocalTimeInSeconds() + 1);
  std::string log;
  for (int i = 0; i < 750 && log.find("@@@ End of TempAccessRevokeTimerRoutine @@@") == std::string::npos; ++i) {
    Sleep(20);
    log = korva::test::ReadFileBytes(log_->path());
  }
  DeleteTimerQueueEx(TempAccessRevokeTimerQueue, INVALID_HANDLE_VALUE);
  TempAccessRevokeTimerQueue = nullptr;
  log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "ServiceMain", "No need to create a thread."));
  EXPECT_NE(log.find("[ ERROR ] [ ServiceMain ] No need to create a thread."), std::string::npos);
  EXPECT_EQ(CountOf(log, "@@@ Inside TempAccessRevokeTimerRoutine @@@"), 1u);
}

}  // namespace
