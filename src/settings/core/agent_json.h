// The agent's settings file read into plain values, and the text of the start-up summary block.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace korva::agentjson {

// Appended to the JSON's installation folder: the device-control programs live below it.
inline constexpr std::string_view kDeviceControlSuffix = "DeviceControl\\";
// Only this exact spelling selects the secondary port.
inline constexpr std::string_view kSecureProtocol = "https";

// Why a key's default was used.
enum class KeyIssue { kMissing, kWrongType };

struct KeyNote {
  std::string key;
  KeyIssue issue;
};

// Values of the settings file, each already at its default when the key is missing or unusable.
struct JsonSettings {
  std::string installDirectory;  // agent_installed_dir + "DeviceControl\"; empty when it holds a NUL
  std::string registryBasePath;  // agent_registry_path_32, or _64 on 64-bit Windows
  std::string resourceId;
  std::string agentVersion;
  std::string authToken;
  std::string serverComputerName;
  std::string customerId;
  std::string domainName;
  std::string dynamicKey;
  std::string proxyByPass;
  std::string proxyEnabled;
  std::string proxyPassword;
  std::string proxyServerName;
  std::string proxyUserName;
  std::string remoteOfficeId;
  std::string serverFlatName;
  std::string serverInstalledTime;  // "0" when missing
  std::string serverIpAddress;
  std::string serverName;
  std::int32_t serverPort = 0;
  std::string serverProtocol;
  std::string serverSecIpAddress;
  std::int32_t serverSecPort = 0;
  std::int32_t effectiveServerPort = 0;
  // Keys that fell back to their default, in lookup order.
  std::vector<KeyNote> notes;
};

// The port the agent talks to: the secondary one for "https" exactly, otherwise the primary.
std::int32_t EffectiveServerPort(std::string_view protocol, std::int32_t serverPort, std::int32_t secondaryPort);

// Reads every known key of `root`, which must be an object. `on64BitWindows` picks the 64-bit registry path key.
JsonSettings ReadJsonSettings(const rapidjson::Value& root, bool on64BitWindows);

// What the summary block prints. Null texts print as nothing. Secrets have no place here.
struct SummaryFields {
  const char* serverName = nullptr;
  const char* serverFlatName = nullptr;
  const char* serverIpAddress = nullptr;
  const char* serverSecIpAddress = nullptr;
  const char* lastAccessName = nullptr;
  std::int32_t serverPort = 0;
  const char* serverProtocol = nullptr;
  const char* agentVersion = nullptr;
  const char* installDirectory = nullptr;
  const char* clientNamespace = nullptr;
  const char* serverDataPath = nullptr;
  const char* mspName = nullptr;
  const char* customerName = nullptr;
  const char* customerId = nullptr;
  const char* productCode = nullptr;
  const char* localComputerName = nullptr;
  const char* localIpAddress = nullptr;
  const char* localMacAddress = nullptr;
  const char* localSubnetMask = nullptr;
  const char* distributionServerEnabled = nullptr;
  const char* remoteOfficeName = nullptr;
  std::uint32_t httpRequestTimeout = 0;
  const char* localDomainController = nullptr;
  const char* resourceId = nullptr;
  const char* checksumEnabled = nullptr;
  std::uint32_t dataTransferRateKBps = 0;
  const char* installationSource = nullptr;
  std::int32_t installationMode = 0;
  const char* distServerName = nullptr;
  const char* distServerIpAddress = nullptr;
  const char* distServerSecIpAddress = nullptr;
  std::int32_t distServerPort = 0;
  const char* distServerLastAccessName = nullptr;
  const char* distServerProtocol = nullptr;
  const char* remoteOfficeId = nullptr;
};

// One log line each, the block framed by two lines of 66 asterisks; the distribution-server lines
// only when the flag is "yes".
std::vector<std::string> SummaryLines(const SummaryFields& fields);

}  // namespace korva::agentjson
