// Device control in-process: helpers, events, switches, restores, registration, drives, volumes, monitors.
#include <windows.h>
#include <dbt.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include "devicecontrol/device_notifications.h"
#include "devicecontrol/rfcomm_monitor.h"
#include "devicecontrol/summary_program.h"
#include "devicecontrol/summary_runs.h"
#include "encryption/encrypt_device_handler.h"
#include "encryption/encrypted_volumes.h"
#include "encryption/wmi_core.h"
#include "fileaudit/filter_attach.h"
#include "service/control_handler.h"
#include "service/settings_reaction.h"
#include "shared/notification_calls.h"
#include "support/agent_fixture.h"
#include "win/bitness.h"
#include "win/services.h"

// The volume events' GUIDs, defined here (no import library holds them); last, so no other header's are.
#include <initguid.h>
#include <ioevent.h>

namespace korva::test {
namespace {

using Paths = std::vector<std::wstring>;
constexpr GUID kUsbDevice = {0xA5DCBF10, 0x6530, 0x11D2, {0x90, 0x1F, 0x00, 0xC0, 0x4F, 0xB9, 0x51, 0xED}};
constexpr wchar_t kStickPath[] = L"\\\\?\\USB#VID_0781&PID_5567#4c530001#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
constexpr char kRefresh[] = "@@@ Inside UpdateRemovableDriveEntries @@@";
constexpr char kHandler[] = "EncryptDeviceHandler::DeviceHandler";
constexpr char kCheck[] = "EncryptDeviceHandler::CheckAndBlock";
const std::string kQvm = std::string(kAgentKey) + "\\QVM\\Settings";

// A USB interface broadcast as the system builds it (the name runs past the struct), or a volume event.
struct Broadcast {
  explicit Broadcast(const std::wstring& name, DWORD type = DBT_DEVTYP_DEVICEINTERFACE)
      : bytes(offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) + (name.size() + 1) * sizeof(wchar_t)) {
    auto* header = reinterpret_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(bytes.data());
    *header = {static_cast<DWORD>(bytes.size()), type, 0, kUsbDevice, {}};
    std::memcpy(header->dbcc_name, name.c_str(), (name.size() + 1) * sizeof(wchar_t));
  }
  explicit Broadcast(const GUID& event, HDEVNOTIFY notification = nullptr) : bytes(sizeof(DEV_BROADCAST_HANDLE)) {
    *reinterpret_cast<DEV_BROADCAST_HANDLE*>(bytes.data()) = {sizeof(DEV_BROADCAST_HANDLE), DBT_DEVTYP_HANDLE, 0,
                                                               reinterpret_cast<HANDLE>(0x1234), notification,
                                                               event, -1, {}};
  }
  PDEV_BROADCAST_HDR header() { return reinterpret_cast<PDEV_BROADCAST_HDR>(bytes.data()); }
  std::vector<std::byte> bytes;
};

class DeviceTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    for (const wchar_t* name : {L"devctrlaction64", L"devctrlaction32", L"korvaDevCtrlSummary"}) bin_.Add(name);
  }
  void TearDown() override {
    DeleteRestoreBlockedDeviceTimerForTest();
    devicecontrol::ForgetSummaryRunsForTest();  // no summary left waiting starts in a later test
    SetRfcommPollMsForTest(0);  // a test's own poll, even after a failed step
    AgentTest::TearDown();
  }
};

TEST_F(DeviceTest, ActionProgramGetsTheUserOnlyWhereNamedAndAFailureIsReportedWithoutFallingBack) {
  const RunningProgram explorer(bin_.Add(L"explorer", 0, 120000));  // a user is logged on
  ASSERT_EQ(bin_.WaitForJournal(1, 10000).size(), 1u);  // explorer's own run
  const std::string user = win::WideToAnsi(UserName());
  ASSERT_NE(user, "");
  IsWow64Flag = FALSE;
  for (const int code : {0, 7}) ProcessSecureDeviceOperation(code);
  EXPECT_EQ(ExecuteDeviceApplication(7, L""), 0u);
  EXPECT_EQ(LinesOf("devctrlaction64"), (std::vector<std::string>{"-c 1", "-c 7 -n " + user, "-c 7 -n "}));
  // The flag is IsWow64Process's answer: only the PE32 runs under WOW64 in the 64-bit prefix.
  EXPECT_EQ(IsWow64Flag.load(), win::kIs64BitBuild ? FALSE : TRUE);
  EXPECT_EQ(CountOf(log_->Peek(), "] Successfully Executed ExecuteDeviceApplication.\r\n"), 2u);
  bin_.Add(L"devctrlaction64", 5);
  EXPECT_EQ(ExecuteDeviceApplication(12, L"alice"), 5u);
  ProcessSecureDeviceOperation(12);
  EXPECT_EQ(LinesOf("devctrlaction64").size(), 5u);
  ASSERT_TRUE(DeleteFileW((bin_.folder() + L"\\devctrlaction64.exe").c_str()));
  EXPECT_EQ(ExecuteDeviceApplication(12, L"alice"), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_TRUE(LinesOf("devctrlaction32").empty());
  // Named by path, with its double '\'; the child got the argument text alone as its command line.
  EXPECT_LOG_LINES(log_->Text(), {{"ExecuteAppWithArgs", "Execute Process Name ->" + Install() + "\\bin\\devctrlaction64.exe"},
                                  {"ExecuteDeviceApplication", "Error code :5", LogLine::kPrefix},
                                  {"ProcessSecureDeviceOperation", "ExecuteDeviceApplication Failed."}});
}

// A device's own text (its serial number) cannot add arguments: quotes escaped, the trailing '\' doubled.
TEST_F(DeviceTest, SummaryProgramRunsUnwaitedInItsFolderWithTheDevicesTextQuoted) {
  bin_.Add(L"korvaDevCtrlSummary", 0, 60000);
  ExecuteDeviceEventAction(9, 2, L"Unknown");
  ASSERT_EQ(bin_.WaitForJournal(1, 10000).size(), 1u);
  ExecuteDeviceEventAction(1, 0, L"USB\\V\" -c 9 \"\\");
  ASSERT_EQ(LinesOf("korvaDevCtrlSummary", 2),
            (std::vector<std::string>{"-s ET_ENUM 9 2 \"Unknown\"", "-s ET_COL 1 0 \"USB\\V\\\" -c 9 \\\"\\\\\""}));
  EXPECT_EQ(bin_.Journal()[0].currentDirectory, Install() + "bin");
  EXPECT_EQ(ProcessesNamed(L"korvaDevCtrlSummary.exe").size(), 2u) << "it was waited for";
  EndProcessesNamed(L"korvaDevCtrlSummary.exe");
  ASSERT_TRUE(DeleteFileW((bin_.folder() + L"\\korvaDevCtrlSummary.exe").c_str()));
  ExecuteDeviceEventAction(9, 2, L"Unknown");
  EXPECT_LOG_LINES(log_->Text(), {{"ExecuteAppWithArgs", "Execute Process Name ->" + Install() + "bin\\korvaDevCtrlSummary.exe"},
                                  {"ExecuteDeviceEventAction", "Error code :2"}});
}

// A device that arrives and leaves in a loop starts no more than eight summaries at once: the next
// ones wait their turn and start in their events' order as places free. A full queue drops the
// oldest of the device with most waiting, not another device's event, and the stop tells of each
// summary still waiting.
TEST_F(DeviceTest, SummariesPastTheRunningBoundWaitTheirTurnInOrderAndAFullQueueDropsFromTheFloodingDevice) {
  constexpr std::size_t kRunning = devicecontrol::kMaxRunningSummaries;
  const auto arguments = [](const std::string& device, int kind = 0) {
    return "-s ET_COL 1 " + std::to_string(kind) + " \"USB\\" + device + "\"";
  };
  const auto startSummaries = [](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) ExecuteDeviceEventAction(1, 0, L"USB\\D" + std::to_wstring(i));
  };
  bin_.Add(L"korvaDevCtrlSummary", 0, 60000);
  const std::size_t mark = log_->Peek().size();
  startSummaries(kRunning + 2);
  ASSERT_EQ(LinesOf("korvaDevCtrlSummary", kRunning).size(), kRunning);
  EXPECT_EQ(devicecontrol::SummaryRunsForTest(), std::pair(kRunning, std::size_t{2}));
  bin_.Add(L"korvaDevCtrlSummary");  // the next ones end at once
  EndProcessesNamed(L"korvaDevCtrlSummary.exe");
  ASSERT_EQ(LinesOf("korvaDevCtrlSummary", kRunning + 2).size(), kRunning + 2);
  EXPECT_TRUE(WaitForLog("[ ExecuteDeviceEventAction ] Error code :0\r\n", kRunning + 2));
  const std::string log = log_->Peek().substr(mark);
  // Each start once, in the order they were made (the journal's order is the children's).
  std::vector<LogLine> starts(kRunning + 2);
  for (std::size_t i = 0; i < starts.size(); ++i) {
    starts[i] = {"ExecuteAppWithArgs", "Command Line Params  ->" + arguments("D" + std::to_string(i))};
  }
  EXPECT_LOG_ORDER(log, starts);
  EXPECT_EQ(CountOf(log, "] Command Line Params  ->"), kRunning + 2);
  const std::string waits = " korvaDevCtrlSummary.exe started before are still running; this event's summary waits its turn (";
  const std::string stops = "The service stops; the waiting summary is not started: ";
  EXPECT_LOG_ORDER(log, {{"ExecuteDeviceEventAction", "8" + waits + "1 waiting): " + arguments("D8")},
                         {"ExecuteDeviceEventAction", "8" + waits + "2 waiting): " + arguments("D9")},
                         {"ExecuteDeviceEventAction", "The waiting summary starts now (1 still waiting): " + arguments("D8")},
                         {"ExecuteDeviceEventAction", "The waiting summary starts now (0 still waiting): " + arguments("D9")}});

  bin_.Add(L"korvaDevCtrlSummary", 0, 60000);
  startSummaries(kRunning);
  // Another device's summary waits first; then one that comes back under a new serial number each time.
  ExecuteDeviceEventAction(1, 0, L"USB\\S\\1");
  const auto flood = [](std::size_t i) { ExecuteDeviceEventAction(1, 0, L"USB\\F\\" + std::to_wstring(i)); };
  for (std::size_t i = 0; i + 1 < devicecontrol::kMaxWaitingSummaries; ++i) flood(i);
  EXPECT_LOG_ORDER(LoggedBy([&] { flood(devicecontrol::kMaxWaitingSummaries); }),
                   {{"ExecuteDeviceEventAction", "64 device-event summaries already wait; the oldest of the device "
                                                 "with the most waiting is dropped: " + arguments("F\\0")},
                    {"ExecuteDeviceEventAction", "Error code :170"},
                    {"ExecuteDeviceEventAction", "8" + waits + "64 waiting): " + arguments("F\\64")}});
  EXPECT_EQ(devicecontrol::SummaryRunsForTest(), std::pair(kRunning, devicecontrol::kMaxWaitingSummaries));
  const std::string atStop = LoggedBy(devicecontrol::DropWaitingSummaries);
  EXPECT_EQ(CountOf(atStop, "] " + stops), devicecontrol::kMaxWaitingSummaries);
  EXPECT_EQ(CountOf(atStop, "] Error code :1237\r\n"), devicecontrol::kMaxWaitingSummaries);
  EXPECT_LOG_LINES(atStop, {{"ExecuteDeviceEventAction", stops + arguments("S\\1")}});
  // After the stop's look: told at once, never queued.
  EXPECT_LOG_ORDER(LoggedBy([] { ExecuteDeviceEventAction(1, 1, L"USB\\S"); }),
                   {{"ExecuteDeviceEventAction", stops + arguments("S", 1)}, {"ExecuteDeviceEventAction", "Error code :1237"}});
  EXPECT_EQ(devicecontrol::SummaryRunsForTest(), std::pair(kRunning, std::size_t{0}));
  ASSERT_EQ(LinesOf("korvaDevCtrlSummary", 2 * kRunning + 2).size(), 2 * kRunning + 2);
  EndProcessesNamed(L"korvaDevCtrlSummary.exe");
}

