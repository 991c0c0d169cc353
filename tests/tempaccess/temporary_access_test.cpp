// Temporary access in-process: the decryption library interface and grant passes over real files and programs.
#include "fileaudit/policy_status.h"
#include "settings/machine_details.h"
#include "support/agent_fixture.h"
#include "tempaccess/decryption.h"
#include "tempaccess/temporary_access.h"

namespace korva::test {
namespace {

using AgentUtil::ClientAuthHandlerUtil;
using Lines = std::vector<std::string>;

// BasePath is the stand-ins' bin folder, so the configuration and tray programs share one journal.
// The service seems to run from "<dir>\app\DeviceControl\bin": the library is in "<dir>\app\bin".
class GrantTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, win::WideToAnsi(bin_.folder())), 0);
    for (const wchar_t* folder : {L"bin\\data", L"bin\\data\\policy", L"app", L"app\\bin", L"app\\DeviceControl",
                                  L"app\\DeviceControl\\bin"}) {
      CreateDirectoryW(dir_.File(folder).c_str(), nullptr);
    }
    SetDecryptionExecutablePathForTest(dir_.File(L"app\\DeviceControl\\bin\\korvaAgentService.exe"));
    for (const wchar_t* name : {L"qvconfig", L"korvaAgentTrayIcon"}) bin_.Add(name);
    ResetGrantStateForTest();
  }
  void TearDown() override {
    SetDecryptionExecutablePathForTest(L"");
    AgentTest::TearDown();
  }
  void PlaceLibrary(const wchar_t* source) const {
    const std::wstring library = dir_.File(L"app\\bin\\ClientAuthHandler.dll");
    DeleteFileW(library.c_str());
    ASSERT_TRUE(source == nullptr || CopyFileW((ProgramFolder() + L"\\" + source).c_str(), library.c_str(), FALSE));
  }
  std::wstring Policy(const wchar_t* name) const { return dir_.File(std::wstring(L"bin\\data\\policy\\") + name); }
  void Files(const std::optional<std::string>& ta, const std::optional<std::string>& tmp) const {
    for (const auto& [name, bytes] : {std::pair{L"ta.json", ta}, std::pair{L"ta.json_tmp", tmp}}) {
      DeleteFileW(Policy(name).c_str());
      if (bytes) WriteFileBytes(Policy(name), *bytes);
    }
  }
  // The service's start-up: its pass runs no configuration program; the revoke timer is armed after it.
  static void StartUpPass() {
    ArmTempAccessRevokeTimer("Test", ProcessandUpdateTemporaryAccess(true), LocalTimeInSeconds(DaylightBias::kAdded));
  }
  std::pair<long long, std::string> Pass(bool skipReconfiguration = false) {
    long long earliest = 0;
    const std::string log = LoggedBy([&] { earliest = ProcessandUpdateTemporaryAccess(skipReconfiguration); });
    return {earliest, log};
  }
  // The grant files written, a new revoke timer queue (or one the start-up could not make, owed to the
  // arming) and the pass that arms its timer; the log's size before it.
  std::size_t ArmRevokeTimer(const std::optional<std::string>& ta, const std::optional<std::string>& tmp,
                             bool queueOwed = false) {
    Files(ta, tmp);
    if (queueOwed) {
      OweRevokeTimerQueue();
    } else {
      EXPECT_TRUE(NewRevokeQueue());
    }
    const std::size_t mark = log_->Peek().size();
    ProcessGrantsAndArmRevokeTimer("Test");
    return mark;
  }
  [[nodiscard]] std::string Since(std::size_t mark) const { return log_->Peek().substr(mark); }
};

