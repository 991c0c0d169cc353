// Temporary device-access grants: reading them, deciding which are over, re-applying policy,
// telling the user, and the one-shot timer that wakes the service at the next expiry.
#include "tempaccess/temporary_access.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "process/launch_gate.h"
#include "process/launcher.h"
#include "settings/agent_parameters.h"
#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/machine_details.h"
#include "settings/rapidjson_class.h"
#include "settings/registry.h"
#include "shared/agent_environment.h"
#include "shared/core/policy_paths.h"
#include "shared/one_shot_timer.h"
#include "shared/path_links.h"
#include "shared/service_state.h"
#include "tempaccess/core/grants.h"
#include "tempaccess/decryption.h"
#include "win/strings.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace {

namespace ta = korva::tempaccess;

constexpr const char* kName = "ProcessandUpdateTemporaryAccess";
constexpr const char* kTimerName = "TempAccessRevokeTimerRoutine";
constexpr const char* kTrayName = "ExecuteAgentTrayIcon_TA";

// One pass at a time: the start-up, the revoke timer and the settings reaction all run passes. The
// timer and the reaction hold it from their pass to the timer armed for its result, so a pass that
// ends later never arms over a newer one's result (recursive: the pass takes it too).
std::recursive_mutex g_passMutex;
// Ids of the ended grants the tray was told about since the service started.
std::set<long long> g_announced;
// How far the last pass read the grants.
enum class Reading {
  kWhole,       // the grant file as it is (or no grant file at all)
  kPartial,     // the grant file as it is, but entries that are no grants or grants past the cap
  kOlder,       // the plain file, read in place of an enciphered one that could not be read
  kUnreadable,  // grant files it could not read, or was not allowed to (an unusable BasePath)
};
// Only a whole reading decides the pending revoke. After an unreadable one the pending revoke
// stays as it was; after a partial or older one it may come sooner, never later.
std::atomic<Reading> g_lastPassReading{Reading::kWhole};
// Set when a pass's configuration program did not start (a refused folder, a missing or held
// program, a shutdown under way): the revoke it was to apply is still owed, and the timer comes back
// for it (tempaccess::ReapplyRetryMs). Kept in the agent's key, so a run owed when the service
// stopped or the machine shut down is made after the next start. Cleared by the next start that
// succeeds. Touched under g_passMutex only.
bool g_reapplyOwed = false;
unsigned g_reapplyFailures = 0;  // failed starts in a row in this run of the service
bool g_reapplyOwedLoaded = false;
bool g_reapplyOwedStored = false;  // whether the registry holds this run's state (a damaged value does not)
constexpr char kReapplyOwedValue[] = "TempAccessReapplyOwed";  // REG_DWORD under the agent's key
// The ids of the grants in force at the last whole reading, kept in the agent's key
// (tempaccess::GrantIdsBytes). A start's pass, which runs no configuration program, that finds one
// of them ended or gone owes the run no pass made for it: the service was stopped, or the machine
// off, when it fell due, or a stop cut its pass short. Touched under g_passMutex only.
std::vector<long long> g_storedInForce;
bool g_storedInForceLoaded = false;
bool g_storedInForceDamaged = false;  // written anew at the next whole reading, whatever it holds
constexpr char kGrantsInForceValue[] = "TempAccessGrantsInForce";  // REG_BINARY under the agent's key
// The configuration program the last pass started, while it may still run: a pass never starts a
// second one beside it (a slow or hanging one would otherwise be joined by another at each retry).
korva::win::UniqueHandle g_configurationRun;
ULONGLONG g_configurationRunStarted = 0;  // RunClockMs() at its start
// How long a pass waits for the run before it to end before it leaves its own run owed.
constexpr DWORD kConfigurationRunWaitMs = 2000;
// A run still going after this long hangs: it is ended, so that the runs owed after it are made.
constexpr ULONGLONG kConfigurationRunLimitMs = 10ULL * 60000;
std::atomic<ULONGLONG> g_configurationRunLimitMs{kConfigurationRunLimitMs};
// The last pass's earliest expiry among the grants in force that have one of their own, and the
// earliest end of their validity periods.
std::atomic<long long> g_lastPassTimedExpiry{ta::kNoGrantInForce};
std::atomic<long long> g_lastPassPeriodEnd{ta::kNoGrantInForce};
// GetTickCount64() at which the revoke decided by the last pass that read the grants is due; 0 when
// none is pending. Passes that cannot read them keep it, and never put their retries in its place.
std::atomic<ULONGLONG> g_pendingRevokeTick{0};

