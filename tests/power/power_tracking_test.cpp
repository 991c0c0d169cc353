// Power and shutdown tracking on the real registry and files: times, the history file, forced-shutdown marks.
#include "power/power_tracking.h"

#include <ctime>
#include <optional>
#include <regex>

#include "shared/access_log.h"
#include "support/agent_fixture.h"

namespace korva::test {

const std::string kPowerKey = std::string(kAgentKey) + "\\PowerEvents";
const std::string kUserPowerKey = "\\Software\\Kestrelix\\Tallowmere\\KorvaAgent\\PowerEvents";
// Stand-ins for other loaded hives (Wine lets a program create keys at the top of HKEY_USERS); the
// linked user's "Software\Kestrelix" is a registry link into the machine's keys.
const std::string kUserHive = "S-1-5-21-111-222-333-1001", kClassesHive = kUserHive + "_Classes";
const std::string kLinkedHive = "S-1-5-21-111-222-333-1002", kLinkTarget = "System\\KorvaLinkTarget";

// No BasePath and no installation folder until a test sets one.
class PowerTrackingTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    TearDownUsers();
    AgentInstallDirGlobal.clear();
  }
  void TearDown() override {
    SetPowerHistoryStepForTest(nullptr);  // a test that stopped half-way leaves none behind
    TearDownUsers();
    AgentTest::TearDown();
  }
  static void TearDownUsers() {
    RegDeleteTreeA(HKEY_CURRENT_USER, "Software\\Kestrelix");
    for (const std::string& hive : {kUserHive, kClassesHive}) RegDeleteTreeA(HKEY_USERS, hive.c_str());
    win::UniqueRegKey link;  // the link itself, not what it leads to
    if (RegOpenKeyExA(HKEY_USERS, (kLinkedHive + "\\Software\\Kestrelix").c_str(), REG_OPTION_OPEN_LINK,
                      KEY_ALL_ACCESS, link.put()) == ERROR_SUCCESS) {
      RegDeleteValueW(link.get(), L"SymbolicLinkValue");
      RegDeleteKeyA(link.get(), "");
    }
    RegDeleteTreeA(HKEY_USERS, kLinkedHive.c_str());
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, kLinkTarget.c_str());
  }
  // Makes the linked user's "Software\Kestrelix" a link to the machine's kLinkTarget.
  static void MakeLinkedHive() {
    win::UniqueRegKey link;
    ASSERT_EQ(RegCreateKeyExA(HKEY_USERS, (kLinkedHive + "\\Software\\Kestrelix").c_str(), 0, nullptr,
                              REG_OPTION_CREATE_LINK, KEY_ALL_ACCESS, nullptr, link.put(), nullptr),
              ERROR_SUCCESS);
    const std::wstring target = L"\\Registry\\Machine\\" + win::AnsiToWide(kLinkTarget);
    EXPECT_EQ(RegSetValueExW(link.get(), L"SymbolicLinkValue", 0, REG_LINK,
                             reinterpret_cast<const BYTE*>(target.data()),
                             static_cast<DWORD>(target.size() * sizeof(wchar_t))),
              ERROR_SUCCESS);
    ASSERT_TRUE(AgentKey(kLinkTarget));  // where the link leads
  }
  static long long Now() { return _time64(nullptr); }
  [[nodiscard]] std::string History() const { return ReadFileBytes(dir_.File(L"data\\powerhistory.log")); }
};