// The library is "..\..\bin" of the executable's folder, its imports from its own folder: never copies in the
// current directory or on PATH, nor a library named by an executable path that is not fully qualified.
TEST_F(GrantTest, DecryptionGivesTheTextOrAnEmptyTextAndItsReasonFromTheAgentsLibraryOnly) {
  for (const wchar_t* planted : {L"ClientAuthHandler.dll", L"korvaAuthKey.dll"}) {
    ASSERT_TRUE(CopyFileW((ProgramFolder() + L"\\" + planted).c_str(), dir_.File(planted).c_str(), FALSE));
  }
  const SearchedFolder searched(dir_.path());
  const FolderLink app(dir_.File(L"linked"), dir_.File(L"app"));
  ASSERT_TRUE(app.made());
  const std::string big(100000, 'g');
  const std::string small = "{\"ta\":[]}";
  const std::string unloaded = "Unable to load the decryption library [";
  const std::string notOwn = "] is not in a folder of the agent's own";
  const std::wstring usual = dir_.File(L"app\\DeviceControl\\bin\\korvaAgentService.exe");
  const std::wstring linked = dir_.File(L"linked\\DeviceControl\\bin\\korvaAgentService.exe");
  const std::string outside = win::WideToAnsi(dir_.File(L"app\\DeviceControl"));
  // Each case: the library copied in (null: none), whether korvaAuthKey.dll is beside it, the text and what comes
  // back, the reason (empty: deciphered), and the executable's path and AgentInstallDir when not the usual.
  const struct { const wchar_t* library; bool importBeside; std::string cipher, plain, reason;
                 const wchar_t* executable = nullptr; const char* installDir = nullptr; } cases[] = {
      {L"ClientAuthHandler.dll", false, ToyEncipher(small), small, ""},
      {L"ClientAuthHandler.dll", false, ToyEncipher(big), big, ""},
      {L"ClientAuthHandler.dll", false, "", "", ""},
      {L"ClientAuthHandler.dll", false, "zz", "", "The decryption library refused the text (result 0)."},
      {L"korvaStandIn.exe", false, "00", "", "has no GetDecryptedStrDll."},
      {nullptr, false, "00", "", unloaded},
      {L"ClientAuthHandlerImporting.dll", true, ToyEncipher(small), small, ""},
      {L"ClientAuthHandlerImporting.dll", false, ToyEncipher(small), "", unloaded},
      {L"ClientAuthHandlerImporting.dll", true, ToyEncipher(small), "", "] is not a full local path; not loaded.",
       L"app\\DeviceControl\\bin\\korvaAgentService.exe"},
      // "..\..\bin" that leads out of BasePath and AgentInstallDir (C:\bin for a service in C:\Agent\bin, a folder
      // any user may create) loads nothing; nor does a path through a link a user could re-point, though it
      // leads to the agent's own library.
      {L"ClientAuthHandlerImporting.dll", true, ToyEncipher("[]"), "", notOwn + "; not loaded.", nullptr,
       outside.c_str()},
      {L"ClientAuthHandlerImporting.dll", true, ToyEncipher(small), "", "linked\\bin\\ClientAuthHandler.dll" + notOwn,
       linked.c_str()}};
  std::wstring placed = L"?";  // Wine can keep the importing library mapped after a load: each is copied in once
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.library ? c.library : L"none") << " " << c.importBeside << " " << c.reason);
    if (placed != (c.library ? c.library : L"")) PlaceLibrary(c.library);
    placed = c.library ? c.library : L"";
    const std::wstring beside = dir_.File(L"app\\bin\\korvaAuthKey.dll");
    DeleteFileW(beside.c_str());
    EXPECT_TRUE(!c.importBeside || CopyFileW(dir_.File(L"korvaAuthKey.dll").c_str(), beside.c_str(), FALSE));
    SetDecryptionExecutablePathForTest(c.executable != nullptr ? c.executable : usual);
    AgentInstallDirGlobal = c.installDir != nullptr ? c.installDir : dir_.NarrowPath();
    std::string plain = "unset";
    const std::string log =
        LoggedBy([&] { EXPECT_EQ(ClientAuthHandlerUtil::aes256Decrypt(c.cipher, plain), c.reason.empty()); });
    EXPECT_EQ(plain, c.plain);
    EXPECT_NE(log.find(c.reason), std::string::npos) << log;
  }
}