// Set when the start-up could not make the revoke timer queue; the next arming makes it.
std::atomic<bool> g_revokeQueueOwed{false};
// While the queue is owed, a pass comes this long after the start-up's failure (and again after
// each pass that could not make it either), on the process's default timer queue, which needs
// nothing made: the start-up skips its own pass then, and without this a grant in force would run
// past its end until a settings change armed the timer.
constexpr DWORD kOwedQueuePassMs = 60000;
std::atomic<DWORD> g_owedQueuePassMs{kOwedQueuePassMs};
HANDLE g_owedQueuePass = nullptr;  // that pass's one-shot timer; guarded by g_passMutex

// With the pass lock held. The queue is published whole: the restore cycle reads it from its own
// thread.
void MakeOwedRevokeTimerQueue(const char* function) {
  const HANDLE queue = CreateTimerQueue();
  if (queue == nullptr) {
    korva::LogLastError(function, "CreateTimerQueue for hTempAccessRevokeTimerQueue is failed due to following error.");
    return;
  }
  (void)InterlockedExchangePointer(&TempAccessRevokeTimerQueue, queue);
  g_revokeQueueOwed.store(false);
  // The owed queue's pass is done with: its timer goes, without a wait, as this may be its own pass.
  if (g_owedQueuePass != nullptr)
    (void)DeleteTimerQueueTimer(nullptr, std::exchange(g_owedQueuePass, nullptr), nullptr);
  KLOG_INFO_AS(function) << "hTempAccessRevokeTimerQueue is created now; the start-up could not create it.";
}

// ExecuteAgentTrayIcon_TA with the launcher's result: 0 once the tray program has started.
DWORD StartTrayNotice(int number);

void ScheduleOwedQueuePass();

// The pass for the owed queue: its arming makes the queue. Nothing to do once another arming made it.
VOID CALLBACK OwedQueuePassRoutine(PVOID /*parameter*/, BOOLEAN /*timerFired*/) {
  korva::log::GuardedVoid(kTimerName, [] {
    if (!g_revokeQueueOwed.load()) return;
    korva::ProcessGrantsAndArmRevokeTimer(kTimerName);
    if (g_revokeQueueOwed.load()) ScheduleOwedQueuePass();
  });
}

// Sets the owed queue's pass (see g_owedQueuePassMs), in place of one that has run.
void ScheduleOwedQueuePass() {
  const std::lock_guard<std::recursive_mutex> lock(g_passMutex);
  // A timer that has run, or this very one (its callback then ends the deletion): no wait.
  if (g_owedQueuePass != nullptr)
    (void)DeleteTimerQueueTimer(nullptr, std::exchange(g_owedQueuePass, nullptr), nullptr);
  if (!CreateTimerQueueTimer(&g_owedQueuePass, nullptr, &OwedQueuePassRoutine, nullptr, g_owedQueuePassMs.load(), 0,
                             WT_EXECUTEONLYONCE)) {
    g_owedQueuePass = nullptr;
    korva::LogLastError(
        kTimerName, "The pass that makes the revoke timer queue could not be set; the next settings change makes it.");
  }
}