// Monitoring is off: no encrypted-volume check. The real probe scans Wine's volumes: never the system drive.
TEST_F(DeviceTest, ArrivalAndRemovalRunTheSummaryAndRefreshTheDrivesAndARemovalRestoresUnlessSkipped) {
  Broadcast stick(kStickPath);
  EXPECT_EQ(HandlerEx(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, stick.header(), nullptr), 0u);
  const std::string arrival = "-s ET_COL 1 0 \"USB\\VID_0781&PID_5567\\4C530001\"";
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 1), std::vector<std::string>{arrival});  // waits: the removal's run comes after
  EXPECT_EQ(Rows("Device_Event_Notification"), 1u);
  EXPECT_LOG_ORDER(log_->Peek(), {{"HandlerEx", "Device Notification Event is received."},
                                  {"DeviceEventNotify", "Device is inserted."}, Entered("UpdateRemovableDriveEntries"),
                                  {"HandlerEx", "Device Notification Event - end of block."}});
  const std::size_t mark = log_->Peek().size();
  EXPECT_EQ(DeviceEventNotify(DBT_DEVICEREMOVECOMPLETE, stick.header()), 0u);
  const std::string removal = "-s ET_COL 1 1 \"USB\\VID_0781&PID_5567\\4C530001\"";
  SkipRestoreUnpluggedBlocked.store(1);
  EXPECT_EQ(DeviceEventNotify(DBT_DEVICEREMOVECOMPLETE, stick.header()), 0u);
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 3), (std::vector<std::string>{arrival, removal, removal}));
  EXPECT_EQ(LinesOf("devctrlaction64"), std::vector<std::string>{"-c 12"});  // the skipped removal restores nothing
  const std::string log = log_->Text();
  EXPECT_LOG_ORDER(log.substr(mark),
                   {Entered("ExecuteDeviceEventAction"), Entered("UpdateRemovableDriveEntries"),
                    Entered("ExecuteDeviceApplication"),
                    {"DeviceEventNotify", "ProcessSecureDeviceOperation call skipped as per the Registry Entry."}});
  EXPECT_EQ(CountOf(log, kRefresh), 3u);
  EXPECT_EQ(log.find(Entered(kHandler).message), std::string::npos);
  std::size_t volumes = 0;
  SystemVolumeProbe().ForEachVolume([&](const std::wstring&) { ++volumes; });
  EXPECT_GT(volumes, 0u);
  wchar_t windows[MAX_PATH] = {};
  ASSERT_GT(GetWindowsDirectoryW(windows, MAX_PATH), 0u);
  const Paths drives = RemovableDrives();
  EXPECT_EQ(std::count(drives.begin(), drives.end(), std::wstring(windows).substr(0, 3)), 0);
}

TEST_F(DeviceTest, UnusableHeadersPathsAndOtherEventsStartNothing) {
  Broadcast volume(L"\\\\?\\STORAGE#Volume#{1}", DBT_DEVTYP_VOLUME);
  Broadcast handle(GUID_IO_VOLUME_CHANGE);
  for (PDEV_BROADCAST_HDR header : {PDEV_BROADCAST_HDR{}, volume.header(), handle.header()}) {
    EXPECT_EQ(DeviceEventNotify(DBT_DEVICEARRIVAL, header), 0u);
    EXPECT_EQ(DeviceEventNotify(DBT_DEVICEREMOVECOMPLETE, header), 0u);
  }
  EXPECT_EQ(log_->Peek().find(kRefresh), std::string::npos);
  // Paths with no '#' and with no '\' in the instance part; then two other events of the stick's.
  for (const auto& [type, path] : {std::pair(DWORD{DBT_DEVICEARRIVAL}, L"\\\\?\\USB-VID_0781&PID_5567"),
                                   {DBT_DEVICEARRIVAL, L"\\\\?\\ABC#{a5dcbf10-6530-11d2-901f-00c04fb951ed}"},
                                   {DBT_DEVICEQUERYREMOVE, kStickPath}, {DBT_DEVICEREMOVEPENDING, kStickPath}}) {
    EXPECT_EQ(DeviceEventNotify(type, Broadcast(path).header()), 0u) << type;
  }
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ DeviceEventNotify ] lpdb is null (or) It is DeviceInterface DevType.\r\n"), 6u);
  EXPECT_LOG_ORDER(log, {{"ProcessSecureDeviceOperation", "Unable to find # in device instance path."},
                         {"ProcessSecureDeviceOperation", "Unable to find slash in device instance path."}});
  EXPECT_EQ(CountOf(log, "] [ DeviceEventNotify ] Unknown Event is received from Device Interface.\r\n"), 2u);
  EXPECT_TRUE(bin_.Journal().empty());
}

TEST_F(DeviceTest, SwitchesReadTheirDwordAndAMissingOrWrongTypedValueTurnsThemOff) {
  const struct { const char* name; DWORD type; const char* data; LONG expected; } cases[] = {
      {"MonitorEncryptedDevice", REG_NONE, "", 0}, {"MonitorEncryptedDevice", REG_SZ, "1", 0},
      {"MonitorEncryptedDevice", REG_DWORD, "1", 1}, {"SkipRestoreUnpluggedBlocked", REG_NONE, "", 0},
      {"SkipRestoreUnpluggedBlocked", REG_DWORD, "0", 0}, {"SkipRestoreUnpluggedBlocked", REG_DWORD, "5", 1},
      {"SkipRestoreUnpluggedBlocked", REG_SZ, "1", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + std::to_string(c.type) + " " + c.data);
    CleanAgentRegistry();
    ASSERT_TRUE(c.type == REG_NONE || writeValue(kQvm, c.name, c.type, c.data) == 0);
    const bool monitor = std::string(c.name) == "MonitorEncryptedDevice";
    std::atomic<LONG>& flag = monitor ? MonitorEncryptedDevice : SkipRestoreUnpluggedBlocked;
    flag.store(7);
    monitor ? UpdateMonitoringVariable() : FetchRestoreUnpluggedBlockedDevice();
    EXPECT_EQ(flag.load(), c.expected);
  }
}

