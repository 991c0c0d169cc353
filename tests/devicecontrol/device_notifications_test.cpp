// DeviceEventNotify in-process with real broadcasts: arrivals and removals start the real helper
// programs; headers and paths that cannot be used start nothing; custom volume events reach the
// encrypted-volume handler only while monitoring is on.
#include "devicecontrol/device_notifications.h"

#include <gtest/gtest.h>

#include "device_control_fixture.h"
#include "devicecontrol/device_actions.h"
#include "service/control_handler.h"
#include "settings/registry.h"

namespace korva::test {
namespace {

using DeviceEventsTest = DeviceControlTest;

constexpr GUID kEncryptionStatusChange = {0x062998B2, 0xEE1F, 0x4B6A, {0xB8, 0x57, 0xE7, 0x6C, 0xBB, 0xE9, 0xA6, 0xDA}};
constexpr GUID kVolumeChange = {0x7373654A, 0x812A, 0x11D0, {0xBE, 0xC7, 0x08, 0x00, 0x2B, 0xE2, 0x09, 0x2F}};
constexpr GUID kOtherVolumeEvent = {0x7373654A, 0x812A, 0x11D0, {0xBE, 0xC7, 0x08, 0x00, 0x2B, 0xE2, 0x09, 0x30}};
constexpr const char* kSettingsKey = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings";

// Position of `message` logged under `function`; npos when absent.
std::size_t Where(const std::string& log, const std::string& function, const std::string& message) {
  return log.find("] [ " + function + " ] " + message + "\r\n");
}

// Records in the log: lines that start with the "[ date ]" prefix.
std::size_t RecordCount(const std::string& log) {
  std::size_t count = log.rfind("[ ", 0) == 0 ? 1 : 0;
  for (std::size_t at = log.find("\n[ "); at != std::string::npos; at = log.find("\n[ ", at + 1)) ++count;
  return count;
}

TEST_F(DeviceEventsTest, UsbStickArrivalRunsTheSummaryAndRefreshesTheDrives) {
  InterfaceBroadcast stick(kUsbStickPath);
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, stick.header(), nullptr), 0u);
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 1),
            std::vector<std::string>{SummaryLine(std::string("-s ET_COL 1 0 \"") + kUsbStickInstance + "\"")});
  EXPECT_EQ(CountOf(AccessLog(), "\t\t\tDevice_Event_Notification\t"), 1u);

  MonitorEncryptedDevice.store(1);
  EXPECT_EQ(DeviceEventNotify(DBT_DEVICEARRIVAL, stick.header()), 0u);
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 2).size(), 2u);
  EXPECT_TRUE(LinesOf("devctrlaction64").empty());  // an arrival never runs the action program

  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ DeviceEventNotify ] Device is inserted.\r\n"), 2u);
  EXPECT_EQ(CountOf(log, "@@@ Inside UpdateRemovableDriveEntries @@@"), 2u);
  EXPECT_FALSE(HasLogLine(log, "EncryptDeviceHandler::UnregisterDiskNotification",
                          "@@@ Inside EncryptDeviceHandler::UnregisterDiskNotification @@@"));
  // The handler sees the arrival only while monitoring is on: after the second summary launch.
  EXPECT_EQ(CountOf(log, "@@@ Inside EncryptDeviceHandler::DeviceHandler @@@"), 1u);
  const std::size_t secondSummary = log.rfind("@@@ Inside ExecuteDeviceEventAction @@@");
  const std::size_t handler = log.find("@@@ Inside EncryptDeviceHandler::DeviceHandler @@@");
  const std::size_t lastRefresh = log.rfind("@@@ Inside UpdateRemovableDriveEntries @@@");
  EXPECT_LT(secondSummary, handler);
  EXPECT_LT(handler, lastRefresh);
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
  EXPECT_EQ(CountOf(log, "] [ DeviceEventNotify ] Device is removed.\r\n"), 2u);
  EXPECT_EQ(CountOf(log, "@@@ Inside EncryptDeviceHandler::UnregisterDiskNotification @@@"), 2u);
  EXPECT_EQ(CountOf(log, "@@@ Inside UpdateRemovableDriveEntries @@@"), 2u);
  EXPECT_EQ(CountOf(log, "@@@ Inside ExecuteDeviceApplication @@@"), 1u);
  EXPECT_EQ(CountOf(log, "] [ DeviceEventNotify ] ProcessSecureDeviceOperation call skipped as per the Registry "
                         "Entry.\r\n"),
            1u);
  // Order of the first removal: summary, refresh, restore.
  const std::size_t summary = log.find("@@@ Inside ExecuteDeviceEventAction @@@");
  const std::size_t refresh = log.find("@@@ Inside UpdateRemovableDriveEntries @@@");
  const std::size_t restore = log.find("@@@ Inside ExecuteDeviceApplication @@@");
  EXPECT_LT(summary, refresh);
  EXPECT_LT(refresh, restore);
}