// No second call goes into the library until the hung one has returned.
TEST_F(GrantTest, ALibraryThatDoesNotReturnFailsTheCallAtTheLimitAndServesAgainOnceItReturns) {
  PlaceLibrary(L"ClientAuthHandler.dll");
  SetDecryptionTimeLimitForTest(200);
  std::string plain;
  const std::string hung = LoggedBy([&] { EXPECT_FALSE(ClientAuthHandlerUtil::aes256Decrypt("wait3000", plain)); });
  EXPECT_NE(hung.find("The decryption library did not return within 200 ms; the text is not deciphered."),
            std::string::npos) << hung;
  const std::string busy =
      LoggedBy([&] { EXPECT_FALSE(ClientAuthHandlerUtil::aes256Decrypt(ToyEncipher("[]"), plain)); });
  EXPECT_NE(busy.find("has not returned from an earlier call"), std::string::npos) << busy;
  SetDecryptionTimeLimitForTest(0);
  EXPECT_TRUE(WaitUntil([&] { return ClientAuthHandlerUtil::aes256Decrypt(ToyEncipher("[]"), plain); }, 10000));
  EXPECT_EQ(plain, "[]");
}

constexpr long long kNone = std::numeric_limits<long long>::max();
constexpr char kName[] = "ProcessandUpdateTemporaryAccess";
// 2100-01-01: in force on any machine running these tests.
const std::string kFarGrant = R"([{"ta_id":1,"expiry_time":4102444800,"duration_to":4102444800}])";

// Not even the grant and policy files the current directory would resolve it to.
TEST_F(GrantTest, AnUnusableBasePathReadsNoGrantOrPolicyFile) {
  const TempDir current;
  for (const wchar_t* folder : {L"data", L"data\\policy"}) CreateDirectoryW(current.File(folder).c_str(), nullptr);
  WriteFileBytes(current.File(L"data\\policy\\ta.json_tmp"), kFarGrant);
  WriteFileBytes(current.File(L"data\\policy\\devicecontrol.json"), "{}");
  const SearchedFolder searched(current.path());
  for (const std::string base : {".", "data\\..", "C:"}) {
    SCOPED_TRACE(base);
    ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, base), 0);
    const std::string log = LoggedBy([] {
      EXPECT_EQ(ProcessandUpdateTemporaryAccess(true), kNone);
      EXPECT_EQ(CheckDeviceControlPolicyStatus(), 0);
    });
    EXPECT_NE(log.find("No grant file is read: the BasePath folder \"" + base + "\" is refused"), std::string::npos);
    EXPECT_NE(log.find("BasePath \"" + base + "\" is refused ("), std::string::npos);
  }
}

