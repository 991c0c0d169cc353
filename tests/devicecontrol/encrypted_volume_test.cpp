// The encrypted-volume handler over a table of removable volumes and protection answers (Wine has
// neither), with the notification calls counted: blocks, custom events, removals and the stop.
#include <windows.h>
#include <dbt.h>

#include <map>
#include <set>

#include "encryption/encrypt_device_handler.h"
#include "encryption/encrypted_volumes.h"
#include "encryption/wmi_core.h"
#include "shared/notification_calls.h"
#include "support/agent_fixture.h"

namespace korva::test {
namespace {

constexpr wchar_t kStickInstance[] = L"USB\\VID_0781&PID_5567\\4C530001";

struct TableSource final : EncryptedVolumeSource {
  std::vector<RemovableVolume> RemovableVolumes() override { return volumes; }
  ProtectionAnswer ProtectionStatus(wchar_t letter) override {
    const auto answer = answers.find(letter);
    return answer != answers.end() ? answer->second : ProtectionAnswer{std::nullopt, "no encryptable volume"};
  }
  std::vector<RemovableVolume> volumes;
  std::map<wchar_t, ProtectionAnswer> answers;
};

// Live notifications as the fake registration calls hand them out and take them back.
std::set<HDEVNOTIFY> g_live;
std::size_t g_next = 0x1000, g_cancelledTwice = 0;
HDEVNOTIFY WINAPI FakeRegister(HANDLE, LPVOID, DWORD) {
  const auto notification = reinterpret_cast<HDEVNOTIFY>(g_next += 8);
  g_live.insert(notification);
  return notification;
}
BOOL WINAPI FakeUnregister(HDEVNOTIFY notification) {
  if (g_live.erase(notification) == 0) ++g_cancelledTwice;
  return TRUE;
}

class EncryptedVolumeTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    bin_.Add(L"devctrlaction64");
    ResetEncryptedVolumesForTest();
    g_live.clear();
    g_cancelledTwice = 0;
    previous_ = SetDeviceNotificationCalls({FakeRegister, FakeUnregister});
    SetEncryptedVolumeSourceForTest(&source_);
    MonitorEncryptedDevice.store(1);
  }
  void TearDown() override {
    SetEncryptedVolumeSourceForTest(nullptr);
    SetDeviceNotificationCalls(previous_);
    ResetEncryptedVolumesForTest();
    AgentTest::TearDown();
  }
  // A custom event as the system sends it through a volume's notification.
  static void CustomEvent(HDEVNOTIFY notification) {
    DEV_BROADCAST_HANDLE event{};
    event.dbch_size = sizeof event;
    event.dbch_devicetype = DBT_DEVTYP_HANDLE;
    event.dbch_hdevnotify = notification;
    EncryptDeviceHandler().DeviceHandler(reinterpret_cast<PDEV_BROADCAST_HDR>(&event), 2, 1);
  }

  TableSource source_;
  DeviceNotificationCalls previous_{};
};

TEST_F(EncryptedVolumeTest, UnprotectedVolumesAreBlockedOnceAndNotificationsLiveAsLongAsTheirVolumes) {
  // Under Wine only C: opens as a volume: Z: and Q: are checked without a notification.
  source_.volumes = {{L'C', {L"STORAGE\\VOLUME\\1", L"USBSTOR\\DISK&VEN_A\\4C530001&0", kStickInstance}},
                     {L'Z', {L"STORAGE\\VOLUME\\2"}},
                     {L'Q', {}}};
  source_.answers = {{L'C', {0, ""}}, {L'Z', {1, ""}}, {L'Q', {std::nullopt, "of the wrong type"}}};
  EncryptDeviceHandler handler;
  handler.DeviceHandler(nullptr, 3, 0);
  handler.DeviceHandler(nullptr, 3, 0);  // checked again, blocked no more
  EXPECT_EQ(WmiFirstConnectionResult(), static_cast<HRESULT>(0x8004100EUL));  // no such provider here
  const std::vector<std::string> blocks = LinesOf("devctrlaction64", 1);
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].find(" -c 7 -n"), blocks[0].find(".exe\"") + 5);
  ASSERT_EQ(g_live.size(), 1u);
  CustomEvent(reinterpret_cast<HDEVNOTIFY>(0x7));
  CustomEvent(*g_live.begin());  // C: is checked again
  const std::string log = log_->Peek();
  EXPECT_EQ(CountOf(log, "Drive C: ProtectionStatus :0"), 3u);
  EXPECT_LOG_LINES(log, {{"EncryptDeviceHandler::CheckAndBlock", "Drive C: is not protected; blocking it."},
                         {"EncryptDeviceHandler::CheckAndBlock", "Protection status of Q: unknown: of the wrong type."},
                         {"EncryptDeviceHandler::DeviceHandler", "Unable to open the volume \\\\.\\Z:."},
                         {"EncryptDeviceHandler::DeviceHandler", "Volume C: registered for its notifications."},
                         {"EncryptDeviceHandler::DeviceHandler",
                          "The event came for a volume that is not registered; ignored."}});

  // The stick's removal drops C:'s notification; a thousand more arrivals and removals leave none.
  handler.UnregisterDiskNotification(L"usb\\vid_0781&pid_5567\\4c530001");
  EXPECT_TRUE(g_live.empty());
  source_.answers[L'C'] = {1, ""};
  for (int i = 0; i < 1000; ++i) {
    handler.DeviceHandler(nullptr, 1, 0);
    handler.UnregisterDiskNotification(kStickInstance);
  }
  EXPECT_TRUE(g_live.empty());
  // The stop cancels from a copy and the table keeps its entries: nothing is ever cancelled twice.
  handler.DeviceHandler(nullptr, 1, 0);
  handler.UnregisterAllDiskNotification();
  handler.UnregisterAllDiskNotification();
  handler.UnregisterDiskNotification(kStickInstance);
  EXPECT_TRUE(g_live.empty());
  EXPECT_EQ(g_cancelledTwice, 0u);
  EXPECT_EQ(LinesOf("devctrlaction64").size(), 1u);
}

}  // namespace
}  // namespace korva::test
