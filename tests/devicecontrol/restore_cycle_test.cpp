// The blocked-device restore cycle, in-process: the restore timer with a short due time, the
// thread that arms the real one, and the switch read from the registry.
#include <windows.h>

#include <iterator>
#include <string>
#include <vector>

#include "devicecontrol/restore_cycle.h"
#include "support/service_fixture.h"
#include "settings/log.h"
#include "win/unique_handle.h"

namespace {

using korva::test::HasLogLine;

constexpr const char* kSettingsKey = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings";
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
    EXPECT_NE(RestoreBlockedDeviceTimer, nullptr);
    Sleep(300);
    EXPECT_EQ(Rows(), rowsBefore) << "fired before its due time";

    EXPECT_EQ(WaitForAccessRows(kRow, rowsBefore + 1, 15000), rowsBefore + 1);
    const std::vector<korva::test::JournalEntry> journal = bin_->WaitForJournal(1, 30000);
    ASSERT_EQ(journal.size(), 1u) << "the action program did not run (is ProcessSecureDeviceOperation real yet?)";
    EXPECT_TRUE(journal[0].name == "devctrlaction64" || journal[0].name == "devctrlaction32") << journal[0].name;
    const std::string& line = journal[0].commandLine;
    ASSERT_GE(line.size(), 5u);
    EXPECT_EQ(line.substr(line.size() - 5), "-c 12") << line;
    EXPECT_EQ(line.find("-n"), std::string::npos) << line;

    // One-shot: nothing more after another due time and a half.
    Sleep(2250);
    EXPECT_EQ(Rows(), rowsBefore + 1);
    EXPECT_EQ(bin_->Journal().size(), 1u);
    korva::DeleteRestoreBlockedDeviceTimerForTest();
  }
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ RestoreBlockedDeviceTimerRoutine ] @@@ Inside RestoreBlockedDeviceTimerRoutine @@@\r\n"),
            2u);
  EXPECT_EQ(CountOf(log, "] [ RestoreBlockedDeviceTimerRoutine ] @@@ End of RestoreBlockedDeviceTimerRoutine @@@\r\n"),
            2u);
  EXPECT_TRUE(HasLogLine(log, "ProcessRestoreBlockedDeviceThread",
                         "Registered the TimerRoutine callback to receive the notification in the device restore "
                         "refresh cycle in next0minutes."));
}

TEST_F(RestoreCycleTest, ThreadArmsTheThreeMinuteTimerAndEndsAtOnce) {
  korva::win::UniqueHandle thread(CreateThread(nullptr, 0, ProcessRestoreBlockedDeviceThread, nullptr, 0, nullptr));
  ASSERT_TRUE(thread);
  ASSERT_EQ(WaitForSingleObject(thread.get(), 10000), static_cast<DWORD>(WAIT_OBJECT_0));
  DWORD exitCode = 0;
  ASSERT_TRUE(GetExitCodeThread(thread.get(), &exitCode));
  EXPECT_EQ(exitCode, 1u);
  EXPECT_NE(RestoreBlockedDeviceTimer, nullptr);
  // Deleting the timer before it is due is what a service stop amounts to: no restore runs.
  korva::DeleteRestoreBlockedDeviceTimerForTest();
  EXPECT_EQ(Rows(), 0u);
  EXPECT_TRUE(bin_->Journal().empty());

  const std::string log = log_->Text();
  const char* kThread = "ProcessRestoreBlockedDeviceThread";
  const std::vector<std::string> order = {
      "@@@ Inside ProcessRestoreBlockedDeviceThread Method @@@",
      "Registered the TimerRoutine callback to receive the notification in the device restore refresh cycle in "
      "next3minutes.",
      "@@@ End Of ProcessRestoreBlockedDeviceThread Method @@@",
  };
  std::size_t at = 0;
  for (const std::string& message : order) {
    at = log.find("] [ " + std::string(kThread) + " ] " + message + "\r\n", at);
    ASSERT_NE(at, std::string::npos) << "missing or out of order: " << message << "\n" << log;
  }
  EXPECT_EQ(CountOf(log, "RestoreBlockedDeviceTimerRoutine"), 0u);
}

TEST_F(RestoreCycleTest, SkipSwitchIsOneExactlyWhenTheValueIsANonZeroDword) {
  struct Case {
    const char* what;
    DWORD type;  // REG_NONE: no value at all
    std::string data;
    LONG expected;
  };
  const auto dword = [](DWORD value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); };
  const Case cases[] = {
      {"missing", REG_NONE, "", 0},
      {"zero", REG_DWORD, dword(0), 0},
      {"five", REG_DWORD, dword(5), 1},
      {"one", REG_DWORD, dword(1), 1},
      {"all bits", REG_DWORD, dword(0xFFFFFFFFu), 1},
      {"a string is no switch", REG_SZ, std::string("1", 2), 0},
  };
  for (const Case& c : cases) {
    korva::test::CleanAgentRegistry();
    if (c.type != REG_NONE) {
      HKEY key = nullptr;
      ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, kSettingsKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr),
                ERROR_SUCCESS);
      ASSERT_EQ(RegSetValueExA(key, "SkipRestoreUnpluggedBlocked", 0, c.type,
                               reinterpret_cast<const BYTE*>(c.data.data()), static_cast<DWORD>(c.data.size())),
                ERROR_SUCCESS);
      RegCloseKey(key);
    }
    // The flag is written whether or not the read succeeds, so start from the other answer.
    SkipRestoreUnpluggedBlocked.store(c.expected != 0 ? 0 : 1);
    FetchRestoreUnpluggedBlockedDevice();
    EXPECT_EQ(SkipRestoreUnpluggedBlocked.load(), c.expected) << c.what;
  }
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "@@@ Inside FetchRestoreUnpluggedBlockedDevice @@@\r\n"), std::size(cases));
}

}  // namespace
