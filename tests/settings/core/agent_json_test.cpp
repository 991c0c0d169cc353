// The settings file's keys mapped to values and defaults, the effective port, the summary text.
#include "settings/core/agent_json.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace aj = korva::agentjson;

namespace {

aj::JsonSettings Read(const std::string& json, bool wow64 = false) {
  rapidjson::Document document;
  document.Parse(json.c_str());
  EXPECT_FALSE(document.HasParseError()) << json;
  return aj::ReadJsonSettings(document, wow64);
}

bool Noted(const aj::JsonSettings& s, const std::string& key, aj::KeyIssue issue) {
  return std::any_of(s.notes.begin(), s.notes.end(),
                     [&](const aj::KeyNote& n) { return n.key == key && n.issue == issue; });
}

// Each text key holds its own name, so a field filled from the wrong key shows which one it took.
TEST(AgentJson, EveryKeyLandsInItsField) {
  // clang-format off
  const std::vector<std::string> keys = {
      "agent_registry_path_32", "agent_resource_id", "agent_version", "auth_token", "computer_name", "customer_id",
      "domain_name", "dynamic_key", "ProxyByPass", "ProxyEnabled", "ProxyPassword", "ProxyServerName", "ProxyUserName",
      "remoteOffice_id", "server_flatName", "server_installed_time", "server_ip_address", "server_name",
      "server_protocol", "server_sec_ip_address"};
  // clang-format on
  std::string json = R"({"agent_installed_dir": "C:\\Korva\\", "agent_registry_path_64": "R64", "agent_log_level": 6,
      "server_hash_time": "x", "server_port": 80, "server_sec_port": 443)";
  for (const std::string& key : keys) json += ", \"" + key + "\": \"" + key + "\"";
  const aj::JsonSettings s = Read(json + "}");
  EXPECT_EQ((std::vector<std::string>{s.registryBasePath,   s.resourceId,     s.agentVersion,   s.authToken,
                                      s.serverComputerName, s.customerId,     s.domainName,     s.dynamicKey,
                                      s.proxyByPass,        s.proxyEnabled,   s.proxyPassword,  s.proxyServerName,
                                      s.proxyUserName,      s.remoteOfficeId, s.serverFlatName, s.serverInstalledTime,
                                      s.serverIpAddress,    s.serverName,     s.serverProtocol, s.serverSecIpAddress}),
            keys);
  EXPECT_EQ(s.installDirectory, "C:\\Korva\\DeviceControl\\");
  EXPECT_EQ(s.serverPort, 80);
  EXPECT_EQ(s.serverSecPort, 443);
  EXPECT_EQ(s.effectiveServerPort, 80);
  EXPECT_TRUE(s.notes.empty());
  EXPECT_EQ(Read(json + "}", true).registryBasePath, "R64");
}

TEST(AgentJson, MissingOrWrongTypedKeysGiveTheirDefaultsAndAreNoted) {
  const aj::JsonSettings s = Read("{}");
  EXPECT_EQ(s.installDirectory, "DeviceControl\\");
  EXPECT_EQ(s.serverInstalledTime, "0");
  EXPECT_EQ(s.effectiveServerPort, 0);
  EXPECT_EQ(s.serverName, "");
  EXPECT_TRUE(Noted(s, "server_port", aj::KeyIssue::kMissing));
  // Looked up but never used, so their absence is not worth a note.
  EXPECT_FALSE(Noted(s, "agent_log_level", aj::KeyIssue::kMissing));
  EXPECT_EQ(s.notes.size(), 23u);

  const aj::JsonSettings w = Read(R"({"server_port": "443", "server_sec_port": 4294967295, "server_name": 12,
                                      "server_installed_time": null, "agent_installed_dir": ["x"]})");
  EXPECT_EQ(w.serverSecPort, 0);
  EXPECT_EQ(w.installDirectory, "DeviceControl\\");
  for (const char* key :
       {"server_port", "server_sec_port", "server_name", "server_installed_time", "agent_installed_dir"}) {
    EXPECT_TRUE(Noted(w, key, aj::KeyIssue::kWrongType)) << key;
  }
}

TEST(AgentJson, OnlyExactLowerCaseHttpsSelectsTheSecondaryPort) {
  for (const char* protocol : {"HTTPS", "Https", "http", "", "https "}) {
    EXPECT_EQ(aj::EffectiveServerPort(protocol, 80, 443), 80) << '"' << protocol << '"';
  }
  EXPECT_EQ(Read(R"({"server_protocol": "https", "server_port": 80, "server_sec_port": 8443})").effectiveServerPort,
            8443);
}

// Each "Label->value" with the label padded to `width`, as the summary lines show them.
std::vector<std::string> Padded(std::size_t width, const std::vector<std::string>& rows) {
  std::vector<std::string> out;
  for (const std::string& row : rows) {
    const std::size_t arrow = row.find("->");
    out.push_back(row.substr(0, arrow) + std::string(width - arrow, ' ') + row.substr(arrow));
  }
  return out;
}

TEST(AgentJsonSummary, FramedBlockWithEveryLabelInOrderAndTheDistributionBlockOnlyForExactYes) {
  aj::SummaryFields f;
  f.serverName = "srv";
  f.serverPort = 8443;
  f.localComputerName = "PC7";
  f.installationMode = 5;
  f.distServerName = "dist";
  f.distServerPort = 81;
  f.remoteOfficeId = "ro";
  const std::string frame(66, '*');
  // clang-format off
  std::vector<std::string> expected = Padded(33, {
      "Server Name->srv", "Server Flat Name->", "Server IPAddress->", "Server Secondary IPAddress->",
      "Last Access Name->", "Server Port->8443", "Server Protocol->", "Agent Version->", "Agent Installed Directory->",
      "Client Namespace->", "Server Data Path->", "MSP Name->", "Customer Name->", "Customer Id->", "Product Code->",
      "Local Computer Name->PC7", "Local Computer IP Address->", "Local Computer MAC Address->",
      "Local Computer Subnet Mask->", "Distribution Server Enabled->", "Remote office name is->",
      "Agent HTTP Request Timeout->0", "Local Computer Domain controller->", "Agent Machine Resource Id->",
      "Agent Checksum Enabled->", "Agent Data Transfer Rate in KBps->0", "Agent Installation Source->",
      "Agent Installation Mode->5(2->silent, 5->Manual)"});
  // clang-format on
  expected.insert(expected.begin(), frame);
  expected.push_back(frame);
  for (const char* flag : {"no", "Yes", "YES", "yes"}) {
    f.distributionServerEnabled = flag;
    expected[20] = "Distribution Server Enabled      ->" + std::string(flag);
    if (std::string(flag) == "yes") {
      const std::vector<std::string> block = Padded(
          37, {"Distribution Server Name->dist", "Distribution Server IPAddress->",
               "Distribution Server Sec IPAddress->", "Distribution Server Port->81",
               "Distribution Server Last Access Name->", "Distribution Server Protocol->", "Remote Office ID->ro"});
      expected.insert(expected.end() - 1, block.begin(), block.end());
    }
    EXPECT_EQ(aj::SummaryLines(f), expected) << flag;
  }
}

}  // namespace