TEST_F(DeviceEventsTest, HeadersThatAreNotDeviceInterfacesStartNothing) {
  InterfaceBroadcast volume(L"\\\\?\\STORAGE#Volume#{1}", DBT_DEVTYP_VOLUME);
  DEV_BROADCAST_HANDLE handle = HandleBroadcast(kVolumeChange);
  const PDEV_BROADCAST_HDR headers[] = {nullptr, volume.header(), reinterpret_cast<PDEV_BROADCAST_HDR>(&handle)};
  for (DWORD event : {static_cast<DWORD>(DBT_DEVICEARRIVAL), static_cast<DWORD>(DBT_DEVICEREMOVECOMPLETE)}) {
    for (PDEV_BROADCAST_HDR header : headers) EXPECT_EQ(DeviceEventNotify(event, header), 0u);
  }
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ DeviceEventNotify ] lpdb is null (or) It is DeviceInterface DevType.\r\n"), 6u);
  EXPECT_EQ(CountOf(log, "Device is inserted."), 3u);
  EXPECT_EQ(CountOf(log, "Device is removed."), 3u);
  EXPECT_EQ(log.find("@@@ Inside ProcessSecureDeviceOperation @@@"), std::string::npos);
  EXPECT_EQ(log.find("@@@ Inside UpdateRemovableDriveEntries @@@"), std::string::npos);
  EXPECT_EQ(log.find("@@@ Inside ExecuteAppWithArgs @@@"), std::string::npos);
}

TEST_F(DeviceEventsTest, InterfacePathsWithoutAnInstancePathStartNoHelper) {
  struct Case {
    const wchar_t* path;
    const char* line;
  };
  const Case cases[] = {
      {L"\\\\?\\USB-VID_0781&PID_5567", "Unable to find # in device instance path."},
      {L"ab", "Unable to find # in device instance path."},
      {L"\\\\?\\ABC#{a5dcbf10-6530-11d2-901f-00c04fb951ed}", "Unable to find slash in device instance path."},
      {L"\\\\?\\#{a5dcbf10-6530-11d2-901f-00c04fb951ed}", "Unable to find slash in device instance path."},
  };
  for (const Case& c : cases) {
    InterfaceBroadcast broadcast(c.path);
    LogCapture capture(6);
    EXPECT_EQ(ProcessSecureDeviceOperation(broadcast.deviceInterface(), DBT_DEVICEREMOVECOMPLETE), 0u);
    EXPECT_EQ(DeviceEventNotify(DBT_DEVICEARRIVAL, broadcast.header()), 0u);
    const std::string log = capture.Text();
    EXPECT_EQ(CountOf(log, std::string("] [ ProcessSecureDeviceOperation ] ") + c.line + "\r\n"), 2u) << log;
    EXPECT_EQ(log.find("@@@ Inside ExecuteAppWithArgs @@@"), std::string::npos);
    EXPECT_EQ(log.find("UnregisterDiskNotification"), std::string::npos);
    // The arrival still refreshes the drive list.
    EXPECT_TRUE(HasLogLine(log, "UpdateRemovableDriveEntries", "@@@ Inside UpdateRemovableDriveEntries @@@"));
  }
  EXPECT_TRUE(bin_->Journal().empty());
}

TEST_F(DeviceEventsTest, CustomEventsWhileMonitoringIsOffDoNothingAtAll) {
  DEV_BROADCAST_HANDLE handle = HandleBroadcast(kEncryptionStatusChange);
  EXPECT_EQ(DeviceEventNotify(DBT_CUSTOMEVENT, reinterpret_cast<PDEV_BROADCAST_HDR>(&handle)), 0u);
  const std::string log = log_->Text();
  EXPECT_EQ(RecordCount(log), 2u) << log;
  EXPECT_TRUE(HasLogLine(log, "DeviceEventNotify", "@@@ Inside DeviceEventNotify @@@"));
  EXPECT_TRUE(HasLogLine(log, "DeviceEventNotify", "@@@ End of DeviceEventNotify @@@"));
}

