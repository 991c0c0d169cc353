// DeviceEventNotify in-process with real broadcasts: arrivals and removals start the real helper
// programs; headers and paths that cannot be used start nothing; custom volume events reach the
// encrypted-volume handler only while monitoring is on.
#include "devicecontrol/device_notifications.h"

#include <gtest/gtest.h>

#include "device_control_fixture.h"
#include "service/control_handler.h"
#include "settings/registry.h"

namespace korva::test {
namespace {

using DeviceEventsTest = DeviceControlTest;

constexpr GUID kEncryptionStatusChange = {0x062998B2, 0xEE1F, 0x4B6A, {0xB8, 0x57, 0xE7, 0x6C, 0xBB, 0xE9, 0xA6, 0xDA}};
constexpr GUID kVolumeChange = {0x7373654A, 0x812A, 0x11D0, {0xBE, 0xC7, 0x08, 0x00, 0x2B, 0xE2, 0x09, 0x2F}};
constexpr const char* kHandler = "@@@ Inside EncryptDeviceHandler::DeviceHandler @@@";

// Arrivals reach the dispatcher through the service's control handler.
TEST_F(DeviceEventsTest, UsbStickArrivalRunsTheSummaryAndRefreshesTheDrives) {
  InterfaceBroadcast stick(kUsbStickPath);
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, stick.header(), nullptr), 0u);
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 1),
            std::vector<std::string>{SummaryLine(std::string("-s ET_COL 1 0 \"") + kUsbStickInstance + "\"")});
  EXPECT_EQ(CountOf(AccessLog(), "\t\t\tDevice_Event_Notification\t"), 1u);
  EXPECT_TRUE(LinesOf("devctrlaction64").empty());  // an arrival never runs the action program
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "Device Notification Event is received."));
  EXPECT_TRUE(HasLogLine(log, "DeviceEventNotify", "Device is inserted."));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "Device Notification Event - end of block."));
  EXPECT_EQ(CountOf(log, "@@@ Inside UpdateRemovableDriveEntries @@@"), 1u);
  EXPECT_EQ(log.find(kHandler), std::string::npos);  // monitoring is off
}

TEST_F(DeviceEventsTest, RemovalRunsTheSummaryTheRefreshAndThenTheRestoreUnlessSkipped) {
  InterfaceBroadcast stick(kUsbStickPath);
  EXPECT_EQ(DeviceEventNotify(DBT_DEVICEREMOVECOMPLETE, stick.header()), 0u);
  // The action program is waited for: its line is there when the event returns.
  EXPECT_EQ(LinesOf("devctrlaction64"), std::vector<std::string>{ActionLine("-c 12")});
  const std::string removal = SummaryLine(std::string("-s ET_COL 1 1 \"") + kUsbStickInstance + "\"");
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 1), std::vector<std::string>{removal});

  SkipRestoreUnpluggedBlocked.store(1);
  EXPECT_EQ(DeviceEventNotify(DBT_DEVICEREMOVECOMPLETE, stick.header()), 0u);
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 2), (std::vector<std::string>{removal, removal}));
  EXPECT_EQ(LinesOf("devctrlaction64").size(), 1u);
  const std::string log = log_->Text();
  EXPECT_TRUE(
      HasLogLine(log, "DeviceEventNotify", "ProcessSecureDeviceOperation call skipped as per the Registry Entry."));
  // The first removal: summary, refresh, restore.
  EXPECT_LT(log.find("@@@ Inside ExecuteDeviceEventAction @@@"),
            log.find("@@@ Inside UpdateRemovableDriveEntries @@@"));
  EXPECT_LT(log.find("@@@ Inside UpdateRemovableDriveEntries @@@"),
            log.find("@@@ Inside ExecuteDeviceApplication @@@"));
}