TEST_F(GrantTest, EachWayOfLoadingTheGrantsLogsItsOutcome) {
  // ta.json is enciphered, and with `taLocked` held open so that it cannot be read.
  const struct { const char* name; std::optional<std::string> ta, tmp; bool library, taLocked; long long earliest;
                 std::vector<LogLine> lines; } cases[] = {
      {"none", {}, {}, true, false, kNone, {{kName, "No file to process."}, {kName, "Cleaning up.", LogLine::kAbsent}}},
      {"plain", {}, kFarGrant, true, false, 4102444800,
       {{kName, "Temporary TA.json doesn't exist so loading the Plain Temporaray Access."},
        {kName, "Json from file : ", LogLine::kPrefix}, {kName, "Cleaning up."}}},
      {"plain truncated", {}, kFarGrant.substr(0, 30), true, false, kNone,
       {{kName, "Unable to load json from file [", LogLine::kPrefix}, {kName, "Cleaning up."}}},
      {"enciphered", kFarGrant, {}, true, false, 4102444800,
       {{kName, "Json from", LogLine::kAbsent}, {kName, "Cleaning up."}}},
      {"no library", kFarGrant, kFarGrant, false, false, kNone, {{kName, "Decrypted String is Empty."}}},
      {"not an array", {}, R"({"ta_id":1})", true, false, kNone,
       {{kName, "The grant document holds no array of grants."}}},
      {"not JSON", "[{\"ta_id\":", {}, true, false, kNone,
       {{kName, "Issue in Converting Decrypted String to JSON DO."}}},
      {"unreadable", "", kFarGrant, true, true, 4102444800,
       {{kName, "Issue in Loading TA.Json, So proceeding with ta.json_tmp file."},
        {kName, "Json from Temp TA file : ", LogLine::kPrefix}}},
      {"unreadable, no plain", "", {}, true, true, kNone,
       {{kName, "Issue in Loading TA.Json, So proceeding with ta.json_tmp file."},
        {kName, "Issue in loading Temp ta from file."}}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    bin_.ClearJournal();
    PlaceLibrary(c.library ? L"ClientAuthHandler.dll" : nullptr);
    Files(c.ta ? std::optional<std::string>(ToyEncipher(*c.ta)) : std::nullopt, c.tmp);
    const win::UniqueFileHandle lock(c.taLocked ? CreateFileW(Policy(L"ta.json").c_str(), GENERIC_READ, 0, nullptr,
                                                              OPEN_EXISTING, 0, nullptr) : INVALID_HANDLE_VALUE);
    ASSERT_EQ(static_cast<bool>(lock), c.taLocked);
    const auto [earliest, log] = Pass();
    EXPECT_EQ(earliest, c.earliest);
    EXPECT_LOG_ORDER(log, c.lines);
    const bool found = c.ta || c.tmp;  // the configuration program re-applies policy after a pass that found a file
    EXPECT_EQ(LinesOf("qvconfig", found ? 1 : 0), found ? Lines{"40 0 3"} : Lines{});
  }
}

std::string Grant(const std::string& id, const std::string& expiry, int revoked, const std::string& rest) {
  return std::string("{\"ta_id\":") + id + ",\"policy_name\":\"p\",\"expiry_time\":" + expiry +
         ",\"revoked\":" + std::to_string(revoked) + "," + rest + "}";
}
// A validity period that has begun and ends at `to`.
std::string Period(const std::string& to) { return R"("duration_type":0,"duration_from":9,"duration_to":)" + to; }
const std::string kOpen = Period("4102444800");
// The local time `seconds` from now, as a grant's times are written.
std::string InSeconds(long long seconds) { return std::to_string(LocalTimeInSeconds(DaylightBias::kAdded) + seconds); }

// Grants ended by expiry, revocation, a registry period over or absent, or members read as 0 are
// announced once in the tray; the earliest expiry in force comes back (wrong-typed periods read 0).
TEST_F(GrantTest, GrantsInForceGiveTheEarliestExpiryAndEndedOnesAreAnnouncedOnce) {
  const std::string key = std::string(kAgentKey) + "\\QVM\\TemporaryAccess\\6";
  SetRawValue(key, "duration_from", REG_SZ, std::string("5\0", 2));
  SetDword(key, "duration_to", 0xFFFFFFFF);
  Files({}, "[" + Grant("1", "4102444800", 0, kOpen) + "," + Grant("2", "4000000000", 0, kOpen) + "," +
                Grant("3", "8", 0, kOpen) + "," + Grant("-4", "9223372036854775807", 1, kOpen) + "," +
                Grant("-9223372036854775808", "0", 0, R"("duration_type":1)") + "," +
                Grant("6", "9223372036854775807", 0, R"("duration_type":1)") + "," +
                R"({"ta_id":18446744073709551615,"policy_name":7,"revoked":"1","expiry_time":1.5}, 42])");
  // The tray program shows in the session of winlogon.exe; before there is one, the ended grants
  // stay unannounced and the next pass tells of them.
  auto [earliest, log] = Pass(true);
  EXPECT_LOG_LINES(log, {{"ExecuteAgentTrayIcon_TA", "Return Value [1008] with Remarks :", LogLine::kPrefix}});
  RunningProgram winlogon(bin_.Add(L"winlogon", 0, 120000));
  std::tie(earliest, log) = Pass();
  const std::string reconfigured = log;  // holds the configuration program's start, shown if its line never comes
  EXPECT_EQ(earliest, 4000000000);
  EXPECT_EQ(CountOf(log, "Going to remove the old temp access."), 4u);
  const std::string tray = Quoted(Install() + "bin\\korvaAgentTrayIcon.exe") + " -ta 4";
  const std::string ignored = " is missing or of the wrong type; taken as 0.";
  EXPECT_LOG_LINES(log, {{kName, "Grant [6] policy [p] expiry [" + std::to_string(kNone) + "] period [0 - 4294967295]"
                                 " revoked [0]"},
                         {kName, "Grant 6: member ta_id" + ignored}, {kName, "Grant 6: member duration_to" + ignored},
                         {kName, "Skipped 1 grant entries that are not objects."},
                         {"ExecuteAgentTrayIcon_TA", "Command to execute [" + tray + "] at path[" + Install() + "bin]"},
                         {"ExecuteAgentTrayIcon_TA", "Return Value [0] with Remarks :", LogLine::kPrefix}});
  EXPECT_EQ(LinesOf("korvaAgentTrayIcon", 1), Lines{tray});

  std::tie(earliest, log) = Pass(true);
  EXPECT_EQ(earliest, 4000000000);
  EXPECT_FALSE(HasLogLine(log, "ExecuteAgentTrayIcon_TA", "@@@ Inside ExecuteAgentTrayIcon_TA @@@"));
  // A grant in force without an expiry of its own makes 0 the earliest expiry.
  Files({}, "[" + Grant("1", "0", 0, kOpen) + "]");
  EXPECT_EQ(Pass(true).first, 0);
  EXPECT_EQ(LinesOf("qvconfig", 1).size(), 1u) << reconfigured;  // started, not waited for: its line may come late
  EXPECT_EQ(LinesOf("korvaAgentTrayIcon").size(), 1u);
}

// The timer wakes, once, when the first grant in force ends, and the pass it runs ends that one: the
// expiry of a timed grant beside one without an expiry (armed for 0, the timer would be up to 49
// days late wrapped around, or due at once again and again), or the end of a validity period that
// comes before the grant's expiry, or of a grant without one.
TEST_F(GrantTest, TheRevokeTimerWakesWhenTheFirstGrantInForceEnds) {
  // The queue the start-up could not make is made by the next arming, or by the pass that comes for it.
  enum class Queue { kMade, kOwedToTheArming, kOwedToItsPass };
  const struct { const char* name; std::function<std::string()> grants; Queue queue = Queue::kMade; } cases[] = {
      {"timed beside none", [] { return Grant("1", "0", 0, kOpen) + "," + Grant("2", InSeconds(3), 0, kOpen); }},
      {"period before expiry", [] { return Grant("1", "4102444800", 0, Period(InSeconds(3))); }},
      {"period without expiry", [] { return Grant("1", "0", 0, Period(InSeconds(3))); }},
      {"queue the start-up could not make", [] { return Grant("1", InSeconds(3), 0, kOpen); }, Queue::kOwedToTheArming},
      {"nor anything arm after", [] { return Grant("1", InSeconds(3), 0, kOpen); }, Queue::kOwedToItsPass}};
  const std::string created = "hTempAccessRevokeTimerQueue is created now; the start-up could not create it.";
  SetOwedQueuePassDelayForTest(300);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::size_t mark = log_->Peek().size();
    if (c.queue == Queue::kOwedToItsPass) {
      Files({}, "[" + c.grants() + "]");
      OweRevokeTimerQueue();
      EXPECT_TRUE(WaitUntil([&] { return CountOf(Since(mark), created) > 0; }, 10000));
    } else {
      mark = ArmRevokeTimer({}, "[" + c.grants() + "]", c.queue == Queue::kOwedToTheArming);
    }
    const char* const maker = c.queue == Queue::kOwedToItsPass ? "TempAccessRevokeTimerRoutine" : "Test";
    EXPECT_EQ(HasLogLine(Since(mark), maker, created), c.queue != Queue::kMade);
    EXPECT_TRUE(WaitUntil([&] { return CountOf(Since(mark), "Going to remove the old temp access.") > 0; }, 15000));
    ASSERT_TRUE(DeleteRevokeQueue());
    // The first pass and the timer's (two if the timer fired a moment before the second changed).
    EXPECT_LE(CountOf(Since(mark), "Cleaning up."), 3u);
  }
  SetOwedQueuePassDelayForTest(0);
}

