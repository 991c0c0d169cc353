// The settings-change monitor on its own thread against the real registry: it waits for the key
// to exist, reacts once to a burst of changes in the order its dependants need, and ends with the
// service.
#include <cstdint>

#include "devicecontrol/settings_monitor.h"
#include "fileaudit/filter_cycle.h"
#include "support/agent_fixture.h"

namespace korva::test {
namespace {

const std::string kQvm = std::string(kAgentKey) + "\\QVM\\Settings";
constexpr char kReacting[] = "Agent settings changed; applying them.";

class SettingsMonitorTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    SetFilterTimerDueMsForTest(3600000);  // armed by a reaction, never fired while the test runs
    TempAccessRevokeTimerQueue = CreateTimerQueue();
    ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, dir_.NarrowPath()), 0);
    for (const wchar_t* folder : {L"data", L"data\\policy"}) CreateDirectoryW(dir_.File(folder).c_str(), nullptr);
  }
  void TearDown() override {
    SetEvent(ServiceStopEvent);
    if (thread_) WaitForSingleObject(thread_.get(), 10000);
    for (HANDLE* queue : {&QVFAFilterTimerQueue, &TempAccessRevokeTimerQueue}) {
      if (*queue != nullptr) DeleteTimerQueueEx(*queue, INVALID_HANDLE_VALUE);
      *queue = nullptr;
    }
    QVFAFilterTimer = TempAccessRevokeTimer = nullptr;
    SetFilterTimerDueMsForTest(0);
    AgentTest::TearDown();
  }
  std::size_t Reactions() const { return CountOf(log_->Peek(), kReacting); }
  // Wine answers GetProcessHandleCount with 0, but it hands out the lowest free handle slot: handles
  // left open push a fresh handle's value up.
  static std::uintptr_t FreshHandleValue() {
    const win::UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    return reinterpret_cast<std::uintptr_t>(event.get());
  }

  win::UniqueHandle thread_;
};

TEST_F(SettingsMonitorTest, WaitsForTheKeyReactsOncePerBurstAndEndsWithTheService) {
  WriteFileBytes(dir_.File(L"data\\policy\\devicecontrol.json"), "{}");  // the filter is wanted
  bin_.Add(L"korvaFaUser");
  thread_.reset(CreateThread(nullptr, 0, MonitorSettingsModified, nullptr, 0, nullptr));
  ASSERT_TRUE(WaitForLog("Unable to open [" + kQvm + "] with code : 2; looking again every 5 seconds."));
  ASSERT_EQ(writeValue(kQvm, "IsStopFileAudit", REG_DWORD, "0"), 0);  // the key appears
  ASSERT_TRUE(WaitForLog("Watching [" + kQvm + "] for changes.", 1, 15000));
  ASSERT_EQ(writeValue(kQvm, "MonitorEncryptedDevice", REG_DWORD, "1"), 0);
  ASSERT_TRUE(WaitForLog("@@@ End of ExecuteDeviceEventAction @@@", 1, 15000));
  EXPECT_EQ(MonitorEncryptedDevice.load(), 1);
  EXPECT_EQ(LinesOf("korvaFaUser", 1).size(), 1u);  // the filter's user program
  const std::string first = log_->Peek();
  EXPECT_LOG_LINES(first,
                   {{"MonitorSettingsModified", kReacting}, Entered("UpdateMonitoringVariable"),
                    Entered("FetchRestoreUnpluggedBlockedDevice"),
                    {"CheckQVFAFilterRequirement", "isQVFAFilterRequired :1"}, Entered("DriverServiceExecution"),
                    Entered("UpdateRemovableDriveEntries"), Entered("StartDriverUserApplication"),
                    {"MonitorSettingsModified", "QVFAFilterTimerQueue is created successfully."},
                    Entered("ProcessandUpdateTemporaryAccess"), Entered("ExecuteDeviceEventAction")},
                   true);

  // A thousand changes in a burst, with the filter no longer wanted: one reaction or a few, and no
  // handle left behind per change.
  DeleteFileW(dir_.File(L"data\\policy\\devicecontrol.json").c_str());
  const std::uintptr_t handle = FreshHandleValue();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(writeValue(kQvm + "\\Burst", "Value", REG_DWORD, std::to_string(i)), 0);
  ASSERT_TRUE(WaitForLog("@@@ End of ExecuteDeviceEventAction @@@", 2, 15000));
  EXPECT_FALSE(WaitUntil([&] { return Reactions() > 3; }, 4000)) << Reactions() << " reactions";
  EXPECT_LT(FreshHandleValue(), handle + 20 * 4) << handle;  // handle values go in steps of 4
  const std::string burst = log_->Peek().substr(first.size());
  EXPECT_LOG_LINES(burst,
                   {{"CheckQVFAFilterRequirement", "isQVFAFilterRequired :0"}, Entered("DriverServiceExecution"),
                    {"StartDriverUserApplication", "@@@ Inside StartDriverUserApplication @@@", LogLine::kAbsent}},
                   true);

  ASSERT_TRUE(SetEvent(ServiceStopEvent));
  EXPECT_EQ(WaitForSingleObject(thread_.get(), 10000), WAIT_OBJECT_0);
  EXPECT_TRUE(HasLogLine(log_->Peek(), "MonitorSettingsModified", "@@@ End of MonitorSettingsModified @@@"));
}

}  // namespace
}  // namespace korva::test
