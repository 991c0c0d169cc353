// The device routines' pure core: instance paths, helper arguments, the drive-list merge, watched services.
#include <gtest/gtest.h>

#include "devicecontrol/core/device_action_text.h"
#include "devicecontrol/core/drive_list.h"
#include "devicecontrol/core/settings_fingerprint.h"
#include "devicecontrol/core/service_watch.h"

namespace korva::devicecontrol {
namespace {

// A '\' in the instance part is kept, only the last '#' ends it, and a '#' in the prefix does not
// count; the action program's user is named, unquoted, for codes 2, 3 and 7 only. Outside text never
// adds arguments: a quote in a name refuses the launch (code 4 names none: nothing to refuse), as does
// a NUL in an instance path (the summary program's own run shows the path quoted and read back whole).
TEST(DeviceActionText, InstancePathsAndHelperArguments) {
  const struct { const wchar_t* interfacePath; InstancePathStatus status; const wchar_t* path; } paths[] = {
      {L"\\\\?\\ROOT\\x#0000#{guid}", InstancePathStatus::kFound, L"ROOT\\X\\0000"},
      {L"#\\?#USB", InstancePathStatus::kNoHash, L""}, {L"", InstancePathStatus::kNoHash, L""}};
  for (const auto& c : paths) {
    const InstancePath result = DeviceInstancePathFromInterfacePath(c.interfacePath);
    EXPECT_EQ(std::pair(result.status, result.path), std::pair(c.status, std::wstring(c.path))) << c.interfacePath;
  }
  const struct { int code; const wchar_t* user; std::optional<std::wstring> expected; } actions[] = {
      {2, L"alice", L"-c 2 -n alice"}, {3, L"alice", L"-c 3 -n alice"}, {7, L"Jane Doe", L"-c 7 -n Jane Doe"},
      {4, L"alice", L"-c 4"}, {2, L"eve\" -c 9", std::nullopt}, {4, L"eve\"", L"-c 4"}};
  for (const auto& c : actions) EXPECT_EQ(ActionProgramArguments(c.code, c.user), c.expected) << c.user;
  EXPECT_EQ(SummaryArguments(10, 0, "\xc3\xa9"), "-s ET_COL 10 0 \"\xc3\xa9\"");  // the others run for real
  EXPECT_EQ(SummaryArguments(1, 1, std::string_view("U\0", 2)), std::nullopt);
}

// Summaries keep their events' order: none starts ahead of one that waits, even with a place free.
// A full queue drops the oldest of the device with most waiting, so one device's storm cannot crowd
// out another's events; a hanging summary gives up its place only while overdue ones are few.
TEST(DeviceActionText, SummaryTurnsPlacesAndDrops) {
  const struct { std::size_t taken, waiting; SummaryTurn turn; } turns[] = {
      {0, 0, SummaryTurn::kStartNow}, {kMaxRunningSummaries - 1, 0, SummaryTurn::kStartNow},
      {kMaxRunningSummaries, 0, SummaryTurn::kWait}, {0, 1, SummaryTurn::kWait},
      {kMaxRunningSummaries, kMaxWaitingSummaries - 1, SummaryTurn::kWait},
      {0, kMaxWaitingSummaries, SummaryTurn::kMakeRoom}};
  for (const auto& c : turns) EXPECT_EQ(TurnOfNewSummary(c.taken, c.waiting), c.turn) << c.taken << "/" << c.waiting;
  EXPECT_FALSE(SummaryGivesUpPlace(false, kSummaryPlaceMs - 1, 0));
  EXPECT_TRUE(SummaryGivesUpPlace(false, kSummaryPlaceMs, kMaxOverdueSummaries - 1));
  EXPECT_FALSE(SummaryGivesUpPlace(false, kSummaryPlaceMs, kMaxOverdueSummaries));
  EXPECT_TRUE(SummaryGivesUpPlace(true, 0, kMaxOverdueSummaries));
  using Devices = std::vector<std::string_view>;
  const struct { Devices waiting; std::string_view device; std::size_t dropped; } drops[] = {
      {{"F", "F", "S", "F"}, "S", 0}, {{"S", "F", "F", "S"}, "F", 1}, {{"F", "S", "S", "F"}, "T", 0},
      {{"A", "B", "C"}, "D", 0}, {{"F", "F"}, "F", 0}, {{}, "A", 0}};
  for (const auto& c : drops) EXPECT_EQ(WaitingSummaryToDrop(c.waiting, c.device), c.dropped) << c.device;
  for (const auto& [path, key] : {std::pair("USB\\VID_1&PID_2\\4C53", "USB\\VID_1&PID_2"),
                                  {"HID\\VID_1&PID_2&MI_01&COL02\\7&1", "HID\\VID_1&PID_2"},
                                  {"USB\\VID_1&PID_2&MI_00\\6&2", "USB\\VID_1&PID_2"}, {"Unknown", "Unknown"}}) {
    EXPECT_EQ(SummaryDeviceKey(path), key);
  }
}

// The agent's own values under the settings key do not count; anything else does, part by part.
TEST(SettingsFingerprint, TheAgentsOwnValuesDoNotCountAndPartsStayApart) {
  const struct { const char* subkey; const char* name; bool own; } values[] = {
      {"", "isqvfaneeded", true}, {"AuditSettings", "isQVFANeeded", false}, {"", "MonitorEncryptedDevice", false},
      {"AuditSettings", "LoggedOnUser", true}, {"", "LoggedOnUser", false},
      {"auditsettings", "IsSettingsModified", true}};
  for (const auto& v : values) EXPECT_EQ(IsAgentsOwnSettingsValue(v.subkey, v.name), v.own) << v.subkey << v.name;
  const auto fingerprint = [](std::initializer_list<std::string_view> parts) {
    Fingerprint f;
    for (const std::string_view part : parts) f.Add(part);
    return f.value();
  };
  EXPECT_NE(fingerprint({"ab", "c"}), fingerprint({"a", "bc"}));
  EXPECT_EQ(fingerprint({"ab", "c"}), fingerprint({"ab", "c"}));
}

using Paths = std::vector<std::wstring>;

// The same drives again and a new one after the kept ones are shown by the drive scans.
TEST(DriveListMerge, KeepsScanOrderPutsNewDrivesLastAndDropsMissingOnes) {
  const struct { const char* what; Paths current; Paths scan; bool wasEmpty; Paths list; Paths added; } cases[] = {
      {"first scan takes the scan as it is", {}, {L"F:\\", L"E:\\"}, true, {L"F:\\", L"E:\\"}, {L"F:\\", L"E:\\"}},
      {"removed drive drops out", {L"E:\\", L"F:\\", L"G:\\"}, {L"G:\\", L"E:\\"}, false, {L"G:\\", L"E:\\"}, {}},
      {"case differences are the same drive, spelled as scanned", {L"e:\\", L"F:\\"}, {L"E:\\", L"f:\\", L"G:\\"},
       false, {L"E:\\", L"f:\\", L"G:\\"}, {L"G:\\"}},
      {"a repeated scan entry counts once (kept and new)", {L"E:\\"}, {L"E:\\", L"G:\\", L"e:\\", L"g:\\"}, false,
       {L"E:\\", L"G:\\"}, {L"G:\\"}},
  };
  for (const auto& c : cases) {
    const auto merge = MergeDriveList(c.current, c.scan);
    EXPECT_EQ(std::tuple(merge.listWasEmpty, merge.list, merge.added), std::tuple(c.wasEmpty, c.list, c.added)) << c.what;
  }
}

TEST(ServiceWatch, QueryAnswersAreStatesAndOnlySettledChangesGiveALine) {
  EXPECT_EQ(StateOf(1060, 0), WatchedState::kAbsent);
  EXPECT_EQ(StateOf(5, 4), WatchedState::kPending);  // a failed look decides nothing
  EXPECT_EQ(StateOf(0, 2), WatchedState::kPending);  // start pending
  EXPECT_EQ(ChangeLine("RFCOMM", WatchedState::kStopped, WatchedState::kPending), std::nullopt);
  EXPECT_EQ(ChangeLine("RFCOMM", WatchedState::kRunning, WatchedState::kRunning), std::nullopt);
  EXPECT_EQ(ChangeLine("BthServ", WatchedState::kPending, WatchedState::kRunning), "The BthServ service started.");
  EXPECT_EQ(ChangeLine("BthServ", WatchedState::kAbsent, WatchedState::kRunning),
            "The BthServ service was installed (running).");
}

}  // namespace
}  // namespace korva::devicecontrol