// A pass that cannot read the grants (a damaged file, or one that holds no array; a BasePath no
// longer usable, so nothing is read) says nothing of them: the revoke decided before stays due. Once it has come, the timer looks
// once promptly, then once a minute: never a pass and a configuration program every second.
TEST_F(GrantTest, APassThatCannotReadTheGrantsKeepsThePendingRevokeAndThenLooksOncePromptlyThenEveryMinute) {
  // The timer's own prompt look; the settings change's line may also read 1000 ms when the pending
  // revoke happens to be that far off.
  const std::string prompt = "] [ TempAccessRevokeTimerRoutine ] The grant files could not be read; the revoke timer "
                             "looks again in 1000 ms.";
  enum class Fault { kDamagedFile, kNoArray, kUnusableBase, kLinkedPolicyFolder };
  for (const Fault fault : {Fault::kDamagedFile, Fault::kNoArray, Fault::kUnusableBase, Fault::kLinkedPolicyFolder}) {
    SCOPED_TRACE(static_cast<int>(fault));
    ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, win::WideToAnsi(bin_.folder())), 0);
    const std::string grants = "[" + Grant("1", InSeconds(2), 0, kOpen) + "]";
    const std::size_t mark = ArmRevokeTimer({}, grants);
    const TempDir elsewhere;  // what a user's link in the policy folder's place leads to: the same grants
    std::optional<FolderLink> link;
    if (fault == Fault::kUnusableBase) {
      ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, "."), 0);
    } else if (fault != Fault::kLinkedPolicyFolder) {
      Files({}, fault == Fault::kDamagedFile ? R"([{"ta_id":)" : R"({"ta_id":1})");
    } else {
      WriteFileBytes(elsewhere.File(L"ta.json_tmp"), grants);
      Files({}, {});
      const std::wstring policyFolder = dir_.File(L"bin\\data\\policy");
      ASSERT_TRUE(RemoveDirectoryW(policyFolder.c_str()));
      link.emplace(policyFolder, elsewhere.path());
      ASSERT_TRUE(link->made());
      WriteFileBytes(elsewhere.File(L"devicecontrol.json"), "{}");
      EXPECT_EQ(CheckDeviceControlPolicyStatus(), 0);  // nor is a policy seen through it
    }
    ProcessGrantsAndArmRevokeTimer("Test");  // a settings change, 2 s before the revoke
    EXPECT_TRUE(WaitUntil([&] { return CountOf(Since(mark), "looks again in 60000 ms.") > 0; }, 20000)) << Since(mark);
    ASSERT_TRUE(DeleteRevokeQueue());
    const std::string log = Since(mark);
    const std::size_t kept = log.find("The grant files could not be read; the revoke timer looks again in ");
    ASSERT_NE(kept, std::string::npos);
    EXPECT_LE(std::stoul(log.substr(kept + 67)), 2000u) << "the settings change's pass dropped the revoke";
    EXPECT_EQ(CountOf(log, prompt), 1u);
    EXPECT_LE(CountOf(log, "@@@ Inside TempAccessRevokeTimerRoutine @@@"), 3u);
  }
}

