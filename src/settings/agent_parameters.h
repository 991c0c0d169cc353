// The agent's process-wide settings record (AgentParameters) and the routines that fill it at start-up.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>

#include "settings/core/agent_constants.h"
#include "win/unique_handle.h"

namespace korva {

struct LocalMachineDetails;

using Wow64DisableWow64FsRedirectionFn = BOOL(WINAPI*)(PVOID*);
using Wow64RevertWow64FsRedirectionFn = BOOL(WINAPI*)(PVOID);

// A text field of the record: a NUL-terminated heap block (malloc family), null when never set.
using RecordText = win::UniqueMallocText<char>;

// The agent's settings. Filled by InitializeAgentParameters before any worker thread starts and
// only read afterwards. Each text field owns its block, so replacing the record frees exactly what
// it held; only agent_parameters.cpp writes them.
struct AgentParametersRecord {
  // From the settings file.
  RecordText installDirectory;  // agent_installed_dir + "DeviceControl\": ends in a backslash
  RecordText registryBasePath;  // agent_registry_path_32, or _64 on 64-bit Windows
  RecordText resourceId;
  RecordText productDisplayName;  // "Tallowmere Korva - Agent"
  RecordText agentVersion;
  RecordText authToken;           // secret: never logged
  RecordText serverComputerName;  // computer_name: this machine as the server knows it
  RecordText customerId;
  RecordText domainName;
  RecordText dynamicKey;  // secret: never logged
  RecordText proxyByPass;
  RecordText proxyEnabled;
  RecordText proxyPassword;  // secret: never logged
  RecordText proxyServerName;
  RecordText proxyUserName;
  RecordText remoteOfficeId;
  RecordText serverFlatName;
  RecordText serverInstalledTime;
  RecordText serverIpAddress;
  RecordText serverName;
  std::int32_t serverPort = 0;
  RecordText serverProtocol;
  RecordText serverSecIpAddress;
  std::int32_t serverSecPort = 0;
  std::int32_t effectiveServerPort = 0;  // the secondary port for "https", otherwise serverPort
  RecordText distributionServerEnabled;  // "no" after a settings-file load
  RecordText basePath;                   // registry "BasePath": logs, data\policy

  // Shown in the start-up summary; this agent has no source for them.
  RecordText lastAccessName;
  RecordText serverDataPath;
  RecordText mspName;
  RecordText customerName;
  RecordText productCode;
  RecordText remoteOfficeName;
  DWORD httpRequestTimeout = 0;
  RecordText checksumEnabled;
  DWORD dataTransferRateKBps = 0;
  RecordText installationSource;
  std::int32_t installationMode = 0;  // 2 silent, 5 manual
  RecordText distServerName;
  RecordText distServerIpAddress;
  RecordText distServerSecIpAddress;
  std::int32_t distServerPort = 0;
  RecordText distServerLastAccessName;
  RecordText distServerProtocol;

  // Collection schedule and edition defaults.
  RecordText scheduleDays;
  RecordText scheduleStartTime;
  RecordText scheduleEndTime;
  RecordText siblingEditionTag;

  // Fixed registry paths (string literals, not owned).
  const char* agentKey = kAgentRegistryKey;
  const char* settingsKey = kAgentSettingsKey;
  const char* serverInfoKey = kAgentServerInfoKey;
  const char* configScheduleKey = kAgentConfigScheduleKey;
  const char* metadataVersionsKey = kAgentMetadataVersionsKey;
  const char* systemDetailsKey = kAgentSystemDetailsKey;
  const char* ifModifiedSinceKey = kAgentIfModifiedSinceKey;

  // The process and its environment.
  RecordText tempDirectory;  // %TEMP%, at most 254 characters
  int isWow64 = 0;
  Wow64DisableWow64FsRedirectionFn disableFsRedirection = nullptr;  // null where the system lacks it
  Wow64RevertWow64FsRedirectionFn revertFsRedirection = nullptr;
  DWORD imagedComputer = 0;

  // This machine (InitializeLocalMachineDetails).
  RecordText localComputerName;
  RecordText localIpAddress;
  RecordText localMacAddress;
  RecordText localSubnetMask;
  RecordText localDomainController;
  RecordText clientNamespace;
};

// Frees every text of the record and puts back the static defaults, as at process start.
void ResetAgentParametersForTest();

// Whether the settings file at `path` (ANSI code page) may be opened (`held` null: every folder on
// the way is there and the agent's; only the file itself may be missing), then, once open, whether
// it may be read (`held` the handle it is open through, a link in its place opened itself: the
// agent's own file, not a link, one name only, kept from users); logs why not. The file is read as
// SYSTEM before the service reaches its control manager, so the service sets its judge
// (service/wiring.h) before the settings are read. Without one no settings file is read.
using SettingsFileJudge = bool (*)(const std::string& path, HANDLE held);
void SetSettingsFileJudge(SettingsFileJudge judge) noexcept;

// Test seam: the settings file's load may take `limitMs` at most, and `beforeOpen` runs on its
// thread once the path is judged, before the file is first opened (a stall there stands for an
// open held up by a lock on the file, a change there for a user's race with the judge).
void SetSettingsLoadForTest(DWORD limitMs, std::function<void()> beforeOpen);

}  // namespace korva

// The process's one record. Never destroyed: threads may still read it while the process ends.
extern korva::AgentParametersRecord& AgentParameters;

// Fills AgentParameters at service start. Never throws.
void InitializeAgentParameters();
// Fills the local-machine fields of AgentParameters (what could be read is kept even when some of
// it could not); returns whether everything was read.
[[nodiscard]] bool InitializeLocalMachineDetails();
// Applies the settings file named by the registry value "GlobalJsonPath". 0 when the document was
// read and applied; otherwise the registry read's code, ERROR_INVALID_DATA for a file that cannot
// be loaded or has no object at its root, or korva::kUnhandledException.
[[nodiscard]] LONG LoadGlobalVariablesJSON();
// The agent key's DWORD "IsTESKSubProduct" (0 when missing); non-zero selects the settings file.
[[nodiscard]] DWORD IsTESKSubProduct();
// Heap copies, owned by the caller (win::UniqueMallocText<char>), of the agent key's string values
// "AgentInstallDir" and "BasePath". Return the registry read's code; `*out` holds "" when the value
// is missing.
[[nodiscard]] LONG AgentInstallDir(char** out);
[[nodiscard]] LONG BasePath(char** out);
namespace korva {
// BasePath as a string: empty when it is missing or unreadable (logged by BasePath).
std::string BasePathText();
}  // namespace korva
// "DotNetVersion" of "Software\Kestrelix\Quovane\QVAgent"; empty (and logged) when missing.
std::string getDotNetVersionForInvokingExe();
