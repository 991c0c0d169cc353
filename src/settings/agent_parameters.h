// The agent's process-wide settings record (AgentParameters) and the routines that fill it at start-up.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "settings/core/agent_constants.h"

namespace korva {

struct LocalMachineDetails;

using Wow64DisableWow64FsRedirectionFn = BOOL(WINAPI*)(PVOID*);
using Wow64RevertWow64FsRedirectionFn = BOOL(WINAPI*)(PVOID);

// The agent's settings. Filled by InitializeAgentParameters before any worker thread starts and
// only read afterwards. Text fields are NUL-terminated heap blocks (malloc family) owned by the
// record, null when never set; only agent_parameters.cpp writes them.
struct AgentParametersRecord {
  // From the settings file.
  char* installDirectory = nullptr;  // agent_installed_dir + "DeviceControl\": ends in a backslash
  char* registryBasePath = nullptr;  // agent_registry_path_32, or _64 on 64-bit Windows
  char* resourceId = nullptr;
  char* productDisplayName = nullptr;  // "Tallowmere Korva - Agent"
  char* agentVersion = nullptr;
  char* authToken = nullptr;           // secret: never logged
  char* serverComputerName = nullptr;  // computer_name: this machine as the server knows it
  char* customerId = nullptr;
  char* domainName = nullptr;
  char* dynamicKey = nullptr;  // secret: never logged
  char* proxyByPass = nullptr;
  char* proxyEnabled = nullptr;
  char* proxyPassword = nullptr;  // secret: never logged
  char* proxyServerName = nullptr;
  char* proxyUserName = nullptr;
  char* remoteOfficeId = nullptr;
  char* serverFlatName = nullptr;
  char* serverInstalledTime = nullptr;
  char* serverIpAddress = nullptr;
  char* serverName = nullptr;
  std::int32_t serverPort = 0;
  char* serverProtocol = nullptr;
  char* serverSecIpAddress = nullptr;
  std::int32_t serverSecPort = 0;
  std::int32_t effectiveServerPort = 0;       // the secondary port for "https", otherwise serverPort
  char* distributionServerEnabled = nullptr;  // "no" after a settings-file load
  char* basePath = nullptr;                   // registry "BasePath": logs, data\policy

  // Shown in the start-up summary; this agent has no source for them.
  char* lastAccessName = nullptr;
  char* serverDataPath = nullptr;
  char* mspName = nullptr;
  char* customerName = nullptr;
  char* productCode = nullptr;
  char* remoteOfficeName = nullptr;
  DWORD httpRequestTimeout = 0;
  char* checksumEnabled = nullptr;
  DWORD dataTransferRateKBps = 0;
  char* installationSource = nullptr;
  std::int32_t installationMode = 0;  // 2 silent, 5 manual
  char* distServerName = nullptr;
  char* distServerIpAddress = nullptr;
  char* distServerSecIpAddress = nullptr;
  std::int32_t distServerPort = 0;
  char* distServerLastAccessName = nullptr;
  char* distServerProtocol = nullptr;

  // Collection schedule and edition defaults.
  char* scheduleDays = nullptr;
  char* scheduleStartTime = nullptr;
  char* scheduleEndTime = nullptr;
  char* siblingEditionTag = nullptr;

  // Fixed registry paths (string literals, not owned).
  const char* agentKey = kAgentRegistryKey;
  const char* settingsKey = kAgentSettingsKey;
  const char* serverInfoKey = kAgentServerInfoKey;
  const char* configScheduleKey = kAgentConfigScheduleKey;
  const char* metadataVersionsKey = kAgentMetadataVersionsKey;
  const char* systemDetailsKey = kAgentSystemDetailsKey;
  const char* ifModifiedSinceKey = kAgentIfModifiedSinceKey;

  // The process and its environment.
  char* tempDirectory = nullptr;  // %TEMP%, at most 254 characters
  int isWow64 = 0;
  Wow64DisableWow64FsRedirectionFn disableFsRedirection = nullptr;  // null where the system lacks it
  Wow64RevertWow64FsRedirectionFn revertFsRedirection = nullptr;
  DWORD imagedComputer = 0;

  // This machine (InitializeLocalMachineDetails).
  char* localComputerName = nullptr;
  char* localIpAddress = nullptr;
  char* localMacAddress = nullptr;
  char* localSubnetMask = nullptr;
  char* localDomainController = nullptr;
  char* clientNamespace = nullptr;
};

// Frees every text of the record and puts back the static defaults, as at process start.
void ResetAgentParametersForTest();

}  // namespace korva

extern korva::AgentParametersRecord AgentParameters;

// Fills AgentParameters at service start. Never throws.
void InitializeAgentParameters();
// Fills the local-machine fields of AgentParameters (what could be read is kept even when some of
// it could not); returns whether everything was read.
bool InitializeLocalMachineDetails();
// Applies the settings file named by the registry value "GlobalJsonPath". 0 when the document was
// read and applied; otherwise the registry read's code, ERROR_INVALID_DATA for a file that cannot
// be loaded or has no object at its root, or korva::kUnhandledException.
[[nodiscard]] LONG LoadGlobalVariablesJSON();
// The agent key's DWORD "IsTESKSubProduct" (0 when missing); non-zero selects the settings file.
[[nodiscard]] DWORD IsTESKSubProduct();
// Heap copies (caller frees with free()) of the agent key's string values "AgentInstallDir" and
// "BasePath". Return the registry read's code; `*out` holds "" when the value is missing.
[[nodiscard]] LONG AgentInstallDir(char** out);
[[nodiscard]] LONG BasePath(char** out);
namespace korva {
// BasePath as a string: empty when it is missing or unreadable (logged by BasePath).
std::string BasePathText();
}  // namespace korva
// "DotNetVersion" of "Software\Kestrelix\Quovane\QVAgent"; empty (and logged) when missing.
std::string getDotNetVersionForInvokingExe();