// The plain file read in place of an enciphered one that is held may be older than the grants in
// force: the revoke they decided still comes, and the configuration program runs for it.
TEST_F(GrantTest, APassThatReadsOnlyAnOlderFileCanBringTheRevokeNearerButNeverPutItOff) {
  PlaceLibrary(L"ClientAuthHandler.dll");
  ArmRevokeTimer(ToyEncipher("[" + Grant("1", InSeconds(3), 0, kOpen) + "]"), "[]");
  const win::UniqueFileHandle held(
      CreateFileW(Policy(L"ta.json").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(held);
  const std::string log = LoggedBy([&] { ProcessGrantsAndArmRevokeTimer("Test"); });  // a settings change
  const std::string kept = "[ Test ] Only part of the grants could be read; the revoke timer is due in ";
  ASSERT_NE(log.find(kept), std::string::npos) << log;
  EXPECT_LE(std::stoul(log.substr(log.find(kept) + kept.size())), 3000u) << "the stale file put the revoke off";
  EXPECT_EQ(LinesOf("qvconfig", 3).size(), 3u) << "no pass when the revoke came";
}

// A revoke whose configuration program did not start is still owed, in this run of the service and
// the next: the timer comes back for it (within a minute, then at once after a restart), the tray
// does not tell of the ended grant meanwhile, and the first start that succeeds settles it.
TEST_F(GrantTest, ARevokeWhoseConfigurationProgramDidNotStartIsOwedUntilItStartsEvenAcrossARestart) {
  const RunningProgram winlogon(bin_.Add(L"winlogon", 0, 120000));  // a session for the tray
  const std::string retry = "The configuration program owes a run; the revoke timer tries again in ";
  ASSERT_TRUE(DeleteFileW((bin_.folder() + L"\\qvconfig.exe").c_str()));
  EXPECT_LOG_LINES(Since(ArmRevokeTimer({}, "[" + Grant("1", "8", 0, kOpen) + "]")),  // an ended grant
                   {{"Test", retry + "60000 ms."}, {"ExecuteAgentTrayIcon_TA", "Return Value [", LogLine::kAbsent}});
  EXPECT_EQ(ReadNumber(kAgentKey, "TempAccessReapplyOwed"), 1u);
  // Deleted while owed, the value is written again at the next failed try.
  ASSERT_EQ(RegDeleteValueA(AgentKey(kAgentKey).get(), "TempAccessReapplyOwed"), ERROR_SUCCESS);
  ProcessGrantsAndArmRevokeTimer("Test");
  EXPECT_EQ(ReadNumber(kAgentKey, "TempAccessReapplyOwed"), 1u);
  // Started again with BasePath refused: the run cannot even be tried, and that counts as a failure.
  ResetGrantStateForTest();
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, "."), 0);
  EXPECT_LOG_LINES(LoggedBy([&] { ProcessGrantsAndArmRevokeTimer("Test"); }), {{"Test", retry + "60000 ms."}});
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, win::WideToAnsi(bin_.folder())), 0);
  bin_.Add(L"qvconfig");
  ResetGrantStateForTest();  // the service starts again
  EXPECT_LOG_LINES(LoggedBy(StartUpPass),
                   {{kName, "A revoke of an earlier run of the service is owed; the configuration program runs soon."},
                    {"Test", retry + "1000 ms."}});
  EXPECT_EQ(LinesOf("qvconfig", 1), Lines{"40 0 3"});  // the timer's pass
  EXPECT_TRUE(WaitUntil([] { return ReadNumber(kAgentKey, "TempAccessReapplyOwed") == 0u; }, 10000));
  ASSERT_TRUE(DeleteRevokeQueue());
  EXPECT_EQ(CountOf(log_->Peek(), retry), 4u) << "the settled run is not tried again";
}