TEST_F(DeviceTest, OnlyEncryptionStatusAndVolumeChangeEventsReachTheHandlerAndOnlyWhileMonitoringIsOn) {
  const struct { const char* text; bool handled; } events[] = {
      {"{062998B2-EE1F-4B6A-B857-E76CBBE9A6DA}", true}, {"{7373654A-812A-11D0-BEC7-08002BE2092F}", true},
      {"{7373654A-812A-11D0-BEC7-08002BE20930}", false}};
  for (const bool on : {false, true}) {
    for (const auto& e : events) {
      SCOPED_TRACE(std::string(on ? "on " : "off ") + e.text);
      MonitorEncryptedDevice.store(on ? 1 : 0);
      GUID guid{};
      ASSERT_EQ(IIDFromString(win::Utf8ToWide(e.text).c_str(), &guid), S_OK);
      const std::string log = LoggedBy([&] { EXPECT_EQ(DeviceEventNotify(DBT_CUSTOMEVENT, Broadcast(guid).header()), 0u); });
      EXPECT_EQ(HasLogLine(log, "DeviceEventNotify", std::string("DBT_CUSTOMEVENT received :") + e.text), on);
      EXPECT_EQ(log.find(Entered(kHandler).message) != std::string::npos, on && e.handled);
      EXPECT_EQ(CountOf("\n" + log, "\n[ ") == (on ? 3u : 2u), !on || !e.handled) << log;  // lines written
    }
  }
}

// Each arming fires once, not before its due time, whatever the skip switch says. The second is due
// after the first: a first timer firing again would add a row the second's early-firing check sees.
// The second goes on the revoke timer's queue, as in the service; deleting that queue takes it along.
TEST_F(DeviceTest, RestoreTimerFiresOnceAfterItsDueTimeWhateverTheSkipSwitchSays) {
  HANDLE first = nullptr;
  for (const auto& [skip, dueMs] : {std::pair{0L, 500UL}, {1L, 2000UL}}) {
    SCOPED_TRACE(skip);
    SkipRestoreUnpluggedBlocked.store(skip);
    ASSERT_TRUE(skip == 0 || NewRevokeQueue());
    const ULONGLONG armed = GetTickCount64();
    ASSERT_TRUE(ArmRestoreBlockedDeviceTimer(dueMs));
    first = first != nullptr ? first : RestoreBlockedDeviceTimer;
    ASSERT_TRUE(WaitUntil([&, skip = skip] { return Rows("Restore_Device_Notification") > std::size_t(skip); }, 15000));
    EXPECT_GE(GetTickCount64() - armed, dueMs - 100) << "fired before its due time";  // less the clocks' steps
    EXPECT_EQ(LinesOf("devctrlaction64", skip + 1), std::vector<std::string>(skip + 1, "-c 12"));
  }
  DeleteTimerQueueTimer(nullptr, first, INVALID_HANDLE_VALUE);  // waits for a callback under way
  DeleteRestoreBlockedDeviceTimerForTest();
  ASSERT_TRUE(ArmRestoreBlockedDeviceTimer(300));
  ASSERT_TRUE(DeleteRevokeQueue());
  RestoreBlockedDeviceTimer = nullptr;
  EXPECT_FALSE(WaitUntil([&] { return Rows("Restore_Device_Notification") > 2; }, 1500)) << "not on the revoke queue";
  EXPECT_EQ(bin_.Journal().size(), 2u);
}

// A stop that has begun cuts short what would start programs or set up the filter beside it, a new
// drive's audit included.
TEST_F(DeviceTest, AStopThatHasBegunRunsNoRestoreAndNoMoreOfASettingsChange) {
  ServiceStopRequested.store(true);
  ASSERT_TRUE(ArmRestoreBlockedDeviceTimer(100));
  EXPECT_TRUE(WaitForLog("The service is stopping; no restore is run."));
  EXPECT_LOG_ORDER(LoggedBy([] { ServiceSettingsReaction().React(); }),
                   {{"MonitorSettingsModified", "The service is stopping; the rest of the settings change is not applied."},
                    {"UpdateMonitoringVariable", "@@@ Inside UpdateMonitoringVariable @@@", LogLine::kAbsent},
                    {"CheckQVFAFilterRequirement", "@@@ Inside CheckQVFAFilterRequirement @@@", LogLine::kAbsent},
                    {"ProcessandUpdateTemporaryAccess", "Cleaning up.", LogLine::kAbsent}});
  EXPECT_TRUE(HasLogLine(LoggedBy([] { fileaudit::StartAuditOnNewDrive(L"E:\\"); }), "StartAuditOnNewDrive",
                         "The service is stopping; E:\\ is not audited."));
  EXPECT_EQ(Rows("Restore_Device_Notification"), 0u);
  EXPECT_TRUE(bin_.Journal().empty());
}

const std::vector<std::wstring> kClasses = {
    L"{25DBCE51-6C8F-4A72-8A6D-B54C2B4FC835}", L"{E5323777-F976-4F5B-9B55-B94699C46E44}",
    L"{50DD5230-BA8A-11D1-BF5D-0000F805F530}", L"{53F56307-B6BF-11D0-94F2-00A0C91EFB8B}",
    L"{53F56308-B6BF-11D0-94F2-00A0C91EFB8B}", L"{86E0D1E0-8089-11D0-9CE4-08003E301F73}",
    L"{53F56311-B6BF-11D0-94F2-00A0C91EFB8B}", L"{4D1E55B2-F16F-11CF-88CB-001111000030}",
    L"{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}", L"{2C7089AA-2E0E-11D1-B114-00C04FC2AAE4}",
    L"{AD498944-762F-11D0-8DCB-00C04FC3358C}", L"{97F76EF0-F883-11D0-AF1F-0000F800845C}",
    L"{811FC6A5-F728-11D0-A537-0000F8753ED1}", L"{4D36E978-E325-11CE-BFC1-08002BE10318}",
    L"{53F5630B-B6BF-11D0-94F2-00A0C91EFB8B}", L"{A5DCBF10-6530-11D2-901F-00C04FB951ED}",
    L"{F72FE0D4-CBCB-407D-8814-9ED673D0DD6B}"};

// Stand-in registration calls that can refuse as Wine never does; each handle is live until taken back.
std::vector<std::wstring> g_registered, g_refused;
std::vector<HDEVNOTIFY> g_unregistered;
std::set<HDEVNOTIFY> g_live;
HDEVNOTIFY g_refusedHandle = nullptr;
std::size_t g_next = 0x1000, g_cancelledTwice = 0;
HDEVNOTIFY WINAPI StandInRegister(HANDLE /*recipient*/, LPVOID filter, DWORD /*flags*/) {
  const auto* header = static_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(filter);
  wchar_t guid[40] = {};
  if (header->dbcc_devicetype == DBT_DEVTYP_DEVICEINTERFACE) StringFromGUID2(header->dbcc_classguid, guid, 40);
  g_registered.emplace_back(guid);
  if (std::count(g_refused.begin(), g_refused.end(), g_registered.back()) != 0) {
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
  }
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a made-up handle, never used as a pointer
  return *g_live.insert(reinterpret_cast<HDEVNOTIFY>(g_next += 8)).first;
}
BOOL WINAPI StandInUnregister(HDEVNOTIFY notification) {
  g_unregistered.push_back(notification);
  if (notification == g_refusedHandle) {
    SetLastError(ERROR_GEN_FAILURE);  // one the system may take later
    return FALSE;
  }
  if (g_live.erase(notification) == 0) ++g_cancelledTwice;
  return TRUE;
}
HDEVNOTIFY WINAPI ThrowingRegister(HANDLE /*recipient*/, LPVOID /*filter*/, DWORD /*flags*/) {
  throw std::runtime_error("register");
}
BOOL WINAPI ThrowingUnregister(HDEVNOTIFY /*notification*/) { throw std::runtime_error("unregister"); }
std::size_t FilledSlots() {
  return 17 - std::count(std::begin(DeviceNotificationHandles), std::end(DeviceNotificationHandles), nullptr);
}

class RegistrationTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    SetDeviceNotificationCalls({StandInRegister, StandInUnregister});
  }
  void TearDown() override {
    SetDeviceNotificationCalls(SystemDeviceNotificationCalls());
    std::fill(std::begin(DeviceNotificationHandles), std::end(DeviceNotificationHandles), nullptr);
    g_registered.clear(), g_refused.clear(), g_unregistered.clear(), g_live.clear();
    g_cancelledTwice = 0, g_refusedHandle = nullptr;
    DeviceTest::TearDown();
  }
};