bool FileExists(const std::string& path) {
  const DWORD attributes = GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

void LogDocument(const char* heading, const rapidjson::Document& document) {
  // A whole grant file as text costs its size again: made only when the line is written.
  if (!korva::log::Enabled(korva::log::kDebug)) return;
  std::string text;
  (void)CRapidJSONClass::JsonDomToString(document, text);  // a failure leaves the text empty
  KLOG_DEBUG_AS(kName) << heading << text;
}

// The plain grant file into `document`; false (logged with `failureText`) when it cannot be loaded.
bool LoadPlain(const std::string& path, rapidjson::Document& document, const char* heading) {
  if (!CRapidJSONClass::LoadJsonFromFile(korva::win::AnsiToWide(path), document)) return false;
  LogDocument(heading, document);
  return true;
}

// kNone when there is no grant file at all; kFallback when the plain file was read in place of an
// enciphered one that could not be; kUnreadable when a file is there but gave no document.
enum class GrantFiles { kNone, kLoaded, kFallback, kUnreadable };

// The enciphered grant file, deciphered and parsed into `document`. A file that cannot be read
// sends the pass to the plain file instead. The log texts here and in LoadGrantDocument are the
// system's own, their capitals and typos included.
GrantFiles LoadEnciphered(const std::string& path, const std::string& plainPath, rapidjson::Document& document) {
  std::string cipher;
  if (CRapidJSONClass::FileToString(korva::win::AnsiToWide(path), cipher) != 0) {
    KLOG_ERROR_AS(kName) << "Issue in Loading TA.Json, So proceeding with ta.json_tmp file.";
    if (!LoadPlain(plainPath, document, "Json from Temp TA file : \n")) {
      KLOG_ERROR_AS(kName) << "Issue in loading Temp ta from file.";
      return GrantFiles::kUnreadable;
    }
    return GrantFiles::kFallback;
  }
  std::string plain;
  (void)AgentUtil::ClientAuthHandlerUtil::aes256Decrypt(cipher, plain);
  if (plain.empty()) {
    KLOG_ERROR_AS(kName) << "Decrypted String is Empty.";
    return GrantFiles::kUnreadable;
  }
  if (!CRapidJSONClass::StringToJsonDom(plain, document)) {
    KLOG_ERROR_AS(kName) << "Issue in Converting Decrypted String to JSON DO.";
    return GrantFiles::kUnreadable;
  }
  return GrantFiles::kLoaded;
}

GrantFiles LoadGrantDocument(const std::string& base, rapidjson::Document& document) {
  const std::string path = korva::PolicyFilePath(base, korva::kGrantPolicyFile);
  const std::string plainPath = korva::PolicyFilePath(base, korva::kPlainGrantPolicyFile);
  // Grants read through a user's link would be that user's: the pass counts as one that could not
  // read them, so a pending revoke stays.
  for (const std::string* file : {&path, &plainPath}) {
    if (!korva::NoUnsafeStepOn(kName, *file, "The grant file", "the grants are not read")) {
      return GrantFiles::kUnreadable;
    }
  }
  if (FileExists(path)) return LoadEnciphered(path, plainPath, document);
  if (FileExists(plainPath)) {
    // "Temporaray" is the system's own spelling.
    KLOG_INFO_AS(kName) << "Temporary TA.json doesn't exist so loading the Plain Temporaray Access.";
    if (!LoadPlain(plainPath, document, "Json from file : \n")) {
      KLOG_ERROR_AS(kName) << "Unable to load json from file [" << plainPath << "].";
      return GrantFiles::kUnreadable;
    }
    return GrantFiles::kLoaded;
  }
  KLOG_INFO_AS(kName) << "No file to process.";
  return GrantFiles::kNone;
}

// The grant's validity period from its registry subkey; a value that is absent counts as 0 (one
// of another type is logged by the registry layer and counts as 0 too).
ta::Period RegistryPeriod(long long id) {
  const std::string key = ta::GrantKeyPath(id);
  DWORD from = 0;
  DWORD to = 0;
  if (ReadDwordRegValue(key, "duration_from", from) != ERROR_SUCCESS) from = 0;
  if (ReadDwordRegValue(key, "duration_to", to) != ERROR_SUCCESS) to = 0;
  return {static_cast<long long>(from), static_cast<long long>(to)};
}

constexpr std::size_t kShownNameChars = 256;

// The grant's line, and for the first kGrantsWithProblemLines grants a line per member problem
// (the caller counts the later ones).
void LogGrant(std::size_t index, const ta::Grant& grant, ta::Period period) {
  const bool listProblems = index < ta::kGrantsWithProblemLines;
  for (std::size_t i = 0; listProblems && i < grant.problems.size(); ++i) {
    KLOG_WARNING_AS(kName) << "Grant " << index << ": member " << grant.problems[i]
                           << " is missing or of the wrong type; taken as 0.";
  }
  // The policy's name is the grant file's text: no line break of its own, and a bounded length.
  const std::string policy =
      korva::folders::PrintableText(std::string_view(grant.policyName).substr(0, kShownNameChars));
  KLOG_INFO_AS(kName) << "Grant [" << grant.id << "] policy [" << policy << "] expiry [" << grant.expiryTime
                      << "] period [" << period.from << " - " << period.to << "] revoked [" << grant.revoked << "]";
}

struct PassResult {
  std::vector<long long> inForce;  // the ids of the grants in force, sorted
  long long earliest = ta::kNoGrantInForce;
  long long earliestTimed = ta::kNoGrantInForce;  // among those with an expiry of their own
  long long earliestPeriodEnd = ta::kNoGrantInForce;
  std::vector<long long> newlyOver;  // ended grants not announced yet
  bool noArray = false;              // a document that holds no array: a damaged file, not "no grants"
  bool partial = false;              // entries that are no grants, or grants past the cap
};

// `currentFile`: the document is the grant file as it is now, so the ended grants announced that
// are no longer in it are forgotten (the set never outgrows the file). A document read in place of
// it, or none, forgets nothing: the next reading of the file does not tell of them again.
PassResult EvaluateGrants(const rapidjson::Document& document, long long now, bool currentFile) {
  const ta::GrantList list = ta::ReadGrants(document);
  if (list.notAnArray && !document.IsNull()) KLOG_WARNING_AS(kName) << "The grant document holds no array of grants.";
  if (list.skipped > 0) KLOG_WARNING_AS(kName) << "Skipped " << list.skipped << " grant entries that are not objects.";
  if (list.beyondCap > 0) {
    KLOG_WARNING_AS(kName) << "Only the first " << ta::kMaxGrantsPerFile << " grants are processed; " << list.beyondCap
                           << " more are not.";
  }
  PassResult result;
  result.noArray = list.notAnArray;
  result.partial = list.skipped > 0 || list.beyondCap > 0;
  std::size_t unlistedProblems = 0;
  for (std::size_t i = 0; i < list.grants.size(); ++i) {
    const ta::Grant& grant = list.grants[i];
    if (i >= ta::kGrantsWithProblemLines) unlistedProblems += grant.problems.size();
    const ta::Period period =
        ta::PeriodFromRegistry(grant) ? RegistryPeriod(grant.id) : ta::Period{grant.durationFrom, grant.durationTo};
    LogGrant(i, grant, period);
    if (ta::IsOver(grant, period, now)) {
      KLOG_INFO_AS(kName) << "Going to remove the old temp access.";
      if (g_announced.count(grant.id) == 0) result.newlyOver.push_back(grant.id);
    } else {
      result.inForce.push_back(grant.id);
      result.earliest = ta::EarliestExpiry(result.earliest, grant);
      result.earliestTimed = ta::EarliestTimedExpiry(result.earliestTimed, grant);
      result.earliestPeriodEnd = std::min(result.earliestPeriodEnd, ta::PeriodEnd(period));
    }
  }
  if (unlistedProblems > 0) {
    KLOG_WARNING_AS(kName) << unlistedProblems << " more member problems in grants after the first "
                           << ta::kGrantsWithProblemLines << " are not listed; each was taken as 0.";
  }
  result.inForce = ta::SortedUniqueIds(std::move(result.inForce));
  if (!currentFile || list.notAnArray) return result;
  std::set<long long> inFile;
  for (const ta::Grant& grant : list.grants) inFile.insert(grant.id);
  for (auto it = g_announced.begin(); it != g_announced.end();)
    it = inFile.count(*it) != 0 ? std::next(it) : g_announced.erase(it);
  return result;
}

Reading ReadingOf(GrantFiles files, const PassResult& pass) {
  if (files == GrantFiles::kUnreadable || pass.noArray) return Reading::kUnreadable;
  if (files == GrantFiles::kFallback) return Reading::kOlder;
  return pass.partial ? Reading::kPartial : Reading::kWhole;
}

// Milliseconds of the machine running, sleep and hibernation left out: a run started just before
// the machine slept has not run the time it slept.
ULONGLONG RunClockMs() {
  ULONGLONG units = 0;  // of 100 ns
  (void)QueryUnbiasedInterruptTime(&units);
  return units / 10000;
}

// False while the configuration program the last pass started is still running after a short wait:
// the policy it read may predate this pass, so this pass's run stays owed and is made once it ends.
// One that has run past its limit is ended first.
bool LastConfigurationRunEnded() {
  if (!g_configurationRun) return true;
  if (WaitForSingleObject(g_configurationRun.get(), kConfigurationRunWaitMs) == WAIT_TIMEOUT) {
    const ULONGLONG ranMs = RunClockMs() - g_configurationRunStarted;
    if (ranMs < g_configurationRunLimitMs.load()) {
      KLOG_WARNING_AS(kName) << "The configuration program started before is still running; no second one is "
                                "started, and its run is owed.";
      return false;
    }
    KLOG_WARNING_AS(kName) << "The configuration program started " << ranMs / 1000
                           << " s ago has not ended; it is ended, and a new one started.";
    // One that cannot be ended (stuck while ending) is let go: it holds back no run after it.
    if (!TerminateProcess(g_configurationRun.get(), ERROR_TIMEOUT)) {
      korva::LogLastError(kName, "The configuration program could not be ended.");
    } else {
      (void)WaitForSingleObject(g_configurationRun.get(), kConfigurationRunWaitMs);
    }
  }
  g_configurationRun.reset();
  return true;
}

// Starts the configuration program; true once it has started. Not waited for; the launcher logs
// whether it started.
bool StartConfigurationProgram(const korva::AgentFolder& base) {
  if (!korva::process::FolderAllowsStart(kName, "qvconfig.exe", base)) return false;
  if (!LastConfigurationRunEnded()) return false;
  const std::string program = base.path + "\\qvconfig.exe";
  g_configurationRunStarted = RunClockMs();
  return korva::process::StartApplicationKeepingProcess(program.c_str(), base.path.c_str(), ta::kReapplyPolicyArguments,
                                                        g_configurationRun) == ERROR_SUCCESS;
}

// The first pass of the service's run learns whether an earlier run left a configuration run owed.
void LoadReapplyOwed() {
  if (std::exchange(g_reapplyOwedLoaded, true)) return;
  DWORD owed = 0;
  const LONG code = ReadDwordRegValue(korva::kAgentRegistryKey, kReapplyOwedValue, owed);
  // A value that is there but not a DWORD may have been one that said "owed": the run is made (a
  // run too many costs one start of the configuration program), and the value written anew.
  g_reapplyOwed = code == ERROR_SUCCESS ? owed != 0 : code != ERROR_FILE_NOT_FOUND;
  g_reapplyOwedStored = code == ERROR_SUCCESS || code == ERROR_FILE_NOT_FOUND;
  if (g_reapplyOwed) {
    KLOG_WARNING_AS(kName) << "A revoke of an earlier run of the service is owed; the configuration program runs soon.";
  }
}

// Keeps the owed state in the agent's key. While a run is owed it is written again at each failed
// try: a write that failed, or a value someone deleted, would otherwise lose the owed run at the next
// start. Only a write that succeeded counts as stored.
void StoreReapplyOwed(bool owed) {
  g_reapplyOwed = owed;
  g_reapplyOwedStored =
      writeValue(korva::kAgentRegistryKey, kReapplyOwedValue, REG_DWORD, owed ? "1" : "0") == ERROR_SUCCESS;
}

void RecordReapplyOwed(bool owed) {
  g_reapplyFailures = owed ? g_reapplyFailures + 1 : 0;
  if (!owed && !g_reapplyOwed && g_reapplyOwedStored) return;
  StoreReapplyOwed(owed);
}

// The grants in force that the last whole reading of an earlier run kept. A value that is there but
// holds no such list may have named grants since ended: a run is owed (it costs one start of the
// configuration program).
void LoadGrantsInForce() {
  if (std::exchange(g_storedInForceLoaded, true)) return;
  std::string bytes(ta::kMaxGrantsPerFile * 8 + 1, '\0');
  auto size = static_cast<DWORD>(bytes.size());
  DWORD type = REG_NONE;
  Endpoint_Manager::RegistryKeyHandle key;
  const LONG code = Endpoint_Manager::CRegistryUtil::RegistryQueryValue(
      key, korva::kAgentRegistryKey, kGrantsInForceValue, &type, reinterpret_cast<BYTE*>(bytes.data()), &size,
      korva::registry::kAgentView);
  if (code == ERROR_FILE_NOT_FOUND) return;
  bytes.resize(code == ERROR_SUCCESS ? size : 0);
  std::optional<std::vector<long long>> ids;
  if (code == ERROR_SUCCESS && type == REG_BINARY) ids = ta::GrantIdsFromBytes(bytes);
  if (ids) {
    g_storedInForce = std::move(*ids);
    return;
  }
  g_storedInForceDamaged = true;
  KLOG_WARNING_AS(kName) << "The grants in force of an earlier run of the service could not be read (code " << code
                         << "); the configuration program runs soon.";
  if (!g_reapplyOwed) StoreReapplyOwed(true);
}

// Keeps the ids of the grants in force of a whole reading, when they differ from those kept.
void StoreGrantsInForce(const std::vector<long long>& inForce) {
  // Not while a run is owed that the registry does not know of: a stop then would lose it.
  if (g_reapplyOwed && !g_reapplyOwedStored) return;
  if (inForce == g_storedInForce && !g_storedInForceDamaged) return;
  const std::string bytes = ta::GrantIdsBytes(inForce);
  Endpoint_Manager::RegistryKeyHandle key;
  LONG code =
      Endpoint_Manager::CRegistryUtil::RegistryCreateKey(key, korva::kAgentRegistryKey, korva::registry::kAgentView);
  if (code == ERROR_SUCCESS) {
    code = Endpoint_Manager::CRegistryUtil::RegistrySetValue(
        key, korva::kAgentRegistryKey, kGrantsInForceValue, REG_BINARY, reinterpret_cast<const BYTE*>(bytes.data()),
        static_cast<DWORD>(bytes.size()), korva::registry::kAgentView);
  }
  if (code != ERROR_SUCCESS) {
    // The next whole reading tries again; until then a start compares with the older list.
    korva::LogFailedCall(kName, static_cast<DWORD>(code), "The grants in force could not be kept; code ", code);
    return;
  }
  g_storedInForce = inForce;
  g_storedInForceDamaged = false;
}

// The start-up's pass runs no configuration program. When a grant in force at the last whole reading
// of an earlier run has ended or is gone, no pass re-applied policy for it: that run is owed now. So
// it is when the grant files are gone, in any pass: their grants' access is not left in force.
void OweRunForGrantsEndedMeanwhile(const PassResult& pass) {
  if (g_reapplyOwed || !ta::SomeGrantNoLongerInForce(g_storedInForce, pass.inForce)) return;
  KLOG_WARNING_AS(kName) << "A grant in force when the service last read the grants has ended or gone since; "
                            "the configuration program runs soon.";
  StoreReapplyOwed(true);
}

// Has the configuration program re-apply policy; true once it has started. A start that fails
// leaves the run owed.
bool ReapplyPolicy(const korva::AgentFolder& base) {
  const bool started = StartConfigurationProgram(base);
  RecordReapplyOwed(!started);
  return started;
}

}  // namespace