TEST_F(DeviceEventsTest, CustomVolumeEventsReachTheHandlerWhileMonitoringIsOn) {
  // The switch comes from the registry.
  ASSERT_EQ(writeValue(kSettingsKey, "MonitorEncryptedDevice", REG_DWORD, "1"), 0);
  UpdateMonitoringVariable();
  ASSERT_EQ(MonitorEncryptedDevice.load(), 1);

  struct Case {
    GUID guid;
    const char* text;
    const char* reported;  // null: no further line, no handler
  };
  const Case cases[] = {
      {kEncryptionStatusChange, "{062998B2-EE1F-4B6A-B857-E76CBBE9A6DA}", "Encrypt status change."},
      {kVolumeChange, "{7373654A-812A-11D0-BEC7-08002BE2092F}", "Volume status change."},
      {kOtherVolumeEvent, "{7373654A-812A-11D0-BEC7-08002BE20930}", nullptr},
  };
  for (const Case& c : cases) {
    DEV_BROADCAST_HANDLE handle = HandleBroadcast(c.guid);
    LogCapture capture(6);
    EXPECT_EQ(DeviceEventNotify(DBT_CUSTOMEVENT, reinterpret_cast<PDEV_BROADCAST_HDR>(&handle)), 0u);
    const std::string log = capture.Text();
    EXPECT_TRUE(HasLogLine(log, "DeviceEventNotify", std::string("DBT_CUSTOMEVENT received :") + c.text)) << log;
    const bool handled = log.find("@@@ Inside EncryptDeviceHandler::DeviceHandler @@@") != std::string::npos;
    EXPECT_EQ(handled, c.reported != nullptr) << c.text;
    if (c.reported != nullptr) {
      EXPECT_LT(Where(log, "DeviceEventNotify", c.reported), log.find("@@@ Inside EncryptDeviceHandler::DeviceHandler @@@"));
    } else {
      EXPECT_EQ(RecordCount(log), 3u) << log;  // entry, the GUID, exit
    }
  }

  // A custom event on something other than a handle, or with no header, is ignored.
  InterfaceBroadcast stick(kUsbStickPath);
  LogCapture capture(6);
  EXPECT_EQ(DeviceEventNotify(DBT_CUSTOMEVENT, stick.header()), 0u);
  EXPECT_EQ(DeviceEventNotify(DBT_CUSTOMEVENT, nullptr), 0u);
  EXPECT_EQ(capture.Text().find("DBT_CUSTOMEVENT received"), std::string::npos);
}

TEST_F(DeviceEventsTest, MonitoringSwitchFollowsTheRegistryAndIsOffWhenMissingOrUnreadable) {
  struct Case {
    const char* what;
    DWORD type;  // 0: value absent
    const char* data;
    LONG expected;
  };
  const Case cases[] = {
      {"on", REG_DWORD, "1", 1},
      {"off", REG_DWORD, "0", 0},
      {"another non-zero value", REG_DWORD, "5", 5},
      {"missing", 0, "", 0},
      {"text instead of a number", REG_SZ, "1", 0},
  };
  for (const Case& c : cases) {
    CleanAgentRegistry();
    if (c.type != 0) {
      ASSERT_EQ(writeValue(kSettingsKey, "MonitorEncryptedDevice", c.type, c.data), 0) << c.what;
    }
    MonitorEncryptedDevice.store(7);
    UpdateMonitoringVariable();
    EXPECT_EQ(MonitorEncryptedDevice.load(), c.expected) << c.what;
  }
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "@@@ Inside UpdateMonitoringVariable @@@"), 5u);
  EXPECT_EQ(CountOf(log, "@@@ End of UpdateMonitoringVariable @@@"), 5u);
}

TEST_F(DeviceEventsTest, OtherEventTypesAreOnlyLogged) {
  InterfaceBroadcast stick(kUsbStickPath);
  for (DWORD event : {static_cast<DWORD>(DBT_DEVICEQUERYREMOVE), static_cast<DWORD>(DBT_DEVICEREMOVEPENDING), 0x0007ul}) {
    EXPECT_EQ(DeviceEventNotify(event, stick.header()), 0u);
  }
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ DeviceEventNotify ] Unknown Event is received from Device Interface.\r\n"), 3u);
  EXPECT_EQ(log.find("@@@ Inside ProcessSecureDeviceOperation @@@"), std::string::npos);
}

}  // namespace
}  // namespace korva::test
