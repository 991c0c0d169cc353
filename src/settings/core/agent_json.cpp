// The agent's settings file read into plain values, and the text of the start-up summary block.
#include "settings/core/agent_json.h"

#include "settings/core/log_format.h"

namespace korva::agentjson {

namespace {

class KeyReader {
 public:
  KeyReader(const rapidjson::Value& root, std::vector<KeyNote>& notes) : root_(root), notes_(notes) {}

  std::string Text(const char* key, std::string_view fallback = {}) {
    const rapidjson::Value* value = Find(key);
    if (value == nullptr) return std::string(fallback);
    if (!value->IsString()) return WrongType(key, std::string(fallback));
    return {value->GetString(), value->GetStringLength()};
  }

  std::int32_t Integer(const char* key) {
    const rapidjson::Value* value = Find(key);
    if (value == nullptr) return 0;
    if (!value->IsInt()) return WrongType(key, 0);
    return value->GetInt();
  }

  // A key that is looked up but whose value the agent does not use.
  void Touch(const char* key) const { (void)root_.FindMember(key); }

 private:
  const rapidjson::Value* Find(const char* key) {
    const auto it = root_.FindMember(key);
    if (it == root_.MemberEnd()) {
      notes_.push_back({key, KeyIssue::kMissing});
      return nullptr;
    }
    return &it->value;
  }

  template <typename T>
  T WrongType(const char* key, T fallback) {
    notes_.push_back({key, KeyIssue::kWrongType});
    return fallback;
  }

  const rapidjson::Value& root_;
  std::vector<KeyNote>& notes_;
};

// A value of the file is shown up to this many characters: longer than any path or name of ours.
constexpr std::size_t kShownValueChars = 1024;

std::string_view OrEmpty(const char* text) { return text == nullptr ? std::string_view() : std::string_view(text); }

}  // namespace

std::int32_t EffectiveServerPort(std::string_view protocol, std::int32_t serverPort, std::int32_t secondaryPort) {
  return protocol == kSecureProtocol ? secondaryPort : serverPort;
}

JsonSettings ReadJsonSettings(const rapidjson::Value& root, bool on64BitWindows) {
  JsonSettings s;
  KeyReader read(root, s.notes);
  s.installDirectory = read.Text("agent_installed_dir");
  s.installDirectory.append(kDeviceControlSuffix);
  // A NUL would cut the folder short wherever it is used as a C string: no folder is better than
  // a part of one.
  if (s.installDirectory.find('\0') != std::string::npos) s.installDirectory.clear();
  s.registryBasePath = read.Text(on64BitWindows ? "agent_registry_path_64" : "agent_registry_path_32");
  s.resourceId = read.Text("agent_resource_id");
  read.Touch("agent_log_level");  // the log level comes from the registry
  s.agentVersion = read.Text("agent_version");
  s.authToken = read.Text("auth_token");
  s.serverComputerName = read.Text("computer_name");
  s.customerId = read.Text("customer_id");
  s.domainName = read.Text("domain_name");
  s.dynamicKey = read.Text("dynamic_key");
  s.proxyByPass = read.Text("ProxyByPass");
  s.proxyEnabled = read.Text("ProxyEnabled");
  s.proxyPassword = read.Text("ProxyPassword");
  s.proxyServerName = read.Text("ProxyServerName");
  s.proxyUserName = read.Text("ProxyUserName");
  s.remoteOfficeId = read.Text("remoteOffice_id");
  s.serverFlatName = read.Text("server_flatName");
  read.Touch("server_hash_time");
  s.serverInstalledTime = read.Text("server_installed_time", "0");
  s.serverIpAddress = read.Text("server_ip_address");
  s.serverName = read.Text("server_name");
  s.serverPort = read.Integer("server_port");
  s.serverProtocol = read.Text("server_protocol");
  s.serverSecIpAddress = read.Text("server_sec_ip_address");
  s.serverSecPort = read.Integer("server_sec_port");
  s.effectiveServerPort = EffectiveServerPort(s.serverProtocol, s.serverPort, s.serverSecPort);
  return s;
}

std::vector<std::string> SummaryLines(const SummaryFields& f) {
  std::vector<std::string> lines;
  const auto add = [&lines](std::string_view label, std::string_view value, std::string_view tail = {}) {
    std::string line;
    line.reserve(label.size() + value.size() + tail.size());
    line.append(label).append(value).append(tail);
    lines.push_back(std::move(line));
  };
  // The file's text as a line may show it: a line break in a value would forge a record of its own.
  const auto text = [](const char* value) { return logformat::PrintableText(OrEmpty(value), kShownValueChars); };
  const auto number = [](auto value) { return std::to_string(value); };

  const std::string frame(66, '*');
  lines.push_back(frame);
  add("Server Name                      ->", text(f.serverName));
  add("Server Flat Name                 ->", text(f.serverFlatName));
  add("Server IPAddress                 ->", text(f.serverIpAddress));
  add("Server Secondary IPAddress       ->", text(f.serverSecIpAddress));
  add("Last Access Name                 ->", text(f.lastAccessName));
  add("Server Port                      ->", number(f.serverPort));
  add("Server Protocol                  ->", text(f.serverProtocol));
  add("Agent Version                    ->", text(f.agentVersion));
  add("Agent Installed Directory        ->", text(f.installDirectory));
  add("Client Namespace                 ->", text(f.clientNamespace));
  add("Server Data Path                 ->", text(f.serverDataPath));
  add("MSP Name                         ->", text(f.mspName));
  add("Customer Name                    ->", text(f.customerName));
  add("Customer Id                      ->", text(f.customerId));
  add("Product Code                     ->", text(f.productCode));
  add("Local Computer Name              ->", text(f.localComputerName));
  add("Local Computer IP Address        ->", text(f.localIpAddress));
  add("Local Computer MAC Address       ->", text(f.localMacAddress));
  add("Local Computer Subnet Mask       ->", text(f.localSubnetMask));
  add("Distribution Server Enabled      ->", text(f.distributionServerEnabled));
  add("Remote office name is            ->", text(f.remoteOfficeName));
  add("Agent HTTP Request Timeout       ->", number(f.httpRequestTimeout));
  add("Local Computer Domain controller ->", text(f.localDomainController));
  add("Agent Machine Resource Id        ->", text(f.resourceId));
  add("Agent Checksum Enabled           ->", text(f.checksumEnabled));
  add("Agent Data Transfer Rate in KBps ->", number(f.dataTransferRateKBps));
  add("Agent Installation Source        ->", text(f.installationSource));
  add("Agent Installation Mode          ->", number(f.installationMode), "(2->silent, 5->Manual)");
  if (text(f.distributionServerEnabled) == "yes") {
    add("Distribution Server Name             ->", text(f.distServerName));
    add("Distribution Server IPAddress        ->", text(f.distServerIpAddress));
    add("Distribution Server Sec IPAddress    ->", text(f.distServerSecIpAddress));
    add("Distribution Server Port             ->", number(f.distServerPort));
    add("Distribution Server Last Access Name ->", text(f.distServerLastAccessName));
    add("Distribution Server Protocol         ->", text(f.distServerProtocol));
    add("Remote Office ID                     ->", text(f.remoteOfficeId));
  }
  lines.push_back(frame);
  return lines;
}

}  // namespace korva::agentjson