LONGLONG ProcessandUpdateTemporaryAccess(bool skipReconfiguration) {
  return korva::log::ScopedGuarded(kName, LONGLONG{ta::kNoGrantInForce}, [&]() -> LONGLONG {
    const std::lock_guard<std::recursive_mutex> lock(g_passMutex);
    LoadReapplyOwed();
    LoadGrantsInForce();
    // Counted as unreadable until the pass knows better: a pass cut short says nothing of the revoke.
    g_lastPassReading.store(Reading::kUnreadable);
    g_lastPassTimedExpiry.store(ta::kNoGrantInForce);
    g_lastPassPeriodEnd.store(ta::kNoGrantInForce);
    const korva::AgentFolder base = korva::AgentBaseFolder();
    if (!Usable(base)) {
      // A relative or planted folder is never read: no grant file is better than a forged one. The
      // grants are then unknown, not gone: the pending revoke stays (counted as unreadable).
      KLOG_WARNING_AS(kName) << "No grant file is read: " << base.name << " \""
                             << korva::folders::PrintableText(base.text)
                             << "\" is refused: " << korva::folders::FaultText(base.fault) << ".";
      // An owed run that cannot even be tried counts as a failed try, so its retries back off.
      if (!skipReconfiguration && g_reapplyOwed) RecordReapplyOwed(true);
      return ta::kNoGrantInForce;
    }
    rapidjson::Document document;
    const GrantFiles files = LoadGrantDocument(base.path, document);
    if (files == GrantFiles::kNone) {
      // No grant is in force; a run owed for one that ended, or went with the files, is still made.
      OweRunForGrantsEndedMeanwhile(PassResult{});
      if (!skipReconfiguration && g_reapplyOwed) (void)ReapplyPolicy(base);
      StoreGrantsInForce({});
      g_lastPassReading.store(Reading::kWhole);
      return ta::kNoGrantInForce;
    }
    const PassResult pass =
        EvaluateGrants(document, korva::LocalTimeInSeconds(korva::DaylightBias::kAdded), files == GrantFiles::kLoaded);
    KLOG_INFO_AS(kName) << "Cleaning up.";
    const Reading reading = ReadingOf(files, pass);
    if (skipReconfiguration && reading != Reading::kUnreadable) OweRunForGrantsEndedMeanwhile(pass);
    // The start-up's pass runs no configuration program: the grants it finds ended are told of only
    // when no run is owed for them.
    const bool reapplied = skipReconfiguration ? !g_reapplyOwed : ReapplyPolicy(base);
    // Kept once the run for them has started or is owed, never before.
    if (reading == Reading::kWhole) StoreGrantsInForce(pass.inForce);
    // Ended grants count as announced once the tray program has started; when it could not be
    // (no user session yet, a shutdown), the next pass tells of them again. Nor are they told of
    // while the configuration program that ends them owes its run.
    if (reapplied && !pass.newlyOver.empty() &&
        StartTrayNotice(static_cast<int>(pass.newlyOver.size())) == ERROR_SUCCESS) {
      g_announced.insert(pass.newlyOver.begin(), pass.newlyOver.end());
    }
    g_lastPassReading.store(reading);
    g_lastPassTimedExpiry.store(pass.earliestTimed);
    g_lastPassPeriodEnd.store(pass.earliestPeriodEnd);
    return pass.earliest;
  });
}