TEST_F(RegistrationTest, RegistersInOrderRetriesOnlyTheRefusedKeepsASlotThatFailsToCancelAndAThrowInside) {
  g_refused = {kClasses[3], kClasses[15]};
  RegisterAllDeviceNotification();
  EXPECT_EQ(g_registered, kClasses);
  for (std::size_t i = 0; i < 17; ++i) EXPECT_EQ(DeviceNotificationHandles[i] == nullptr, i == 3 || i == 15) << i;
  g_refused.clear(), g_registered.clear();
  RegisterAllDeviceNotification();
  EXPECT_EQ(g_registered, (std::vector<std::wstring>{kClasses[3], kClasses[15]}));
  EXPECT_EQ(FilledSlots(), 17u);
  for (const auto& [refused, calls, filled] : {std::tuple{true, 17u, 1u}, {false, 18u, 0u}}) {
    g_refusedHandle = refused ? DeviceNotificationHandles[8] : nullptr;
    UnRegisterAllDeviceNotification();
    EXPECT_EQ(std::pair(g_unregistered.size(), FilledSlots()), (std::pair<std::size_t, std::size_t>(calls, filled)));
  }
  SetDeviceNotificationCalls({ThrowingRegister, StandInUnregister});
  RegisterAllDeviceNotification();
  EXPECT_EQ(FilledSlots(), 0u);
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "RegisterDeviceNotification is succeeded to receive device notification."), 17u);
  EXPECT_EQ(CountOf(log, "] [ RegisterAllDeviceNotification ] RegisterDeviceNotification is failed.\r\n"), 2u);
  EXPECT_EQ(CountOf(log, "] [ UnRegisterAllDeviceNotification ] SuccessFully Unregistered the device events."), 17u);
  EXPECT_EQ(CountOf(log, "] [ UnRegisterAllDeviceNotification ] UnregisterDeviceNotification is failed.\r\n"), 1u);
  EXPECT_TRUE(HasLogLine(log, "RegisterAllDeviceNotification", "Exception Occured."));
}

constexpr wchar_t kStickDevice[] = L"USB\\VID_0781&PID_5567\\4C530001";

struct TableSource final : EncryptedVolumeSource {
  std::vector<RemovableVolume> RemovableVolumes() override {
    if (failingLists > 0) {
      SetEvent(listing.get());
      WaitForSingleObject(listHold.get(), 10000);
      throw std::runtime_error(std::to_string(failingLists--) + " more lists fail");
    }
    return volumes;
  }
  std::optional<std::vector<std::wstring>> VolumeNames() override {
    if (namesCutShort) return std::nullopt;
    std::vector<std::wstring> names(volumes.size());
    std::transform(volumes.begin(), volumes.end(), names.begin(),
                   [](const RemovableVolume& v) { return v.name.empty() ? v.volume : v.name; });
    return names;
  }
  ProtectionAnswer ProtectionStatus(const std::wstring& volume) override {
    askedOn = GetCurrentThreadId();
    SetEvent(asked.get());
    WaitForSingleObject(hold.get(), 10000);
    if (!script.empty()) return std::exchange(script, {script.begin() + 1, script.end()}).front();
    const auto answer = answers.find(volume);
    return answer != answers.end() ? answer->second : ProtectionAnswer{std::nullopt, "no encryptable volume"};
  }
  // C:, on the stick: under Wine the one volume that opens, so the one with a notification.
  std::vector<RemovableVolume> volumes{{L"C:", {L"STORAGE\\VOLUME\\1", kStickDevice}, L""}};
  std::map<std::wstring, ProtectionAnswer> answers;
  std::vector<ProtectionAnswer> script;  // the first answers, whatever the drive; then `answers`
  win::UniqueHandle hold{CreateEventW(nullptr, TRUE, TRUE, nullptr)};    // reset: each answer waits (10 s at most)
  win::UniqueHandle asked{CreateEventW(nullptr, TRUE, FALSE, nullptr)};  // signalled as each question comes
  bool namesCutShort = false;  // the system's list of volumes could not be had whole
  std::atomic<int> failingLists{0};  // this many lists of removable volumes throw
  win::UniqueHandle listHold{CreateEventW(nullptr, TRUE, TRUE, nullptr)};  // reset: a failing list waits (10 s at most)
  win::UniqueHandle listing{CreateEventW(nullptr, TRUE, FALSE, nullptr)};  // signalled as a failing list begins
  DWORD askedOn = 0;           // the thread of the last question
};

class EncryptedVolumeTest : public RegistrationTest {
 protected:
  void SetUp() override {
    RegistrationTest::SetUp();
    ResetEncryptedVolumesForTest();
    SetEncryptedVolumeSourceForTest(&source_);
    SetLateVolumeLooksForTest(false);  // the table's volumes change only as each test says
    MonitorEncryptedDevice.store(1);
  }
  void TearDown() override {
    ResetEncryptedVolumesForTest();  // the worker ends before its source goes
    SetEncryptedVolumeSourceForTest(nullptr);
    SetLateVolumeLooksForTest(true);
    SetBlockRetryDelayForTest(0);
    SetCheckStallForTest(0, nullptr);
    RegistrationTest::TearDown();
  }

  // Hands the handler an event, then waits for the checks it queued.
  static void Handle(PDEV_BROADCAST_HDR header, int kind, int subKind) {
    EncryptDeviceHandler::DeviceHandler(header, kind, subKind);
    ASSERT_TRUE(WaitForVolumeChecks(10000));
  }
  // A volume change as the system sends it through the one live notification, C:'s.
  static void VolumeChange() { Handle(Broadcast(GUID_IO_VOLUME_CHANGE, *g_live.begin()).header(), 2, 1); }

  TableSource source_;
};

TEST_F(EncryptedVolumeTest, UnprotectedVolumesAreBlockedOnceAndNotificationsLiveAsLongAsTheirVolumes) {
  // Under Wine only C: opens as a volume: the others are checked without a notification. A volume with no
  // drive letter is checked, and blocked, by its GUID name. Z:, which the system names, is opened and asked
  // about by that name, which stays its own whatever letter it gets, and named by its letter in lines.
  const std::string unletteredText = "\\\\?\\Volume{0b5e2ac1-0000-0000-0000-100000000000}";
  const std::string zText = "\\\\?\\Volume{0b5e2ac1-0000-0000-0000-200000000000}";
  const std::wstring unlettered = win::Utf8ToWide(unletteredText) + L"\\";
  const std::wstring zName = win::Utf8ToWide(zText) + L"\\";
  source_.volumes = {{L"C:", {L"STORAGE\\VOLUME\\1", L"USBSTOR\\DISK&VEN_A\\4C530001&0", kStickDevice}, L""},
                     {L"Z:", {L"STORAGE\\VOLUME\\2"}, zName}, {L"Q:", {}, L""},
                     {unlettered, {L"STORAGE\\VOLUME\\3"}, unlettered}};
  source_.answers = {
      {L"C:", {0, ""}}, {zName, {1, ""}}, {L"Q:", {std::nullopt, "of the wrong type"}}, {unlettered, {0, ""}}};
  ServiceStopRequested.store(true);  // once a stop has begun, no event fills the table it emptied again
  EXPECT_TRUE(HasLogLine(LoggedBy([] { Handle(nullptr, 3, 0); }), kHandler,
                         "The service is ending; the event is not handled."));
  EXPECT_TRUE(g_live.empty());
  ServiceStopRequested.store(false);
  // Monitoring turned on twice (so off in between): each time every volume is judged anew, blocked ones too.
  for (int pass = 0; pass < 2; ++pass) Handle(nullptr, 3, 0);
  // Given a letter since, it is still the one volume, known by the name it came with: not taken again.
  source_.volumes.back().volume = L"U:";
  EXPECT_EQ(CountOf(LoggedBy([] { Handle(nullptr, 1, 0); }), "U:"), 0u);
  source_.volumes.back().volume = unlettered;
  EXPECT_EQ(WmiFirstConnectionResult(), static_cast<HRESULT>(0x8004100EUL));  // no such provider here
  const std::vector<std::string> blocks = LinesOf("devctrlaction64", 4);
  ASSERT_EQ(blocks.size(), 4u);
  EXPECT_EQ(blocks[0].rfind("-c 7 -n", 0), 0u);
  ASSERT_EQ(g_live.size(), 1u);
  // A custom event as the system sends it through a volume's notification: C:'s is checked again.
  Handle(Broadcast(GUID_IO_VOLUME_CHANGE, reinterpret_cast<HDEVNOTIFY>(0x7)).header(), 2, 1);
  VolumeChange();
  const std::string log = log_->Peek();
  EXPECT_EQ(CountOf(log, "Drive C: ProtectionStatus :0"), 3u);
  EXPECT_EQ(CountOf(log, "Drive Z: ProtectionStatus :1"), 2u);
  EXPECT_LOG_LINES(log, {{kCheck, "Drive C: is not protected; blocking it."},
                         {kCheck, "Protection status of Q: unknown: of the wrong type."},
                         {kHandler, "Unable to open the volume " + zText + "."},
                         {kCheck, "Drive " + unletteredText + "\\ is not protected; blocking it."},
                         {kHandler, "Unable to open the volume " + unletteredText + "."},
                         {kHandler, "Volume C: registered for its notifications."},
                         {kHandler, "The event came for a volume that is not registered; ignored."}});

  // The stick's removal drops C:'s notification; a thousand more arrivals and removals leave none.
  EncryptDeviceHandler::UnregisterDiskNotification(L"usb\\vid_0781&pid_5567\\4c530001");
  EXPECT_TRUE(g_live.empty());
  source_.answers[L"C:"] = {1, ""};
  for (int i = 0; i < 1000; ++i) {
    EncryptDeviceHandler::DeviceHandler(nullptr, 1, 0);
    EncryptDeviceHandler::UnregisterDiskNotification(kStickDevice);
  }
  ASSERT_TRUE(WaitForVolumeChecks(10000));
  EXPECT_TRUE(g_live.empty());
  // The stop and a suspend cancel every notification once and close the volumes; the next arrival
  // (after a resume) takes C: anew and checks it again. A cancel that fails is tried again at the
  // next stop.
  Handle(nullptr, 1, 0);
  for (const bool refused : {true, false}) {
    g_refusedHandle = refused ? *g_live.begin() : nullptr;
    EncryptDeviceHandler::UnregisterAllDiskNotification();
    EXPECT_EQ(g_live.size(), refused ? 1u : 0u);
  }
  EXPECT_FALSE(VolumeHandleOpen(L"C:"));
  EXPECT_EQ(CountOf(LoggedBy([] { Handle(nullptr, 1, 0); }), "Drive C: ProtectionStatus :"), 1u);
  EXPECT_EQ(g_live.size(), 1u);
  // A stop whose cancel fails outright still empties the table: the next arrival takes C: anew, and checks it.
  const HDEVNOTIFY orphan = *g_live.begin();
  SetDeviceNotificationCalls({StandInRegister, ThrowingUnregister});
  EncryptDeviceHandler::UnregisterAllDiskNotification();
  SetDeviceNotificationCalls({StandInRegister, StandInUnregister});
  g_live.erase(orphan);
  EXPECT_FALSE(VolumeHandleOpen(L"C:"));
  EXPECT_EQ(CountOf(LoggedBy([] { Handle(nullptr, 1, 0); }), "Drive C: ProtectionStatus :"), 1u);
  EXPECT_EQ(g_live.size(), 1u);
  EncryptDeviceHandler::UnregisterDiskNotification(kStickDevice);
  EXPECT_TRUE(g_live.empty());
  EXPECT_EQ(g_cancelledTwice, 0u);
  EXPECT_EQ(LinesOf("devctrlaction64").size(), 6u);  // the unlettered volume, taken anew after each stop, again
}