// A grant in force when the last run read the grants that has since ended (its time came, or it was
// revoked or taken out of the file while the service was stopped) is revoked soon after the next
// start, though the start-up's own pass runs no configuration program; the tray tells of it only
// then. So is the access of grants whose files went. Nothing ended: the start runs nothing.
TEST_F(GrantTest, AGrantThatEndedWhileTheServiceWasStoppedIsRevokedSoonAfterTheNextStart) {
  const RunningProgram winlogon(bin_.Add(L"winlogon", 0, 120000));  // a session for the tray
  const std::string owed = "A grant in force when the service last read the grants has ended or gone since; "
                           "the configuration program runs soon.";
  const std::string second = Grant("2", "4102444800", 0, kOpen);
  const struct { const char* name; std::optional<std::string> file; bool revoked, told; } cases[] = {
      {"expired", "[" + Grant("1", "8", 0, kOpen) + "," + second + "]", true, true},
      {"revoked", "[" + Grant("1", "4102444800", 1, kOpen) + "," + second + "]", true, true},
      {"taken out", "[" + second + "]", true, false},
      {"nothing ended", "[" + Grant("1", "4102444800", 0, kOpen) + "," + second + "]", false, false},
      {"files removed", std::nullopt, true, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Files({}, "[" + Grant("1", "4102444800", 0, kOpen) + "," + Grant("2", "4102444800", 0, kOpen) + "]");
    ProcessGrantsAndArmRevokeTimer("Test");  // the last run's pass: 1 and 2 in force
    ASSERT_EQ(LinesOf("qvconfig", 1).size(), 1u);
    Files({}, c.file);
    ResetGrantStateForTest();  // the service starts again
    ASSERT_TRUE(NewRevokeQueue());
    const std::string start = LoggedBy(StartUpPass);
    EXPECT_EQ(HasLogLine(start, kName, owed), c.revoked);
    EXPECT_FALSE(HasLogLine(start, "ExecuteAgentTrayIcon_TA", "@@@ Inside ExecuteAgentTrayIcon_TA @@@"));
    if (c.revoked) {
      EXPECT_EQ(LinesOf("qvconfig", 2).size(), 2u) << "the timer's pass, a second after the start";
    }
    if (c.told) {
      EXPECT_EQ(LinesOf("korvaAgentTrayIcon", 1), Lines{Quoted(Install() + "bin\\korvaAgentTrayIcon.exe") + " -ta 1"});
    }
    ASSERT_TRUE(DeleteRevokeQueue());
    if (!c.revoked) {
      EXPECT_EQ(LinesOf("qvconfig").size(), 1u);
    }
    bin_.ClearJournal();
  }
}

// A configuration program still running from the pass before is never joined by a second one: the
// new pass's run stays owed, and is made once the first has ended, or been ended at its limit.
TEST_F(GrantTest, AConfigurationProgramStillRunningIsNotJoinedByAnother) {
  bin_.Add(L"qvconfig", 0, 60000);
  ArmRevokeTimer({}, "[" + Grant("1", "4102444800", 0, kOpen) + "]");
  ASSERT_EQ(LinesOf("qvconfig", 1).size(), 1u);
  EXPECT_LOG_LINES(LoggedBy([] { ProcessGrantsAndArmRevokeTimer("Test"); }),
                   {{kName, "The configuration program started before is still running; no second one is started, and "
                            "its run is owed."},
                    {"Test", "The configuration program owes a run; the revoke timer tries again in 60000 ms."}});
  EXPECT_EQ(ReadNumber(kAgentKey, "TempAccessReapplyOwed"), 1u);
  SetConfigurationRunLimitForTest(0);
  bin_.Add(L"qvconfig");
  EXPECT_EQ(CountOf(LoggedBy([] { ProcessGrantsAndArmRevokeTimer("Test"); }),
                    " s ago has not ended; it is ended, and a new one started."),
            1u);
  EXPECT_EQ(LinesOf("qvconfig", 2).size(), 2u);
  EXPECT_TRUE(WaitUntil([] { return ProcessesNamed(L"qvconfig.exe").empty(); }, 10000));
  EXPECT_EQ(ReadNumber(kAgentKey, "TempAccessReapplyOwed"), 0u);
}

}  // namespace
}  // namespace korva::test