VOID CALLBACK TempAccessRevokeTimerRoutine(PVOID /*parameter*/, BOOLEAN /*timerFired*/) {
  korva::log::ScopedGuardedVoid(kTimerName, [] { korva::ProcessGrantsAndArmRevokeTimer(kTimerName); });
  korva::win::ReleaseUnusedStack();  // the pool's thread may idle, then end, after this
}

void ExecuteAgentTrayIcon_TA(int number) { (void)StartTrayNotice(number); }

namespace {

DWORD StartTrayNotice(int number) {
  return korva::log::ScopedGuarded(kTrayName, DWORD{ERROR_GEN_FAILURE}, [number] {
    const korva::AgentFolder install = korva::DeviceControlFolder();
    if (!korva::process::FolderAllowsStart(kTrayName, "korvaAgentTrayIcon.exe", install)) {
      return korva::process::kRefusedPathCode;
    }
    const std::string folder = ta::TrayFolder(install.path);
    const std::string command = ta::TrayNoticeCommandLine(folder, number);
    // No blank before the bracket of "at path[": the system's own text, kept as it stands.
    KLOG_INFO_AS(kTrayName) << "Command to execute [" << command << "] at path[" << folder << "]";
    korva::win::UniqueMallocText<char> remarks;
    const DWORD result =
        ExecuteUIApplicationInSystemSession(command.c_str(), folder.c_str(), remarks.put(), korva::process::kNoWait);
    KLOG_INFO_AS(kTrayName) << "Return Value [" << result << "] with Remarks :" << (remarks ? remarks.get() : "");
    return result;
  });
}

}  // namespace

