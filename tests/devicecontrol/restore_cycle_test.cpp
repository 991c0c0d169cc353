// The blocked-device restore cycle, in-process: the restore timer with a short due time, the
// thread that arms the real one, and the switch read from the registry.
#include <windows.h>

#include <string>
#include <vector>

#include "devicecontrol/restore_cycle.h"
#include "settings/registry.h"
#include "support/service_fixture.h"
#include "win/unique_handle.h"

namespace {

using korva::test::HasLogLine;

constexpr const char* kRow = "Restore_Device_Notification";

class RestoreCycleTest : public korva::test::ServiceHostTest {
 protected:
  void SetUp() override {
    ServiceHostTest::SetUp();
    bin_->Add(L"devctrlaction64");
    bin_->Add(L"devctrlaction32");
    SkipRestoreUnpluggedBlocked.store(0);
  }
  void TearDown() override {
    korva::DeleteRestoreBlockedDeviceTimerForTest();
    SkipRestoreUnpluggedBlocked.store(0);
    ServiceHostTest::TearDown();
  }
  std::size_t Rows() const { return CountOf(AccessLog(), std::string("\t\t\t") + kRow + "\t"); }
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
    EXPECT_EQ(WaitForAccessRows(kRow, rowsBefore + 1, 15000), rowsBefore + 1);
    const std::vector<korva::test::JournalEntry> journal = bin_->WaitForJournal(1, 30000);
    ASSERT_EQ(journal.size(), 1u);
    const std::string& line = journal[0].commandLine;
    EXPECT_EQ(line.substr(line.size() - 6), " -c 12") << line;
    // One-shot: nothing more after another due time and a half.
    Sleep(2250);
    EXPECT_EQ(Rows(), rowsBefore + 1);
    EXPECT_EQ(bin_->Journal().size(), 1u);
    korva::DeleteRestoreBlockedDeviceTimerForTest();
  }
}

TEST_F(RestoreCycleTest, ThreadArmsTheThreeMinuteTimerAndEndsAtOnce) {
  korva::win::UniqueHandle thread(CreateThread(nullptr, 0, ProcessRestoreBlockedDeviceThread, nullptr, 0, nullptr));
  ASSERT_TRUE(thread);
  ASSERT_EQ(WaitForSingleObject(thread.get(), 10000), static_cast<DWORD>(WAIT_OBJECT_0));
  EXPECT_NE(RestoreBlockedDeviceTimer, nullptr);
  // Deleting the timer before it is due is what a service stop amounts to: no restore runs.
  korva::DeleteRestoreBlockedDeviceTimerForTest();
  EXPECT_EQ(Rows(), 0u);
  EXPECT_TRUE(HasLogLine(log_->Text(), "ProcessRestoreBlockedDeviceThread",
                         "Registered the TimerRoutine callback to receive the notification in the device restore "
                         "refresh cycle in next3minutes."));
}

TEST_F(RestoreCycleTest, SkipSwitchIsOneExactlyWhenTheValueIsANonZeroDword) {
  // REG_NONE: no value at all.
  const struct { DWORD type; const char* data; LONG expected; } cases[] = {
      {REG_NONE, "", 0}, {REG_DWORD, "0", 0}, {REG_DWORD, "5", 1}, {REG_SZ, "1", 0}};
  for (const auto& c : cases) {
    korva::test::CleanAgentRegistry();
    if (c.type != REG_NONE) {
      ASSERT_EQ(writeValue("SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings", "SkipRestoreUnpluggedBlocked",
                           c.type, c.data),
                0);
    }
    // The flag is written whether or not the read succeeds, so start from the other answer.
    SkipRestoreUnpluggedBlocked.store(c.expected != 0 ? 0 : 1);
    FetchRestoreUnpluggedBlockedDevice();
    EXPECT_EQ(SkipRestoreUnpluggedBlocked.load(), c.expected) << c.type << " " << c.data;
  }
  EXPECT_EQ(CountOf(log_->Text(), "@@@ Inside FetchRestoreUnpluggedBlockedDevice @@@\r\n"), 4u);
}

}  // namespace