// A hanging, missing or failing action program must not leave an unprotected volume unblocked for good: the
// block is tried again a minute later, twice, then every ten minutes until it is done, with no event of the
// volume's own (a retry whose protection query fails counts as a failure). Once blocked, it is not blocked
// again while it stays unprotected; once it was protected or locked, losing that protection blocks it again.
TEST_F(EncryptedVolumeTest, AFailedBlockIsTriedAgainUntilItIsDoneAndALostProtectionIsBlockedAgain) {
  source_.answers = {{L"C:", {0, ""}}};
  source_.script = {{0, ""}, {std::nullopt, "busy"}};
  bin_.Add(L"devctrlaction64", 5);
  SetBlockRetryDelayForTest(200, 300);
  const std::string failed = LoggedBy([&] {
    EncryptDeviceHandler::DeviceHandler(nullptr, 1, 0);
    EXPECT_TRUE(WaitForLog("The block of C: failed 4 times in a row; it is checked again in 0 s.", 1, 30000));
  });
  EXPECT_EQ(CountOf(failed, "The block of C: failed; it is checked again in 0 s."), 2u);
  EXPECT_EQ(CountOf(failed, "The block of C: failed 3 times in a row; it is checked again in 0 s."), 1u);
  EXPECT_EQ(CountOf(failed, "Protection status of C: unknown: busy."), 1u);
  bin_.Add(L"devctrlaction64", 0);
  // A block begun from here on runs the mended program: the first one is done, and ends the retries.
  const std::string blocking = "Drive C: is not protected; blocking it.";
  const std::size_t mark = log_->Peek().size();
  EXPECT_TRUE(WaitUntil([&] { return CountOf(log_->Peek().substr(mark), blocking) > 0; }, 30000));
  ASSERT_TRUE(WaitForVolumeChecks(10000));
  const std::string done = log_->Peek().substr(mark);
  EXPECT_EQ(done.find("The block of C: failed", done.rfind(blocking)), std::string::npos) << done;
  const std::size_t runs = LinesOf("devctrlaction64").size();
  ASSERT_EQ(g_live.size(), 1u);
  EXPECT_EQ(CountOf(LoggedBy([] { for (int event = 0; event < 2; ++event) VolumeChange(); }), blocking), 0u);
  for (const long status : {1L, 0L, 2L, 0L}) {
    source_.answers[L"C:"] = {status, ""};
    VolumeChange();
  }
  EXPECT_EQ(LinesOf("devctrlaction64").size(), runs + 2);
}

// The device tree need not show the removed stick among its volume's ancestors: a volume no longer there
// leaves the table at any removal, so the same stick back (the same GUID name) is checked and watched anew.
// Its disk's arrival may come before its volume is mounted: a look seconds later finds the volume.
TEST_F(EncryptedVolumeTest, AVolumeGoneAtARemovalLeavesTheTableAndALaterLookFindsAndChecksItMountedAgain) {
  const RemovableVolume stick{L"C:", {L"STORAGE\\VOLUME\\1", L"ROOT\\VOLMGR\\0000", L"HTREE\\ROOT\\0"}, L""};
  source_.volumes = {stick};
  source_.answers = {{L"C:", {1, ""}}};
  g_refused = {L""};  // a volume's registration, refused: no event of its own would ever come
  EXPECT_TRUE(HasLogLine(LoggedBy([] { Handle(nullptr, 1, 0); }), kHandler,
                         "RegisterDeviceNotification failed for the volume \\\\.\\C:."));
  EXPECT_TRUE(g_live.empty());
  g_refused.clear();  // so the next arrival registers it, and checks it again
  EXPECT_EQ(CountOf(LoggedBy([] { Handle(nullptr, 1, 0); }), "Drive C: ProtectionStatus :1"), 1u);
  ASSERT_EQ(g_live.size(), 1u);
  EncryptDeviceHandler::UnregisterDiskNotification(kStickDevice);  // another stick's: C: is still there
  EXPECT_EQ(g_live.size(), 1u);
  source_.volumes.clear();
  source_.namesCutShort = true;  // a list that is not whole proves no volume gone
  EncryptDeviceHandler::UnregisterDiskNotification(kStickDevice);
  EXPECT_EQ(g_live.size(), 1u);
  source_.namesCutShort = false;
  EXPECT_TRUE(HasLogLine(LoggedBy([] { EncryptDeviceHandler::UnregisterDiskNotification(kStickDevice); }),
                         "EncryptDeviceHandler::UnregisterDiskNotification",
                         "Dropping the notifications of C:, whose volume is gone."));
  EXPECT_TRUE(g_live.empty());
  SetLateVolumeLooksForTest(true);
  source_.answers = {{L"C:", {0, ""}}};  // its protection turned off elsewhere meanwhile
  EncryptDeviceHandler::DeviceHandler(nullptr, 1, 0);  // nothing mounted yet
  source_.failingLists = 1;  // the first look fails outright: the worker lives on to the second
  source_.volumes = {stick};
  EXPECT_TRUE(WaitForLog("Drive C: is not protected; blocking it.", 1, 30000));
  ASSERT_TRUE(WaitForVolumeChecks(10000));
  EXPECT_TRUE(HasLogLine(log_->Peek(), kHandler, "The volume checks' worker failed a turn; it goes on in 5 s."));
  EXPECT_TRUE(HasLogLine(log_->Peek(), kHandler, "A look after the arrival found 1 volume(s) mounted since."));
  EXPECT_EQ(g_live.size(), 1u);
  EXPECT_EQ(LinesOf("devctrlaction64").size(), 1u);
  // A stop that comes while a look is failing ends the worker at once, without waiting out the pause after it.
  ResetEvent(source_.listHold.get());
  ResetEvent(source_.listing.get());
  EncryptDeviceHandler::DeviceHandler(nullptr, 1, 0);  // C: is known: only its looks, 2 s and 10 s later
  source_.failingLists = 1;
  ASSERT_EQ(WaitForSingleObject(source_.listing.get(), 10000), WAIT_OBJECT_0);
  std::thread failing([&] { Sleep(500), SetEvent(source_.listHold.get()); });  // once the stop has begun
  const std::string stop = LoggedBy([] { EncryptDeviceHandler::UnregisterAllDiskNotification(); });
  failing.join();
  EXPECT_EQ(CountOf(stop, "A volume check is still running at the stop; it is not waited for."), 0u) << stop;
  EXPECT_EQ(CountOf(stop, "The volume checks' worker failed a turn; it goes on in 5 s."), 1u) << stop;
}

