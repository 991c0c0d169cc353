// The agent's process-wide settings record (AgentParameters) and the routines that fill it at start-up.
#include "settings/agent_parameters.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "settings/core/agent_json.h"
#include "settings/error_text.h"
#include "settings/event_log.h"
#include "settings/log.h"
#include "settings/machine_details.h"
#include "settings/rapidjson_class.h"
#include "settings/registry.h"
#include "win/bitness.h"
#include "win/procedure.h"
#include "win/strings.h"
#include "win/thread_stack.h"

namespace korva {
namespace {

using Record = AgentParametersRecord;
using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);

constexpr const char* kInit = "InitializeAgentParameters";
constexpr const char* kProductDisplayName = "Tallowmere Korva - Agent";
constexpr DWORD kJsonLoadFailedEventId = 1;
constexpr DWORD kTempBufferSize = 255;
// A settings file that is there but cannot be loaded (another agent program holds it or is writing
// it at the start) is tried this many times in all, this far apart: one unlucky moment must not
// leave the whole run without its installation folder.
constexpr int kSettingsLoadAttempts = 3;
constexpr DWORD kSettingsRetryMs = 500;
// The whole load, its attempts included, ends within this time or the run goes on without the
// file: the service control manager waits for the service only so long.
constexpr DWORD kSettingsLoadLimitMs = 10000;

// A heap copy made without logging: usable before the log exists.
char* CopyText(const char* text) noexcept {
  const std::size_t size = std::strlen(text) + 1;
  char* copy = static_cast<char*>(std::malloc(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

void ReplaceText(RecordText& field, const std::string& value) { field.reset(CopyText(value.c_str())); }

// Values of the settings file go through the agent's logged copy routine.
void ReplaceWithLoggedCopy(RecordText& field, const std::string& value) {
  AllocateAndDoStringCopyA(value.c_str(), field.put());
}

Record DefaultRecord() noexcept {
  Record r;
  r.productDisplayName.reset(CopyText(kProductDisplayName));
  r.serverProtocol.reset(CopyText("http"));
  r.distServerProtocol.reset(CopyText("http"));
  r.proxyByPass.reset(CopyText("<local>"));
  r.scheduleDays.reset(CopyText("1,2,3,4,5,6,7"));
  r.scheduleStartTime.reset(CopyText("00:00:00"));
  r.scheduleEndTime.reset(CopyText("23:59:59"));
  r.siblingEditionTag.reset(CopyText("TESKEE"));
  return r;
}

using win::LookUpProcedure;

void DetectWow64() {
  const HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
  const auto isWow64Process = LookUpProcedure<IsWow64ProcessFn>(kernel32, "IsWow64Process");
  BOOL wow64 = FALSE;
  if (isWow64Process != nullptr && !isWow64Process(GetCurrentProcess(), &wow64)) wow64 = FALSE;
  AgentParameters.isWow64 = wow64 ? 1 : 0;
  AgentParameters.disableFsRedirection =
      LookUpProcedure<Wow64DisableWow64FsRedirectionFn>(kernel32, "Wow64DisableWow64FsRedirection");
  AgentParameters.revertFsRedirection =
      LookUpProcedure<Wow64RevertWow64FsRedirectionFn>(kernel32, "Wow64RevertWow64FsRedirection");
}

void ReadTempDirectory() {
  RecordText buffer(static_cast<char*>(std::calloc(kTempBufferSize, 1)));
  if (!buffer) return;
  const DWORD length = GetEnvironmentVariableA("TEMP", buffer.get(), kTempBufferSize);
  if (length >= kTempBufferSize) {  // too long: the buffer holds nothing usable
    KLOG_WARNING_AS(kInit) << "TEMP is longer than " << (kTempBufferSize - 1) << " characters.";
    buffer.get()[0] = '\0';
  }
  AgentParameters.tempDirectory = std::move(buffer);
}

void LoadSettings() {
  if (IsTESKSubProduct() == 0) {
    // Deliberately nothing more: the routines that need a registry value read it themselves.
    KLOG_INFO_AS(kInit) << "Going to load details from registry.";
    return;
  }
  KLOG_INFO_AS(kInit) << "Going to load details from Json file.";
  if (LoadGlobalVariablesJSON() == ERROR_SUCCESS) {
    KLOG_INFO_AS(kInit) << "Details successfully loaded from Json file.";
    return;
  }
  WriteEventLogEntry(kProductDisplayName, kJsonLoadFailedEventId, EVENTLOG_ERROR_TYPE,
                     "Main : Error Loading Global Variables.");
  // The line says the registry is tried next; as on the registry path above, nothing more is read
  // (deliberately: the system's own line and behaviour).
  KLOG_ERROR_AS(kInit) << "Unable to load details from Json file. So going to try with registry.";
}

void LoadLocalMachineDetails() {
  if (InitializeLocalMachineDetails()) {
    KLOG_INFO_AS(kInit) << "Local Machine Details initialized successfully.";
  } else {
    // The missing word is the system's own; the text is kept as it stands.
    KLOG_ERROR_AS(kInit) << "Error while the local machine details.";
  }
}

agentjson::SummaryFields SummaryOf(const Record& r) {
  agentjson::SummaryFields f;
  f.serverName = r.serverName.get();
  f.serverFlatName = r.serverFlatName.get();
  f.serverIpAddress = r.serverIpAddress.get();
  f.serverSecIpAddress = r.serverSecIpAddress.get();
  f.lastAccessName = r.lastAccessName.get();
  f.serverPort = r.effectiveServerPort;
  f.serverProtocol = r.serverProtocol.get();
  f.agentVersion = r.agentVersion.get();
  f.installDirectory = r.installDirectory.get();
  f.clientNamespace = r.clientNamespace.get();
  f.serverDataPath = r.serverDataPath.get();
  f.mspName = r.mspName.get();
  f.customerName = r.customerName.get();
  f.customerId = r.customerId.get();
  f.productCode = r.productCode.get();
  f.localComputerName = r.localComputerName.get();
  f.localIpAddress = r.localIpAddress.get();
  f.localMacAddress = r.localMacAddress.get();
  f.localSubnetMask = r.localSubnetMask.get();
  f.distributionServerEnabled = r.distributionServerEnabled.get();
  f.remoteOfficeName = r.remoteOfficeName.get();
  f.httpRequestTimeout = r.httpRequestTimeout;
  f.localDomainController = r.localDomainController.get();
  f.resourceId = r.resourceId.get();
  f.checksumEnabled = r.checksumEnabled.get();
  f.dataTransferRateKBps = r.dataTransferRateKBps;
  f.installationSource = r.installationSource.get();
  f.installationMode = r.installationMode;
  f.distServerName = r.distServerName.get();
  f.distServerIpAddress = r.distServerIpAddress.get();
  f.distServerSecIpAddress = r.distServerSecIpAddress.get();
  f.distServerPort = r.distServerPort;
  f.distServerLastAccessName = r.distServerLastAccessName.get();
  f.distServerProtocol = r.distServerProtocol.get();
  f.remoteOfficeId = r.remoteOfficeId.get();
  return f;
}

void PrintSummary() {
  if (!log::Enabled(log::kInfo)) return;
  for (const std::string& line : agentjson::SummaryLines(SummaryOf(AgentParameters))) {
    KLOG_INFO_AS(kInit) << line;
  }
}

void ReadImagedComputerFlag() {
  DWORD value = 0;
  const LONG code = ReadDwordRegValue(kAgentRegistryKey, "ImagedComputer", value);
  if (code == ERROR_SUCCESS && value == 1) {
    KLOG_INFO_AS(kInit) << "Computer is detected as imaged One...";
    AgentParameters.imagedComputer = 1;
  } else {
    KLOG_DEBUG_AS(kInit) << "Computer is not an imaged one...";
    AgentParameters.imagedComputer = 0;
  }
}

void LogDefaultedKeys(const std::vector<agentjson::KeyNote>& notes) {
  for (const agentjson::KeyNote& note : notes) {
    if (note.issue == agentjson::KeyIssue::kMissing) {
      KLOG_WARNING_AS("LoadGlobalVariablesJSON") << "Key not found in Json, default used : " << note.key;
    } else {
      KLOG_WARNING_AS("LoadGlobalVariablesJSON") << "Key has an unexpected type in Json, default used : " << note.key;
    }
  }
}

void ApplyJsonSettings(const agentjson::JsonSettings& s) {
  Record& r = AgentParameters;
  ReplaceWithLoggedCopy(r.installDirectory, s.installDirectory);
  ReplaceWithLoggedCopy(r.registryBasePath, s.registryBasePath);
  ReplaceWithLoggedCopy(r.resourceId, s.resourceId);
  ReplaceWithLoggedCopy(r.agentVersion, s.agentVersion);
  ReplaceWithLoggedCopy(r.authToken, s.authToken);
  ReplaceWithLoggedCopy(r.serverComputerName, s.serverComputerName);
  ReplaceWithLoggedCopy(r.customerId, s.customerId);
  ReplaceWithLoggedCopy(r.domainName, s.domainName);
  ReplaceWithLoggedCopy(r.dynamicKey, s.dynamicKey);
  ReplaceWithLoggedCopy(r.proxyByPass, s.proxyByPass);
  ReplaceWithLoggedCopy(r.proxyEnabled, s.proxyEnabled);
  ReplaceWithLoggedCopy(r.proxyPassword, s.proxyPassword);
  ReplaceWithLoggedCopy(r.proxyServerName, s.proxyServerName);
  ReplaceWithLoggedCopy(r.proxyUserName, s.proxyUserName);
  ReplaceWithLoggedCopy(r.remoteOfficeId, s.remoteOfficeId);
  ReplaceWithLoggedCopy(r.serverFlatName, s.serverFlatName);
  ReplaceWithLoggedCopy(r.serverInstalledTime, s.serverInstalledTime);
  ReplaceWithLoggedCopy(r.serverIpAddress, s.serverIpAddress);
  ReplaceWithLoggedCopy(r.serverName, s.serverName);
  r.serverPort = s.serverPort;
  ReplaceWithLoggedCopy(r.serverProtocol, s.serverProtocol);
  ReplaceWithLoggedCopy(r.serverSecIpAddress, s.serverSecIpAddress);
  r.serverSecPort = s.serverSecPort;
  r.effectiveServerPort = s.effectiveServerPort;
}

// The agent key's string value `name` as a caller-owned heap copy, logged under `function`.
[[nodiscard]] LONG ReadAgentText(const char* function, const char* name, char** out) {
  const LONG code = AllocateAndDoStringCopyA(kAgentRegistryKey, name, out);
  if (code != ERROR_SUCCESS) {
    KLOG_ERROR_AS(function) << "Unable to read " << name << " from registry with code : " << code;
  }
  return code;
}

}  // namespace

namespace {

void SetLocalMachineDetails(const LocalMachineDetails& details) {
  ReplaceText(AgentParameters.localComputerName, details.computerName);
  ReplaceText(AgentParameters.localIpAddress, details.ipAddress);
  ReplaceText(AgentParameters.localMacAddress, details.macAddress);
  ReplaceText(AgentParameters.localSubnetMask, details.subnetMask);
  ReplaceText(AgentParameters.localDomainController, details.domainController);
}

}  // namespace

void ResetAgentParametersForTest() { AgentParameters = DefaultRecord(); }

namespace {
// The record's storage, built before main and never destroyed: threads may still read it while the
// process ends. Static rather than on the heap, so nothing is allocated for it that could fail
// before main.
union NeverDestroyedRecord {
  NeverDestroyedRecord() noexcept : record(DefaultRecord()) {}
  NeverDestroyedRecord(const NeverDestroyedRecord&) = delete;
  NeverDestroyedRecord& operator=(const NeverDestroyedRecord&) = delete;
  // Leaves the record alone. ("= default" would be a deleted destructor here: the record, a member
  // of the union, has a destructor of its own.)
  ~NeverDestroyedRecord() {}  // NOLINT(modernize-use-equals-default)

  Record record;
};
NeverDestroyedRecord g_record;
}  // namespace

}  // namespace korva

korva::AgentParametersRecord& AgentParameters = korva::g_record.record;

void InitializeAgentParameters() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    korva::DetectWow64();
    AgentParameters.ifModifiedSinceKey = korva::kAgentIfModifiedSinceKey;
    korva::ReadTempDirectory();
    korva::LoadSettings();
    korva::LoadLocalMachineDetails();
    korva::PrintSummary();
    korva::ReadImagedComputerFlag();
  });
}