namespace korva {

void OweRevokeTimerQueue() noexcept {
  g_revokeQueueOwed.store(true);
  log::GuardedVoid(kTimerName, [] { ScheduleOwedQueuePass(); });
}

void SetOwedQueuePassDelayForTest(DWORD delayMs) { g_owedQueuePassMs.store(delayMs != 0 ? delayMs : kOwedQueuePassMs); }

void ArmTempAccessRevokeTimer(const char* function, LONGLONG nextRevoke, LONGLONG nowSeconds) {
  const std::lock_guard<std::recursive_mutex> lock(g_passMutex);
  if (TempAccessRevokeTimerQueue == nullptr && g_revokeQueueOwed.load()) MakeOwedRevokeTimerQueue(function);
  if (TempAccessRevokeTimerQueue == nullptr) {
    KLOG_WARNING_AS(function) << "There is no revoke timer queue; the revoke timer is not armed.";
    return;
  }
  const ULONGLONG tick = GetTickCount64();
  DWORD dueMs = 0;
  const Reading reading = g_lastPassReading.load();
  if (reading == Reading::kUnreadable) {
    // The grants could not be read: keep the revoke that was pending, and look again within a minute.
    // A revoke that has come gets one prompt look; the looks after it wait the minute, so grant
    // files that stay unreadable never make a pass (and a configuration program) a second.
    const ULONGLONG pending = g_pendingRevokeTick.load();
    dueMs = tempaccess::RetryDueTimeMs({pending != 0, pending > tick ? pending - tick : 0});
    if (pending != 0 && pending <= tick) g_pendingRevokeTick.store(0);
    KLOG_WARNING_AS(function) << "The grant files could not be read; the revoke timer looks again in " << dueMs
                              << " ms.";
  } else {
    const LONGLONG revokeTime =
        tempaccess::RevokeTimeToArm(nextRevoke, g_lastPassTimedExpiry.load(), g_lastPassPeriodEnd.load());
    dueMs = tempaccess::RevokeDueTimeMs(revokeTime, nowSeconds);
    if (reading == Reading::kWhole) {
      // The decision stands even when the timer cannot be armed for it: a later pass that cannot
      // read the grants still knows when it was due.
      g_pendingRevokeTick.store(tick + dueMs);
    } else {
      // A partial or older reading may bring the revoke nearer; the pending one stays as decided.
      const ULONGLONG pending = g_pendingRevokeTick.load();
      dueMs = tempaccess::PartialPassDueTimeMs(dueMs, {pending != 0, pending > tick ? pending - tick : 0},
                                               reading == Reading::kOlder);
      KLOG_WARNING_AS(function) << "Only part of the grants could be read; the revoke timer is due in " << dueMs
                                << " ms, no later than the revoke pending.";
    }
  }
  if (g_reapplyOwed) {
    // The pending revoke keeps its own time; the timer only comes back sooner for the owed run.
    const std::uint32_t retryMs = tempaccess::ReapplyRetryMs(g_reapplyFailures);
    if (dueMs > retryMs) dueMs = retryMs;
    KLOG_WARNING_AS(function) << "The configuration program owes a run; the revoke timer tries again in " << dueMs
                              << " ms.";
  }
  // The failure line deliberately names the filter timer (QVFAFilterTimer), not this one: the
  // system's own line, kept word for word.
  if (!RearmOneShotTimer(TempAccessRevokeTimerQueue, TempAccessRevokeTimer, TempAccessRevokeTimerRoutine, dueMs)) {
    LogLastError(function, "CreateTimerQueueTimer for QVFAFilterTimer failed due to following error.");
  }
}

void ProcessGrantsAndArmRevokeTimer(const char* function) {
  const std::lock_guard<std::recursive_mutex> lock(g_passMutex);
  const LONGLONG nextRevoke = ProcessandUpdateTemporaryAccess(false);
  ArmTempAccessRevokeTimer(function, nextRevoke, LocalTimeInSeconds(DaylightBias::kAdded));
}

bool LastPassFoundRevokeTime() {
  return g_lastPassTimedExpiry.load() != tempaccess::kNoGrantInForce ||
         g_lastPassPeriodEnd.load() != tempaccess::kNoGrantInForce;
}

bool RevokeOwed() {
  const std::lock_guard<std::recursive_mutex> lock(g_passMutex);
  return g_reapplyOwed;
}

void SetConfigurationRunLimitForTest(ULONGLONG limitMs) { g_configurationRunLimitMs.store(limitMs); }

void ResetGrantStateForTest() {
  HANDLE owedPass = nullptr;
  {
    const std::lock_guard<std::recursive_mutex> lock(g_passMutex);
    g_revokeQueueOwed.store(false);
    owedPass = std::exchange(g_owedQueuePass, nullptr);
  }
  // Waits for its pass, should one be under way (it sets no other now that nothing is owed).
  if (owedPass != nullptr) (void)DeleteTimerQueueTimer(nullptr, owedPass, INVALID_HANDLE_VALUE);
  const std::lock_guard<std::recursive_mutex> lock(g_passMutex);
  g_announced.clear();
  g_reapplyOwed = false;
  g_reapplyFailures = 0;
  g_reapplyOwedLoaded = false;
  g_reapplyOwedStored = false;
  g_storedInForce.clear();
  g_storedInForceLoaded = false;
  g_configurationRun.reset();
  g_storedInForceDamaged = false;
  g_configurationRunLimitMs.store(kConfigurationRunLimitMs);
  g_pendingRevokeTick.store(0);
  g_lastPassReading.store(Reading::kWhole);
}

}  // namespace korva