// An unblocked volume whose protection cannot be read now is asked about again, a minute later twice, then
// every ten minutes while monitoring is on; one the provider does not list (an optical disc) only twice; one
// whose protection no one can ever read here (no provider) not at all.
TEST_F(EncryptedVolumeTest, AnUnreadProtectionIsAskedAboutAgainWhileMonitoringIsOnUnlessItNeverCanBeRead) {
  source_.volumes.push_back({L"Q:", {}, L""});
  source_.volumes.push_back({L"R:", {}, L""});
  source_.answers = {{L"C:", {std::nullopt, "busy"}},
                     {L"Q:", {std::nullopt, "no provider", false}},
                     {L"R:", {std::nullopt, "not listed", true, true}}};
  SetBlockRetryDelayForTest(200, 300);
  const std::string unread = "The protection of C: could not be read";
  const std::string log = LoggedBy([&] {
    EncryptDeviceHandler::DeviceHandler(nullptr, 1, 0);
    EXPECT_TRUE(WaitForLog(unread + " 4 times in a row; it is checked again in 0 s.", 1, 30000));
    MonitorEncryptedDevice.store(0);  // turning it on again checks every volume anew
    EXPECT_TRUE(WaitForLog("; monitoring is off; it is checked again when monitoring is turned on.", 1, 30000));
    ASSERT_TRUE(WaitForVolumeChecks(10000));
  });
  EXPECT_EQ(CountOf(log, unread + "; it is checked again in 0 s."), 2u);
  EXPECT_EQ(CountOf(log, unread + " 3 times in a row; it is checked again in 0 s."), 1u);
  EXPECT_EQ(CountOf(log, "Protection status of Q: unknown: no provider."), 1u);
  EXPECT_EQ(CountOf(log, "The protection of Q:"), 0u);
  EXPECT_EQ(CountOf(log, "The protection of R: could not be read; it is checked again in 0 s."), 2u);
  EXPECT_EQ(CountOf(log, "The protection of R: could not be read 3 times in a row; the volume's next event checks "
                         "it again."), 1u);
  EXPECT_EQ(CountOf(log, "The protection of R: could not be read 4"), 0u);
  MonitorEncryptedDevice.store(1);
  source_.answers[L"C:"] = {0, ""};
  ASSERT_EQ(g_live.size(), 1u);
  VolumeChange();  // read at last, at the volume's next event: not protected, so blocked
  EXPECT_EQ(LinesOf("devctrlaction64").size(), 1u);
}

// Stands in for the cancel of a call, which Wine lacks: the held question then answers as a cancelled one.
const win::UniqueHandle g_cancelAsked(CreateEventW(nullptr, TRUE, FALSE, nullptr));
DWORD g_cancelledThread = 0;
std::atomic<int> g_cancelTries{0};
// The first try finds no call to cancel (it came before the call); the next one cancels it.
HRESULT StandInCancel(DWORD thread) {
  if (g_cancelTries.fetch_add(1) == 0) return CO_E_CANCEL_DISABLED;
  g_cancelledThread = thread;
  SetEvent(g_cancelAsked.get());
  return S_OK;
}

// A question to the provider that hangs holds every check behind it: past the limit the stall is told
// once, whatever arrives meanwhile, and the asking thread's call is cancelled, tried again at each
// limit until a cancel takes. The cancelled check is asked again, and the volumes queued behind it are
// checked.
TEST_F(EncryptedVolumeTest, AStalledQuestionIsToldOnceAndCancelledAndTheChecksBehindItRunAfterIt) {
  source_.volumes.push_back({L"Q:", {}, L""});
  source_.answers = {{L"C:", {0, ""}}, {L"Q:", {1, ""}}, {L"R:", {1, ""}}, {L"S:", {1, ""}}};
  source_.script = {{std::nullopt, "the query was cancelled"}};  // C:'s first answer, once its hold ends
  ResetEvent(source_.hold.get());
  ResetEvent(g_cancelAsked.get());
  g_cancelTries = 0;
  SetCheckStallForTest(1000, StandInCancel);
  SetBlockRetryDelayForTest(200);
  const std::string log = LoggedBy([&] {
    EncryptDeviceHandler::DeviceHandler(nullptr, 1, 0);
    ASSERT_EQ(WaitForSingleObject(g_cancelAsked.get(), 10000), WAIT_OBJECT_0);
    for (const wchar_t* late : {L"R:", L"S:"}) {  // arrivals while the check still hangs
      source_.volumes.push_back({late, {}, L""});
      EncryptDeviceHandler::DeviceHandler(nullptr, 1, 0);
    }
    SetEvent(source_.hold.get());
    EXPECT_TRUE(WaitForLog("Drive C: is not protected; blocking it.", 1, 10000));
    ASSERT_TRUE(WaitForVolumeChecks(10000));
  });
  EXPECT_EQ(g_cancelledThread, source_.askedOn);
  for (const char* part : {"could not be cancelled (0x80010140); it is tried again every 1 s.",
                           "Volume checks have stalled: the check of C: has run for ", " s; 1 volume(s) wait.",
                           "Volume checks move again: the check of C: ended after ", " s; 3 volume(s) wait.",
                           "The protection of C: could not be read; it is checked again in 0 s.",
                           "Drive Q: ProtectionStatus :1", "Drive R: ProtectionStatus :1",
                           "Drive S: ProtectionStatus :1"}) {
    EXPECT_EQ(CountOf(log, part), 1u) << part << "\n" << log;
  }
  EXPECT_EQ(LinesOf("devctrlaction64").size(), 1u);
}