TEST_F(DeviceEventsTest, UnusableHeadersPathsAndOtherEventsStartNothing) {
  InterfaceBroadcast volume(L"\\\\?\\STORAGE#Volume#{1}", DBT_DEVTYP_VOLUME);
  DEV_BROADCAST_HANDLE handle = HandleBroadcast(kVolumeChange);
  for (PDEV_BROADCAST_HDR header : {PDEV_BROADCAST_HDR{}, volume.header(), PDEV_BROADCAST_HDR(&handle)}) {
    EXPECT_EQ(DeviceEventNotify(DBT_DEVICEARRIVAL, header), 0u);
    EXPECT_EQ(DeviceEventNotify(DBT_DEVICEREMOVECOMPLETE, header), 0u);
  }
  std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ DeviceEventNotify ] lpdb is null (or) It is DeviceInterface DevType.\r\n"), 6u);
  EXPECT_EQ(log.find("@@@ Inside UpdateRemovableDriveEntries @@@"), std::string::npos);

  // Interface paths without a '#' or without a '\' in the instance part.
  const std::pair<const wchar_t*, const char*> paths[] = {
      {L"\\\\?\\USB-VID_0781&PID_5567", "Unable to find # in device instance path."},
      {L"\\\\?\\ABC#{a5dcbf10-6530-11d2-901f-00c04fb951ed}", "Unable to find slash in device instance path."},
  };
  for (const auto& [path, line] : paths) {
    InterfaceBroadcast broadcast(path);
    LogCapture capture(6);
    EXPECT_EQ(DeviceEventNotify(DBT_DEVICEARRIVAL, broadcast.header()), 0u);
    log = capture.Text();
    EXPECT_TRUE(HasLogLine(log, "ProcessSecureDeviceOperation", line)) << log;
  }

  // Events outside the dispatch table are only logged.
  InterfaceBroadcast stick(kUsbStickPath);
  LogCapture capture(6);
  EXPECT_EQ(DeviceEventNotify(DBT_DEVICEQUERYREMOVE, stick.header()), 0u);
  EXPECT_EQ(DeviceEventNotify(DBT_DEVICEREMOVEPENDING, stick.header()), 0u);
  EXPECT_EQ(CountOf(capture.Text(), "] [ DeviceEventNotify ] Unknown Event is received from Device Interface.\r\n"),
            2u);
  EXPECT_TRUE(bin_->Journal().empty());
}

// The switch is on only for a DWORD of 1: a missing or wrong-typed value turns it off. Only the
// encryption-status and volume-change events go to the handler; another GUID is only logged.
TEST_F(DeviceEventsTest, CustomVolumeEventsReachTheHandlerOnlyWhileMonitoringIsOn) {
  const struct {
    GUID guid;
    const char* text;
    bool handled;
  } events[] = {
      {kEncryptionStatusChange, "{062998B2-EE1F-4B6A-B857-E76CBBE9A6DA}", true},
      {kVolumeChange, "{7373654A-812A-11D0-BEC7-08002BE2092F}", true},
      {{0x7373654A, 0x812A, 0x11D0, {0xBE, 0xC7, 0x08, 0x00, 0x2B, 0xE2, 0x09, 0x30}},
       "{7373654A-812A-11D0-BEC7-08002BE20930}",
       false},
  };
  for (const DWORD type : {REG_NONE, REG_SZ, REG_DWORD}) {
    if (type != REG_NONE) {
      ASSERT_EQ(
          writeValue("SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings", "MonitorEncryptedDevice", type, "1"),
          0);
    }
    MonitorEncryptedDevice.store(7);
    UpdateMonitoringVariable();
    const bool on = type == REG_DWORD;
    EXPECT_EQ(MonitorEncryptedDevice.load(), on ? 1 : 0) << type;
    for (const auto& e : events) {
      DEV_BROADCAST_HANDLE handle = HandleBroadcast(e.guid);
      LogCapture capture(6);
      EXPECT_EQ(DeviceEventNotify(DBT_CUSTOMEVENT, reinterpret_cast<PDEV_BROADCAST_HDR>(&handle)), 0u);
      const std::string log = capture.Text();
      EXPECT_EQ(HasLogLine(log, "DeviceEventNotify", std::string("DBT_CUSTOMEVENT received :") + e.text), on) << log;
      EXPECT_EQ(log.find(kHandler) != std::string::npos, on && e.handled) << type << " " << e.text;
      // Off: entry and exit only; an unhandled GUID adds its own line.
      if (!on || !e.handled) {
        EXPECT_EQ(CountOf(log, "\n[ "), on ? 3u : 2u) << log;
      }
    }
  }
}

}  // namespace
}  // namespace korva::test
