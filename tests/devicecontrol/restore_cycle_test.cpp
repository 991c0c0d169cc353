// The blocked-device restore cycle, in-process: the restore timer with a short due time, the
// thread that arms the real one, and the switch read from the registry.
#include "devicecontrol/restore_cycle.h"

#include "settings/registry.h"
#include "support/service_fixture.h"
#include "win/unique_handle.h"

namespace {

using korva::test::HasLogLine;

class RestoreCycleTest : public korva::test::ServiceHostTest {
 protected:
  void SetUp() override {
    ServiceHostTest::SetUp();
    bin_->Add(L"devctrlaction64");
    bin_->Add(L"devctrlaction32");
  }
  void TearDown() override {
    korva::DeleteRestoreBlockedDeviceTimerForTest();
    SkipRestoreUnpluggedBlocked.store(0);
    ServiceHostTest::TearDown();
  }
  std::size_t Rows() const { return CountOf(AccessLog(), "\t\t\tRestore_Device_Notification\t"); }
};

TEST_F(RestoreCycleTest, TimerFiresOnceAfterItsDueTimeWhateverTheSkipSwitchSays) {
  for (const LONG skip : {0L, 1L}) {
    SCOPED_TRACE(skip);
    bin_->ClearJournal();
    const std::size_t rowsBefore = Rows();
    SkipRestoreUnpluggedBlocked.store(skip);
    ASSERT_TRUE(korva::ArmRestoreBlockedDeviceTimer(1500));
    Sleep(300);
    EXPECT_EQ(Rows(), rowsBefore) << "fired before its due time";
    EXPECT_EQ(WaitForAccessRows("Restore_Device_Notification", rowsBefore + 1, 15000), rowsBefore + 1);
    const std::vector<korva::test::JournalEntry> journal = bin_->WaitForJournal(1, 30000);
    ASSERT_EQ(journal.size(), 1u);
    EXPECT_EQ(journal[0].commandLine.substr(journal[0].commandLine.size() - 6), " -c 12") << journal[0].commandLine;
    Sleep(2250);  // one-shot: nothing more after another due time and a half
    EXPECT_EQ(Rows(), rowsBefore + 1);
    EXPECT_EQ(bin_->Journal().size(), 1u);
    korva::DeleteRestoreBlockedDeviceTimerForTest();
  }
}

// Deleting the timer before it is due is what a service stop amounts to: no restore runs.
TEST_F(RestoreCycleTest, ThreadArmsTheThreeMinuteTimerAndEndsAtOnce) {
  korva::win::UniqueHandle thread(CreateThread(nullptr, 0, ProcessRestoreBlockedDeviceThread, nullptr, 0, nullptr));
  ASSERT_TRUE(thread);
  ASSERT_EQ(WaitForSingleObject(thread.get(), 10000), static_cast<DWORD>(WAIT_OBJECT_0));
  EXPECT_NE(RestoreBlockedDeviceTimer, nullptr);
  korva::DeleteRestoreBlockedDeviceTimerForTest();
  EXPECT_EQ(Rows(), 0u);
  EXPECT_TRUE(HasLogLine(log_->Text(), "ProcessRestoreBlockedDeviceThread",
                         "Registered the TimerRoutine callback to receive the notification in the device restore "
                         "refresh cycle in next3minutes."));
}

// A missing or wrong-typed value reads as 0.
TEST_F(RestoreCycleTest, SkipSwitchIsOneExactlyWhenTheValueIsANonZeroDword) {
  const struct {
    DWORD type;  // REG_NONE: no value
    const char* data;
    LONG expected;
  } cases[] = {{REG_NONE, "", 0}, {REG_DWORD, "0", 0}, {REG_DWORD, "5", 1}, {REG_SZ, "1", 0}};
  for (const auto& c : cases) {
    korva::test::CleanAgentRegistry();
    if (c.type != REG_NONE) {
      ASSERT_EQ(writeValue("SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings", "SkipRestoreUnpluggedBlocked",
                           c.type, c.data),
                0);
    }
    SkipRestoreUnpluggedBlocked.store(1 - c.expected);  // written whether or not the read succeeds
    FetchRestoreUnpluggedBlockedDevice();
    EXPECT_EQ(SkipRestoreUnpluggedBlocked.load(), c.expected) << c.type << " " << c.data;
  }
}

}  // namespace