// Each step: an event through C:'s notification (a custom one by its GUID), with monitoring on or off and
// with the volume's registration refused or not; whether C: is open after it, and the line it logs (none
// when empty). A reopened volume has a new notification in place of the old; a failed reopen keeps the
// old, to hear the next event.
TEST_F(EncryptedVolumeTest, ChecksRunOnTheirOwnThreadAndARemovalLockOrDismountClosesTheVolumeUntilItIsOver) {
  source_.answers = {{L"C:", {1, ""}}};
  ResetEvent(source_.hold.get());
  EncryptDeviceHandler::DeviceHandler(nullptr, 1, 0);  // returns with the check still waiting
  EXPECT_FALSE(WaitForVolumeChecks(0));
  ASSERT_EQ(WaitForSingleObject(source_.asked.get(), 10000), WAIT_OBJECT_0);  // the check is under way
  ASSERT_TRUE(VolumeHandleOpen(L"C:"));
  ASSERT_EQ(g_live.size(), 1u);
  const GUID other = {0x7373654A, 0x812A, 0x11D0, {0xBE, 0xC7, 0x08, 0x00, 0x2B, 0xE2, 0x09, 0x30}};
  const struct { DWORD type; GUID event; bool monitoring, refused, open; std::string line; } steps[] = {
      {DBT_DEVICEQUERYREMOVE, GUID_IO_VOLUME_CHANGE, true, false, false, "Volume C: closed: its removal was asked for."},
      {DBT_CUSTOMEVENT, GUID_IO_VOLUME_UNLOCK, true, false, false, ""},  // a removal under way is not vetoed
      {DBT_DEVICEQUERYREMOVEFAILED, GUID_IO_VOLUME_CHANGE, true, false, true, "The removal of C: failed; opening it again."},
      {DBT_CUSTOMEVENT, other, true, false, true, ""},
      {DBT_CUSTOMEVENT, GUID_IO_VOLUME_LOCK, true, false, false, "Volume C: closed: it is being locked."},
      {DBT_CUSTOMEVENT, GUID_IO_VOLUME_LOCK_FAILED, true, false, true, "The lock of C: failed; opening it again."},
      {DBT_CUSTOMEVENT, GUID_IO_VOLUME_MOUNT, true, false, true, ""},  // open already
      {DBT_CUSTOMEVENT, GUID_IO_VOLUME_DISMOUNT, false, false, false, "Volume C: closed: it is being dismounted."},
      {DBT_CUSTOMEVENT, GUID_IO_VOLUME_DISMOUNT_FAILED, false, true, false, "The dismount of C: failed; opening it again."},
      {DBT_CUSTOMEVENT, other, false, false, false, ""},
      {DBT_CUSTOMEVENT, GUID_IO_VOLUME_MOUNT, false, false, true, "Volume C: mounted; opening it again."},
      {DBT_CUSTOMEVENT, GUID_IO_VOLUME_LOCK, true, false, false, "Volume C: closed: it is being locked."},
      {DBT_CUSTOMEVENT, GUID_IO_VOLUME_UNLOCK, true, false, true, "Volume C: unlocked; opening it again."}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.line.empty() ? "nothing" : step.line);
    const HDEVNOTIFY notification = *g_live.begin();
    const bool wasOpen = VolumeHandleOpen(L"C:");
    MonitorEncryptedDevice.store(step.monitoring ? 1 : 0);
    g_refused = step.refused ? std::vector<std::wstring>{L""} : std::vector<std::wstring>{};  // a handle's filter
    const std::string log = LoggedBy(
        [&] { EXPECT_EQ(DeviceEventNotify(step.type, Broadcast(step.event, notification).header()), 0u); });
    EXPECT_EQ(VolumeHandleOpen(L"C:"), step.open);
    ASSERT_EQ(g_live.size(), 1u);  // the next step's notification
    EXPECT_EQ(g_live.count(notification) == 0, !wasOpen && step.open) << "replaced only when opened again";
    EXPECT_EQ(CountOf(log, " closed: ") + CountOf(log, "; opening it again."), step.line.empty() ? 0u : 1u) << log;
    // A line from an open volume is its release's, one from a closed volume its reopen's.
    const char* const function = wasOpen ? "EncryptDeviceHandler::ReleaseVolume" : "EncryptDeviceHandler::ReopenVolume";
    EXPECT_TRUE(step.line.empty() || HasLogLine(log, function, step.line)) << log;
  }
  EXPECT_EQ(g_cancelledTwice, 0u);
  // The stick goes while its check still runs: the check does not put C: back in the table, so the
  // next arrival takes it anew.
  EncryptDeviceHandler::UnregisterDiskNotification(kStickDevice);
  EXPECT_TRUE(g_live.empty());
  SetEvent(source_.hold.get());
  EXPECT_TRUE(WaitForVolumeChecks(10000));
  EXPECT_NE(log_->Peek().find("Drive C: ProtectionStatus :1"), std::string::npos);
  EXPECT_NE(log_->Peek().find("Drive C: left the table while it was checked."), std::string::npos);
  Handle(nullptr, 1, 0);
  EXPECT_EQ(g_live.size(), 1u);
  // A check the stop did not wait for, still running after the next arrival made C:'s entry anew, does
  // not judge that entry: the new entry's own check does.
  ResetEvent(source_.hold.get());
  ResetEvent(source_.asked.get());
  EncryptDeviceHandler::DeviceHandler(Broadcast(GUID_IO_VOLUME_CHANGE, *g_live.begin()).header(), 2, 1);
  ASSERT_EQ(WaitForSingleObject(source_.asked.get(), 10000), WAIT_OBJECT_0);
  const std::string log = LoggedBy([&] {
    EncryptDeviceHandler::UnregisterAllDiskNotification();
    EncryptDeviceHandler::DeviceHandler(nullptr, 1, 0);
    SetEvent(source_.hold.get());
    EXPECT_TRUE(WaitForLog("Drive C: left the table while it was checked.", 2, 15000));
    EXPECT_TRUE(WaitForVolumeChecks(10000));
  });
  EXPECT_EQ(CountOf(log, "A volume check is still running at the stop; it is not waited for."), 1u);
  EXPECT_EQ(CountOf(log, "Drive C: ProtectionStatus :1"), 2u) << log;
  EXPECT_EQ(CountOf(log, "Drive C: left the table while it was checked."), 1u) << log;
}

const Volume kUsbDisk{L"usb-disk", {L"F:\\", L"C:\\mnt\\backup\\"}, DRIVE_FIXED, FixedMedia, BusTypeUsb};
// The machine of most scans: a USB stick and a USB hard disk among volumes that do not count.
const std::vector<Volume> kMachine = {{L"system", {L"C:\\"}, DRIVE_FIXED, FixedMedia, BusTypeSata, false}, kStick,
                                      {L"sata-hot-swap", {L"D:\\"}, DRIVE_FIXED, FixedMedia, BusTypeSata},
                                      {L"card-reader", {L"G:\\"}, DRIVE_REMOVABLE, Unknown, BusTypeUsb},
                                      {L"floppy", {L"A:\\"}, DRIVE_REMOVABLE, std::nullopt, std::nullopt},
                                      {L"cdrom", {L"H:\\"}, DRIVE_CDROM, RemovableMedia, BusTypeUsb}, kUsbDisk};

using DriveInventoryTest = VolumeTableTest;

TEST_F(DriveInventoryTest, ListsUsbDrivesOnlyAndAttachesNewOnesWhenAsked) {
  const auto scan = [&](std::vector<Volume> volumes, int attachNewDrives) {
    probe_.volumes = std::move(volumes);
    return LoggedBy([&] { UpdateRemovableDriveEntries(attachNewDrives); });
  };
  const std::string attach = "[ AttachFilterToDrive ] @@@ Inside AttachFilterToDrive @@@\r\n";
  std::string log = scan(kMachine, 1);
  EXPECT_EQ(RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  EXPECT_EQ(CountOf(log, attach), 2u);
  EXPECT_EQ(CountOf(log, "[ ExecuteFileShadowApplication ] @@@ Inside ExecuteFileShadowApplication @@@\r\n"), 2u);
  EXPECT_LOG_ORDER(log, {{"UpdateRemovableDriveEntries", "Failed to get drive geometry information."},
                         {"UpdateRemovableDriveEntries", "Update for Drive :E:\\", LogLine::kPrefix},
                         Entered("AttachFilterToDrive"), Entered("ExecuteFileShadowApplication")});
  ResetRemovableDrivesForTest();
  EXPECT_EQ(CountOf(scan({kStick}, 0), attach), 0u);  // two statements: the second scan must come after the first
  EXPECT_EQ(CountOf(scan({kStick, kUsbDisk}, 0), attach), 0u);
  EXPECT_EQ(RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  log = scan(kMachine, 1);
  EXPECT_EQ(RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  EXPECT_EQ(CountOf(log, attach) + CountOf(log, "Update for Drive :"), 0u);
  EXPECT_EQ(CountOf(scan({kUsbDisk}, 1), attach), 0u);
  log = scan(kMachine, 1);
  EXPECT_EQ(RemovableDrives(), (Paths{L"F:\\", L"E:\\"}));
  EXPECT_EQ(CountOf(log, "Update for Drive :"), 1u);
  EXPECT_EQ(CountOf(log, attach), 1u);
  const Volume broken{L"usb-disk", {L"F:\\"}, DRIVE_FIXED, FixedMedia, BusTypeUsb, true, true};
  EXPECT_TRUE(HasLogLine(scan({kStick, broken}, 1), "UpdateRemovableDriveEntries", "Exception caught."));
  EXPECT_EQ(RemovableDrives(), (Paths{L"F:\\", L"E:\\"}));
}

// A scan that starts while another is still looking at the volumes waits for it, so the older view
// never merges over the newer one: the drive the newer scan attached is neither lost nor attached again.
TEST_F(DriveInventoryTest, OverlappingScansMergeInTheOrderTheyLooked) {
  struct FirstScanWaits final : VolumeProbe {
    void ForEachVolume(const std::function<void(const std::wstring&)>& visit) override {
      const std::vector<Volume> seen = table->volumes;
      if (calls++ == 0) SignalObjectAndWait(looked.get(), release.get(), 10000, FALSE);
      for (const Volume& v : seen) visit(v.name);
    }
    std::unique_ptr<ProbedVolume> Open(const std::wstring& name) override { return table->Open(name); }
    BusTypeAnswer BusType(wchar_t letter) override { return table->BusType(letter); }
    folders::DriveBuses BusesOfDrive(wchar_t letter) override { return table->BusesOfDrive(letter); }
    TableProbe* table = nullptr;
    std::atomic<int> calls{0};
    win::UniqueHandle looked{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    win::UniqueHandle release{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  } probe;
  probe.table = &probe_;
  SetVolumeProbeForTest(&probe);
  std::thread older([] { UpdateRemovableDriveEntries(1); });  // sees no volume, then waits
  ASSERT_EQ(WaitForSingleObject(probe.looked.get(), 10000), WAIT_OBJECT_0);
  probe_.volumes = {kStick};
  std::atomic<bool> newerDone{false};
  std::thread newer([&] { UpdateRemovableDriveEntries(1), newerDone.store(true); });
  EXPECT_FALSE(WaitUntil([&] { return newerDone.load(); }, 1000)) << "it did not wait for the older scan";
  SetEvent(probe.release.get());
  older.join();
  newer.join();
  EXPECT_EQ(RemovableDrives(), Paths{L"E:\\"});
  EXPECT_EQ(CountOf(log_->Peek(), "[ AttachFilterToDrive ] @@@ Inside AttachFilterToDrive @@@"), 1u);
  SetVolumeProbeForTest(&probe_);
}

constexpr char kReacting[] = "Agent settings changed; applying them.";
constexpr char kReacted[] = "@@@ End of ExecuteDeviceEventAction @@@";

class SettingsMonitorTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    ASSERT_TRUE(NewRevokeQueue());
    ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, dir_.NarrowPath()), 0);
    for (const wchar_t* folder : {L"data", L"data\\policy"}) CreateDirectoryW(dir_.File(folder).c_str(), nullptr);
  }
  void TearDown() override {
    StopWatcher();
    AgentTest::TearDown();
  }
  void StartWatcher() { thread_.reset(CreateThread(nullptr, 0, MonitorSettingsModified, &watch_, 0, nullptr)); }
  void StopWatcher() {
    SetEvent(ServiceStopEvent);
    EXPECT_TRUE(!thread_ || WaitForSingleObject(thread_.get(), 10000) == WAIT_OBJECT_0) << "the watcher did not end";
    thread_.reset();
    ResetEvent(ServiceStopEvent);
  }
  [[nodiscard]] std::size_t Reactions() const { return CountOf(log_->Peek(), kReacting); }
  // Wine answers GetProcessHandleCount with 0 but hands out the lowest free slot: leaks push this up.
  static std::uintptr_t FreshHandleValue() {
    return reinterpret_cast<std::uintptr_t>(win::UniqueHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr)).get());
  }

  SettingsWatch watch_{&ServiceSettingsReaction(), std::nullopt};
  win::UniqueHandle thread_;
};