namespace {

korva::SettingsFileJudge g_settingsFileJudge = nullptr;

struct SettingsLoadSeam {
  std::mutex mutex;
  DWORD limitMs = korva::kSettingsLoadLimitMs;
  std::function<void()> beforeOpen;
};

SettingsLoadSeam& LoadSeam() {
  static SettingsLoadSeam seam;
  return seam;
}

// Opens the settings file to judge it and hold it while it is read: a link in its place is opened
// itself, not what it points to, and the file is shared for reads and writes but not deletion, so
// meanwhile its name can be neither renamed, deleted nor given to another file.
korva::win::UniqueFileHandle HoldSettingsFile(const std::wstring& path) {
  return korva::win::UniqueFileHandle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                  nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

// What the settings file gives when it could not be held: the reader's own lines on why it cannot
// be opened, and nothing read. A file that appeared meanwhile is opened as itself, not through a
// link in its place, and left for the next attempt, which judges it.
void ReportUnopenedSettingsFile(const std::wstring& path) {
  rapidjson::Document unused;
  static_cast<void>(CRapidJSONClass::LoadJsonFromFile(
      path, unused, CRapidJSONClass::OpenRules{FILE_FLAG_OPEN_REPARSE_POINT, [](HANDLE) { return false; }}));
}

// The settings file as a JSON object; false when it is missing, refused, or still cannot be
// loaded after the last attempt. The file is judged on the handle that holds it before anything
// of it is read, and read, by name, only while held. `beforeOpen` runs once, before the first open.
bool LoadSettingsDocument(const std::string& path, rapidjson::Document& document,
                          const std::function<void()>& beforeOpen) {
  const std::wstring wide = korva::win::AnsiToWide(path);
  for (int attempt = 1;; ++attempt) {
    if (attempt == 1 && beforeOpen) beforeOpen();
    const korva::win::UniqueFileHandle held = HoldSettingsFile(wide);
    if (!held) {
      ReportUnopenedSettingsFile(wide);
    } else if (!g_settingsFileJudge(path, held.get())) {
      return false;  // refused: never read, not tried again
    } else if (CRapidJSONClass::LoadJsonFromFile(wide, document) && document.IsObject()) {
      return true;
    }
    if (attempt == korva::kSettingsLoadAttempts || GetFileAttributesW(wide.c_str()) == INVALID_FILE_ATTRIBUTES)
      return false;
    KLOG_WARNING_AS("LoadGlobalVariablesJSON")
        << "The settings file [" << path << "] could not be loaded; trying again in " << korva::kSettingsRetryMs
        << " ms.";
    Sleep(korva::kSettingsRetryMs);
  }
}

// One load of the settings file, shared by the start-up and the thread that makes it: whichever of
// the two finishes last frees it.
struct SettingsLoad {
  std::string path;
  rapidjson::Document document;
  bool loaded = false;
  std::function<void()> beforeOpen;
};

// The settings file judged by its path, then opened, judged on its handle and loaded. The judge
// opens the file to read its security, which a lock on the file stalls as it stalls the load: all
// of it runs on the load's thread.
bool JudgeAndLoad(SettingsLoad& load) {
  if (g_settingsFileJudge == nullptr || !g_settingsFileJudge(load.path, nullptr)) return false;
  return LoadSettingsDocument(load.path, load.document, load.beforeOpen);
}

DWORD WINAPI RunSettingsLoad(void* parameter) {
  const std::unique_ptr<std::shared_ptr<SettingsLoad>> owner(static_cast<std::shared_ptr<SettingsLoad>*>(parameter));
  SettingsLoad& load = **owner;
  const bool loaded = korva::log::Guarded("LoadGlobalVariablesJSON", false, [&] { return JudgeAndLoad(load); });
  load.loaded = loaded;
  korva::win::ReleaseUnusedStack();  // Wine keeps an ended thread's stack until another thread ends
  return 0;
}

// LoadSettingsDocument on a thread of its own, waited for a bounded time. The file's folder may be
// one users can read, and a user who holds a lock on the file (an opportunistic lock whose break
// is never acknowledged) stalls every open of it: the start-up must still reach the service
// control manager. A load that does not end in time is left to finish unused.
bool LoadSettingsDocumentWithin(const std::string& path, rapidjson::Document& document) {
  auto load = std::make_shared<SettingsLoad>();
  load->path = path;
  DWORD limitMs = korva::kSettingsLoadLimitMs;
  {
    SettingsLoadSeam& seam = LoadSeam();
    const std::lock_guard<std::mutex> lock(seam.mutex);
    limitMs = seam.limitMs;
    load->beforeOpen = seam.beforeOpen;
  }
  auto owner = std::make_unique<std::shared_ptr<SettingsLoad>>(load);
  const korva::win::UniqueHandle thread(CreateThread(nullptr, 0, RunSettingsLoad, owner.get(), 0, nullptr));
  if (!thread) {
    korva::LogLastError("LoadGlobalVariablesJSON", "Starting the settings file's load failed; loading it here.");
    if (!JudgeAndLoad(*load)) return false;
    document.Swap(load->document);
    return true;
  }
  static_cast<void>(owner.release());  // the thread's now
  if (WaitForSingleObject(thread.get(), limitMs) != WAIT_OBJECT_0) {
    KLOG_ERROR_AS("LoadGlobalVariablesJSON") << "Loading the settings file [" << path << "] did not end within "
                                             << limitMs << " ms; the service goes on without it.";
    return false;
  }
  if (!load->loaded) return false;
  document.Swap(load->document);
  return true;
}

}  // namespace

LONG LoadGlobalVariablesJSON() {
  KLOG_SCOPE();
  try {
    std::string path;
    const LONG code = ReadRegSZ(korva::kAgentRegistryKey, "GlobalJsonPath", path);
    if (code != ERROR_SUCCESS) {
      KLOG_ERROR << "Unable to read GlobalJsonPath from registry with code : " << code;
      return code;
    }
    rapidjson::Document document;
    if (!LoadSettingsDocumentWithin(path, document)) {
      KLOG_ERROR << "Unable to load the JSON file with code : " << static_cast<LONG>(ERROR_INVALID_DATA);
      return ERROR_INVALID_DATA;
    }
    const korva::agentjson::JsonSettings settings =
        korva::agentjson::ReadJsonSettings(document, korva::win::RunsOn64BitWindows(AgentParameters.isWow64 != 0));
    korva::LogDefaultedKeys(settings.notes);
    korva::ApplyJsonSettings(settings);
    korva::ReplaceWithLoggedCopy(AgentParameters.distributionServerEnabled, "no");
    // A missing value is logged there and leaves "".
    static_cast<void>(BasePath(AgentParameters.basePath.put()));
    return ERROR_SUCCESS;
  } catch (...) {
    const DWORD error = GetLastError();
    KLOG_ERROR << "Exception caught --" << error;
    return korva::kUnhandledException;
  }
}

DWORD IsTESKSubProduct() {
  return korva::log::ScopedGuarded(
      __func__, DWORD{0},
      [] {
        DWORD value = 0;
        const LONG code = ReadDwordRegValue(korva::kAgentRegistryKey, "IsTESKSubProduct", value);
        KLOG_DEBUG_AS("IsTESKSubProduct") << "IsTESKSubProduct : " << value << " (read code " << code << ")";
        return value;
      },
      "Exception Caught.");
}

LONG AgentInstallDir(char** out) {
  return korva::log::ScopedGuarded(__func__, LONG{korva::kUnhandledException},
                                   [&] { return korva::ReadAgentText("AgentInstallDir", "AgentInstallDir", out); });
}

LONG BasePath(char** out) {
  return korva::log::ScopedGuarded(__func__, LONG{korva::kUnhandledException},
                                   [&] { return korva::ReadAgentText("BasePath", "BasePath", out); });
}

std::string korva::BasePathText() {
  korva::RecordText text;
  static_cast<void>(BasePath(text.put()));  // a missing value is logged there
  return text ? std::string(text.get()) : std::string();
}

std::string getDotNetVersionForInvokingExe() {
  return korva::log::ScopedGuarded(__func__, std::string(), [] {
    std::string version;
    if (ReadRegSZ("Software\\Kestrelix\\Quovane\\QVAgent", "DotNetVersion", version) != ERROR_SUCCESS) {
      KLOG_ERROR_AS("getDotNetVersionForInvokingExe") << "Unable to obtain the value from registry.";
    }
    return version;
  });
}

bool InitializeLocalMachineDetails() {
  return korva::log::ScopedGuarded(__func__, false, [] {
    korva::LocalMachineDetails details;
    const bool complete = korva::ReadLocalMachineDetails(details);
    korva::SetLocalMachineDetails(details);  // what could be read is kept even after a failure
    return complete;
  });
}

namespace korva {

void SetSettingsFileJudge(SettingsFileJudge judge) noexcept { g_settingsFileJudge = judge; }

void SetSettingsLoadForTest(DWORD limitMs, std::function<void()> beforeOpen) {
  SettingsLoadSeam& seam = LoadSeam();
  const std::lock_guard<std::mutex> lock(seam.mutex);
  seam.limitMs = limitMs;
  seam.beforeOpen = std::move(beforeOpen);
}

}  // namespace korva