TEST_F(PowerTrackingTest, UnreadableTimesReadAsZeroAndHistoryFailuresLeaveTheTimeRecorded) {
  EXPECT_EQ(GetShutDownTime(), 0);  // no key
  SetRawValue(kPowerKey, "LastShutdownTime", REG_QWORD, std::string("\0\0\0\1", 4));
  EXPECT_EQ(GetShutDownTime(), 0);
  EXPECT_NE(log_->Peek().find("[ ERROR ] [ GetShutDownTime ] Unable to read LastShutdownTime."), std::string::npos);
  ASSERT_EQ(RegDeleteValueA(AgentKey(kPowerKey).get(), "LastShutdownTime"), 0);
  const std::string missing = LoggedBy([] { EXPECT_EQ(GetShutDownTime(), 0); });
  EXPECT_TRUE(HasLogLine(missing, "GetShutDownTime", "No shutdown time is recorded."));
  EXPECT_EQ(missing.find("ERROR"), std::string::npos);

  WriteFileBytes(dir_.File(L"data"), "not a folder");
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, dir_.NarrowPath()), 0);
  UpdatePowerEventStatus();
  EXPECT_GT(GetShutDownTime(), 0);
  const std::string history = dir_.NarrowPath() + "\\data\\powerhistory.log";
  EXPECT_LOG_LINES(log_->Peek(), {{"printErrorMsgForID", "Error ID      :1630"},
                                  {"UpdatePowerEventStatus", "Unable to open the power history " + history +
                                                                 "; its entries are kept until it can be written."}});
  ASSERT_TRUE(DeleteFileW(dir_.File(L"data").c_str()));
  // A user's link in the data folder's place, there before the walk or made after it (by a user who
  // may add folders to BasePath), or a second name of another file in the history's place: the time
  // is kept, no line goes where the link leads.
  const auto refused = [&](const std::string& step) {
    return "The power history [" + history + "] is reached through [" + step +
           "], a link or folder that users may change or replace, or that cannot be checked; "
           "its entries are kept until it can be written.";
  };
  const TempDir elsewhere;
  for (const bool raced : {false, true}) {
    std::optional<FolderLink> data;
    if (!raced) data.emplace(dir_.File(L"data"), elsewhere.path());
    SetPowerHistoryStepForTest([&](PowerHistoryStep step) {
      if (step == PowerHistoryStep::kPathWalked && !data) data.emplace(dir_.File(L"data"), elsewhere.path());
    });
    ResetOrderlyEndForTest();  // a run records its end once
    const std::string linked = LoggedBy([] { UpdatePowerEventStatus(); });
    SetPowerHistoryStepForTest(nullptr);
    ASSERT_TRUE(data && data->made());
    EXPECT_TRUE(HasLogLine(linked, "UpdatePowerEventStatus", refused(dir_.NarrowPath() + "\\data"))) << linked;
    EXPECT_EQ(ReadFileBytes(elsewhere.File(L"powerhistory.log")), "");
  }
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"data").c_str(), nullptr));
  WriteFileBytes(elsewhere.File(L"theirs.txt"), "theirs");
  ASSERT_TRUE(CreateHardLinkW(dir_.File(L"data\\powerhistory.log").c_str(), elsewhere.File(L"theirs.txt").c_str(), nullptr));
  ResetOrderlyEndForTest();
  EXPECT_TRUE(HasLogLine(LoggedBy([] { UpdatePowerEventStatus(); }), "UpdatePowerEventStatus", refused(history)));
  EXPECT_EQ(ReadFileBytes(elsewhere.File(L"theirs.txt")), "theirs");
}

// A reader that holds the history file without sharing writes: a release within the retries loses
// nothing, and a line that outlasts them is written before the next one, or at the end.
TEST_F(PowerTrackingTest, AHeldHistoryFileDelaysItsLinesButLosesNone) {
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, dir_.NarrowPath()), 0);
  WriteForceShutdownEntry();  // the file is there
  win::UniqueFileHandle holder;
  const auto hold = [&] {
    holder.reset(CreateFileW(dir_.File(L"data\\powerhistory.log").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                             OPEN_EXISTING, 0, nullptr));
    return holder.valid();
  };
  ASSERT_TRUE(hold());
  SetPowerHistoryStepForTest([&](PowerHistoryStep step) {
    if (step == PowerHistoryStep::kFileHeld) holder.reset();
  });
  WriteForceShutdownEntry();
  SetPowerHistoryStepForTest(nullptr);
  EXPECT_EQ(CountOf(History(), "\tForcedShutdown\t"), 2u);

  ASSERT_TRUE(hold());
  const std::string held = LoggedBy([] {
    UpdatePowerEventStatus();
    EXPECT_FALSE(FlushPowerHistory());  // still held at the end: told, not waited for
  });
  EXPECT_LOG_LINES(held, {{"printErrorMsgForID", "Error ID      :32"},
                          {"FlushPowerHistory", "1 power-history lines could not be written before the process ended."}});
  holder.reset();
  WriteForceShutdownEntry();  // the held line first
  const std::string line = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\t)";
  EXPECT_TRUE(std::regex_search(History(), std::regex(line + R"(Shutdown\t\d+\r\n)" + line + R"(ForcedShutdown\t\d+\r\n$)")))
      << History();
  ASSERT_TRUE(hold());
  WriteForceShutdownEntry();
  holder.reset();
  EXPECT_TRUE(FlushPowerHistory());
  EXPECT_EQ(CountOf(History(), "\tForcedShutdown\t"), 4u);
}