// The key the watcher waits for appears with the policy's values: a change of its own. The policy
// makes the filter wanted; a thousand changes then cost a few reactions and no handle each.
TEST_F(SettingsMonitorTest, AKeyItWaitedForIsAChangeAndABurstGetsOneReaction) {
  WriteFileBytes(dir_.File(L"data\\policy\\devicecontrol.json"), "{}");
  bin_.Add(L"korvaFaUser");
  StartWatcher();
  ASSERT_TRUE(WaitForLog("Unable to open [" + kQvm + "] with code : 2; looking again every 5 seconds."));
  ASSERT_EQ(writeValue(kQvm, "MonitorEncryptedDevice", REG_DWORD, "1"), 0);  // the key appears with it
  ASSERT_TRUE(WaitForLog("Watching [" + kQvm + "] for changes.", 1, 60000));
  // As generous as the burst's wait below: the reaction starts programs, slow on a loaded machine
  // (it failed once at 15 s while ten Wine prefixes were starting).
  ASSERT_TRUE(WaitForLog(kReacted, 1, 60000)) << log_->Peek();
  // A look between the key's making and its value's gives one reaction more, for the value.
  EXPECT_TRUE(WaitUntil([] { return MonitorEncryptedDevice.load() == 1; }, 60000));
  EXPECT_EQ(LinesOf("korvaFaUser", 1).size(), 1u);  // the filter's user program
  // The grants before the filter's setup: a revoke never waits for its programs.
  EXPECT_LOG_ORDER(log_->Peek(), {{"MonitorSettingsModified", kReacting}, Entered("UpdateMonitoringVariable"),
                                  Entered("FetchRestoreUnpluggedBlockedDevice"),
                                  Entered("ProcessandUpdateTemporaryAccess"), Entered("DriverServiceExecution"),
                                  Entered("UpdateRemovableDriveEntries"), Entered("StartDriverUserApplication"),
                                  Entered("ExecuteDeviceEventAction")});
  ASSERT_TRUE(WaitUntil([&] { return CountOf(log_->Peek(), kReacted) == Reactions(); }, 60000));
  const std::size_t before = Reactions();
  const std::uintptr_t handle = FreshHandleValue();
  const ULONGLONG burstBegan = GetTickCount64();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(writeValue(kQvm + "\\Burst", "Value", REG_DWORD, std::to_string(i)), 0);
  // One reaction per 2-second settling window the burst spans: one on a quiet machine, more where
  // the writes themselves take longer (a loaded one).
  const std::size_t most = before + 3 + static_cast<std::size_t>((GetTickCount64() - burstBegan) / 2000);
  // As generous as the first reaction's wait; what the watcher did since that one is printed if none comes.
  ASSERT_TRUE(WaitForLog(kReacted, before + 1, 60000))
      << "no reaction to the burst; the log since the first one:\n" << log_->Peek().substr(log_->Peek().find(kReacted));
  EXPECT_FALSE(WaitUntil([&] { return Reactions() > most; }, 4000)) << Reactions() << " reactions";
  EXPECT_LT(FreshHandleValue(), handle + std::uintptr_t{20} * 4) << handle;  // handle values go in steps of 4
}

// The start-up takes a baseline before it reads the settings; the watcher looks only later. What changed
// in between is applied at that first look; the start-up's own writes (the key made for the filter flag,
// where there was none) are not a change.
TEST_F(SettingsMonitorTest, AChangeAfterTheStartUpsBaselineIsAppliedAtTheWatchersFirstLook) {
  const std::string changed = "The settings changed since the service's start-up read them.";
  // A grant's registry period, which the reaction's grant pass reads, is part of what it depends on.
  const std::string period = std::string(kAgentKey) + "\\QVM\\TemporaryAccess\\5";
  SetDword(period, "duration_to", 9);
  const std::uint64_t periodBefore = SettingsFingerprintNow();
  SetDword(period, "duration_to", 7);
  EXPECT_NE(SettingsFingerprintNow(), periodBefore);
  watch_.startBaseline = SettingsFingerprintNow();  // no key yet
  ASSERT_EQ(writeValue(kQvm, "isQVFANeeded", REG_SZ, "0"), 0);
  StartWatcher();
  ASSERT_TRUE(WaitForLog("Watching [" + kQvm + "] for changes."));
  // A change: its reaction comes after the first look's, had there been one.
  ASSERT_EQ(writeValue(kQvm, "SkipRestoreUnpluggedBlocked", REG_DWORD, "0"), 0);
  ASSERT_TRUE(WaitForLog(kReacted, 1, 60000)) << log_->Peek();
  EXPECT_FALSE(WaitUntil([&] { return Reactions() > 1; }, 4000)) << "a reaction at the first look";
  StopWatcher();

  watch_.startBaseline = SettingsFingerprintNow();
  ASSERT_EQ(writeValue(kQvm, "MonitorEncryptedDevice", REG_DWORD, "1"), 0);  // after the start-up's reads
  const std::size_t mark = log_->Peek().size();
  StartWatcher();
  ASSERT_TRUE(WaitForLog(kReacted, 2, 60000)) << log_->Peek();
  EXPECT_EQ(MonitorEncryptedDevice.load(), 1);
  EXPECT_LOG_ORDER(log_->Peek().substr(mark), {{"MonitorSettingsModified", "Watching [" + kQvm + "] for changes."},
                                               {"MonitorSettingsModified", changed},
                                               {"MonitorSettingsModified", kReacting}});
}

using RfcommMonitorTest = DeviceTest;

TEST_F(RfcommMonitorTest, EachSettledChangeIsLoggedAndEnumeratesAgainUntilTheServiceStops) {
  const win::UniqueServiceHandle manager = win::OpenServiceManager(SC_MANAGER_ALL_ACCESS);
  DeleteServiceIfPresent(L"RFCOMM");
  const std::wstring program = L"\"" + bin_.Add(L"bluetooth") + L"\"";
  WriteFileBytes(bin_.folder() + L"\\bluetooth.behaviour", "service=1\r\n");
  SetRfcommPollMsForTest(100);
  const win::UniqueHandle thread(CreateThread(nullptr, 0, MonitorRFCOMMStatus, nullptr, 0, nullptr));
  ASSERT_TRUE(WaitForLog("@@@ End of QuerySCMServiceStatus @@@", 2));  // the first look is taken

  win::UniqueServiceHandle rfcomm(CreateServiceW(manager.get(), L"RFCOMM", L"RFCOMM", SERVICE_ALL_ACCESS,
                                                 SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                                 program.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  ASSERT_TRUE(rfcomm) << GetLastError();
  EXPECT_TRUE(WaitForLog("The RFCOMM service was installed (stopped)."));
  ASSERT_EQ(StartServiceOnce(rfcomm.get()), 0u);
  EXPECT_TRUE(WaitForLog("The RFCOMM service started."));
  ASSERT_EQ(SendControl(rfcomm.get(), SERVICE_CONTROL_STOP), 0u);
  EXPECT_TRUE(WaitForLog("The RFCOMM service stopped."));
  ASSERT_TRUE(DeleteService(rfcomm.get()));
  rfcomm.reset();  // the service goes once no handle is open on it
  EXPECT_TRUE(WaitForLog("The RFCOMM service was removed."));
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 4).size(), 4u);  // one enumeration per change

  ASSERT_TRUE(SetEvent(ServiceStopEvent));
  EXPECT_EQ(WaitForSingleObject(thread.get(), 10000), WAIT_OBJECT_0);
  EXPECT_EQ(CountOf(log_->Text(), "The RFCOMM service"), 4u);  // each change once
}

}  // namespace
}  // namespace korva::test