// Not even under the current directory that a relative folder would resolve against. The row waits
// for a folder of the agent's own and goes into its access log then.
TEST_F(PowerTrackingTest, NoHistoryOrAccessLogUnderARelativeFolder) {
  const TempDir current;
  const SearchedFolder searched(current.path());
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, "."), 0);
  AgentInstallDirGlobal = ".";
  const std::string log = LoggedBy([] {
    UpdatePowerEventStatus();
    PrintAgentServiceAccessLog("Machine_Bootup_Notification");
  });
  EXPECT_GT(GetShutDownTime(), 0);  // the time is still recorded
  EXPECT_FALSE(FileExists(current.File(L"data")));
  EXPECT_FALSE(FileExists(current.File(L"logs")));
  EXPECT_LOG_LINES(log, {{"UpdatePowerEventStatus", "No folder for the power history: neither BasePath nor "
                                                    "AgentInstallDir is usable."},
                         {"PrintAgentServiceAccessLog", "No folder of the agent's own for the access log; its rows "
                                                        "are kept until there is one."}});
  AgentInstallDirGlobal = dir_.NarrowPath();
  EXPECT_TRUE(FlushAccessLog(2000));
  EXPECT_EQ(CountOf(AccessLog(), "\t\t\tMachine_Bootup_Notification\t"), 1u);
}

// Each run's orderly end overwrites the time (the boot time's unit) and appends a CR LF history line;
// a run ends once. The next run forgets it, but not an end of its own that came first.
TEST_F(PowerTrackingTest, OrderlyEndsRecordTheirTimeAndAppendHistoryLinesOncePerRun) {
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, dir_.NarrowPath() + "\\"), 0);
  WriteLastBootUpTime(5'000);
  UpdatePowerEventStatus();
  const LONGLONG shutdown = GetShutDownTime();
  const auto boot = static_cast<LONGLONG>(ReadNumber(kAgentKey, "LastBootUpTime", REG_QWORD).value_or(0));
  EXPECT_TRUE(shutdown >= boot && shutdown - boot <= 10) << shutdown << " " << boot;
  const std::string first = History();
  const std::string prefix = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\tShutdown\t)";
  EXPECT_TRUE(std::regex_match(first, std::regex(prefix + std::to_string(shutdown) + "\r\n"))) << first;

  RecordServiceStopTime();  // the stop behind the shutdown: this run's end is recorded
  EXPECT_EQ(GetShutDownTime(), shutdown);
  EXPECT_EQ(History(), first);

  ResetOrderlyEndForTest();  // the next run
  ForgetPreviousOrderlyEnd();
  EXPECT_EQ(ReadNumber(kPowerKey, "LastShutdownTime", REG_QWORD), std::nullopt);
  const long long before = Now();
  RecordServiceStopTime();
  const LONGLONG stop = GetShutDownTime();
  EXPECT_TRUE(stop >= before && stop <= Now()) << stop;
  ForgetPreviousOrderlyEnd();  // a start slower than its own stop keeps that stop
  EXPECT_EQ(GetShutDownTime(), stop);
  EXPECT_EQ(History().find(first), 0u);  // appended, never rewritten
  EXPECT_NE(History().find("\tServiceStop\t" + std::to_string(stop) + "\r\n"), std::string::npos) << History();
}

// Marked for the machine and each user hive, not a classes hive, nor through a registry link a user made in
// theirs; the orderly time is not touched.
TEST_F(PowerTrackingTest, ForcedShutdownIsMarkedForTheMachineAndEveryLoadedUser) {
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, dir_.NarrowPath()), 0);
  for (const std::string& hive : {kUserHive, kClassesHive}) {
    ASSERT_EQ(RegSetKeyValueA(HKEY_USERS, (hive + "\\Software").c_str(), "x", REG_SZ, "", 1), 0);
  }
  MakeLinkedHive();
  const long long before = Now();
  const std::string log = LoggedBy([] { WriteForceShutdownEntry(); });
  EXPECT_EQ(ReadNumber(kLinkTarget + "\\Tallowmere\\KorvaAgent\\PowerEvents", "ForcedShutdown"), std::nullopt);
  EXPECT_LOG_LINES(log, {{"WriteForceShutdownEntry", "The registry key " + kLinkedHive +
                                                         "\\Software\\Kestrelix is a link; nothing is written through it."}});
  EXPECT_EQ(ReadNumber(kPowerKey, "ForcedShutdown"), 1u);
  const auto when = static_cast<long long>(ReadNumber(kPowerKey, "ForcedShutdownTime", REG_QWORD).value_or(0));
  EXPECT_TRUE(when >= before && when <= Now()) << when;
  EXPECT_EQ(GetShutDownTime(), 0);
  EXPECT_EQ(ReadNumber(kUserHive + kUserPowerKey, "ForcedShutdownTime", REG_QWORD, HKEY_USERS), when);
  EXPECT_EQ(ReadNumber(kUserPowerKey.substr(1), "ForcedShutdown", REG_DWORD, HKEY_CURRENT_USER), 1u);
  EXPECT_EQ(ReadNumber(kClassesHive + kUserPowerKey, "ForcedShutdown", REG_DWORD, HKEY_USERS), std::nullopt);
  EXPECT_NE(History().find("\tForcedShutdown\t" + std::to_string(when) + "\r\n"), std::string::npos) << History();
}

}  // namespace korva::test
