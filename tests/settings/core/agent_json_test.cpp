// The settings file's keys mapped to values and defaults, the effective port, the summary text.
#include "settings/core/agent_json.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace aj = korva::agentjson;

namespace {

aj::JsonSettings Read(const char* json, bool wow64 = false) {
  rapidjson::Document document;
  document.Parse(json);
  EXPECT_FALSE(document.HasParseError()) << json;
  return aj::ReadJsonSettings(document, wow64);
}

bool Noted(const aj::JsonSettings& s, const std::string& key, aj::KeyIssue issue) {
  return std::any_of(s.notes.begin(), s.notes.end(),
                     [&](const aj::KeyNote& n) { return n.key == key && n.issue == issue; });
}

TEST(AgentJson, EveryKeyLandsInItsField) {
  const aj::JsonSettings s = Read(R"({
    "agent_installed_dir": "C:\\Korva\\", "agent_registry_path_32": "R32", "agent_registry_path_64": "R64",
    "agent_resource_id": "res", "agent_log_level": 6, "agent_version": "3.1", "auth_token": "tok",
    "computer_name": "PC7", "customer_id": "cust", "domain_name": "corp", "dynamic_key": "dyn",
    "ProxyByPass": "*.corp", "ProxyEnabled": "1", "ProxyPassword": "pw", "ProxyServerName": "proxy",
    "ProxyUserName": "pu", "remoteOffice_id": "ro", "server_flatName": "flat", "server_hash_time": "x",
    "server_installed_time": "1700000000", "server_ip_address": "10.0.0.1", "server_name": "srv",
    "server_port": 80, "server_protocol": "http", "server_sec_ip_address": "10.0.0.2", "server_sec_port": 443})");
  EXPECT_EQ(s.installDirectory, "C:\\Korva\\DeviceControl\\");
  EXPECT_EQ(s.registryBasePath, "R32");
  EXPECT_EQ(s.resourceId, "res");
  EXPECT_EQ(s.agentVersion, "3.1");
  EXPECT_EQ(s.authToken, "tok");
  EXPECT_EQ(s.serverComputerName, "PC7");
  EXPECT_EQ(s.customerId, "cust");
  EXPECT_EQ(s.domainName, "corp");
  EXPECT_EQ(s.dynamicKey, "dyn");
  EXPECT_EQ(s.proxyByPass, "*.corp");
  EXPECT_EQ(s.proxyEnabled, "1");
  EXPECT_EQ(s.proxyPassword, "pw");
  EXPECT_EQ(s.proxyServerName, "proxy");
  EXPECT_EQ(s.proxyUserName, "pu");
  EXPECT_EQ(s.remoteOfficeId, "ro");
  EXPECT_EQ(s.serverFlatName, "flat");
  EXPECT_EQ(s.serverInstalledTime, "1700000000");
  EXPECT_EQ(s.serverIpAddress, "10.0.0.1");
  EXPECT_EQ(s.serverName, "srv");
  EXPECT_EQ(s.serverPort, 80);
  EXPECT_EQ(s.serverProtocol, "http");
  EXPECT_EQ(s.serverSecIpAddress, "10.0.0.2");
  EXPECT_EQ(s.serverSecPort, 443);
  EXPECT_EQ(s.effectiveServerPort, 80);
  EXPECT_TRUE(s.notes.empty());
}

TEST(AgentJson, MissingKeysGiveTheirDefaultsAndAreNoted) {
  const aj::JsonSettings s = Read("{}");
  EXPECT_EQ(s.installDirectory, "DeviceControl\\");
  EXPECT_EQ(s.serverInstalledTime, "0");
  EXPECT_EQ(s.serverPort, 0);
  EXPECT_EQ(s.serverSecPort, 0);
  EXPECT_EQ(s.effectiveServerPort, 0);
  EXPECT_EQ(s.serverName, "");
  EXPECT_EQ(s.serverProtocol, "");
  EXPECT_EQ(s.authToken, "");
  EXPECT_TRUE(Noted(s, "agent_installed_dir", aj::KeyIssue::kMissing));
  EXPECT_TRUE(Noted(s, "server_port", aj::KeyIssue::kMissing));
  // Looked up but never used, so their absence is not worth a note.
  EXPECT_FALSE(Noted(s, "agent_log_level", aj::KeyIssue::kMissing));
  EXPECT_FALSE(Noted(s, "server_hash_time", aj::KeyIssue::kMissing));
  EXPECT_EQ(s.notes.size(), 23u);
}

TEST(AgentJson, WrongTypedValuesFallBackToTheDefault) {
  const aj::JsonSettings s =
      Read(R"({"server_port": "443", "server_sec_port": 3.5, "server_name": 12, "server_installed_time": null,
               "agent_installed_dir": ["x"], "server_protocol": "https"})");
  EXPECT_EQ(s.serverPort, 0);
  EXPECT_EQ(s.serverSecPort, 0);
  EXPECT_EQ(s.serverName, "");
  EXPECT_EQ(s.serverInstalledTime, "0");
  EXPECT_EQ(s.installDirectory, "DeviceControl\\");
  for (const char* key : {"server_port", "server_sec_port", "server_name", "server_installed_time",
                          "agent_installed_dir"}) {
    EXPECT_TRUE(Noted(s, key, aj::KeyIssue::kWrongType)) << key;
  }
  const aj::JsonSettings big = Read(R"({"server_port": 4294967295})");
  EXPECT_EQ(big.serverPort, 0);
  EXPECT_TRUE(Noted(big, "server_port", aj::KeyIssue::kWrongType));
}

TEST(AgentJson, RegistryPathKeyFollowsWow64) {
  const char* json = R"({"agent_registry_path_32": "R32", "agent_registry_path_64": "R64"})";
  EXPECT_EQ(Read(json, false).registryBasePath, "R32");
  EXPECT_EQ(Read(json, true).registryBasePath, "R64");
  EXPECT_EQ(Read(R"({"agent_registry_path_32": "R32"})", true).registryBasePath, "");
}

TEST(AgentJson, OnlyExactLowerCaseHttpsSelectsTheSecondaryPort) {
  struct Case { const char* protocol; std::int32_t expected; };
  const Case cases[] = {{"https", 443}, {"HTTPS", 80}, {"Https", 80}, {"http", 80},
                        {"", 80},       {"https ", 80}, {" https", 80}};
  for (const Case& c : cases) {
    EXPECT_EQ(aj::EffectiveServerPort(c.protocol, 80, 443), c.expected) << '"' << c.protocol << '"';
  }
  EXPECT_EQ(Read(R"({"server_protocol": "https", "server_port": 80, "server_sec_port": 8443})").effectiveServerPort,
            8443);
  EXPECT_EQ(Read(R"({"server_protocol": "HTTPS", "server_port": 80, "server_sec_port": 8443})").effectiveServerPort,
            80);
}

std::vector<std::string> Lines(const aj::SummaryFields& f) { return aj::SummaryLines(f); }

TEST(AgentJsonSummary, FramedBlockWithEveryLabelInOrder) {
  aj::SummaryFields f;
  f.serverName = "srv";
  f.serverPort = 8443;
  f.localComputerName = "PC7";
  f.installationMode = 5;
  f.distributionServerEnabled = "no";
  const std::vector<std::string> lines = Lines(f);
  const std::string frame(66, '*');
  const std::vector<std::string> expected = {
      frame,
      "Server Name                      ->srv",
      "Server Flat Name                 ->",
      "Server IPAddress                 ->",
      "Server Secondary IPAddress       ->",
      "Last Access Name                 ->",
      "Server Port                      ->8443",
      "Server Protocol                  ->",
      "Agent Version                    ->",
      "Agent Installed Directory        ->",
      "Client Namespace                 ->",
      "Server Data Path                 ->",
      "MSP Name                         ->",
      "Customer Name                    ->",
      "Customer Id                      ->",
      "Product Code                     ->",
      "Local Computer Name              ->PC7",
      "Local Computer IP Address        ->",
      "Local Computer MAC Address       ->",
      "Local Computer Subnet Mask       ->",
      "Distribution Server Enabled      ->no",
      "Remote office name is            ->",
      "Agent HTTP Request Timeout       ->0",
      "Local Computer Domain controller ->",
      "Agent Machine Resource Id        ->",
      "Agent Checksum Enabled           ->",
      "Agent Data Transfer Rate in KBps ->0",
      "Agent Installation Source        ->",
      "Agent Installation Mode          ->5(2->silent, 5->Manual)",
      frame};
  EXPECT_EQ(lines, expected);
}

TEST(AgentJsonSummary, DistributionBlockOnlyForExactYes) {
  aj::SummaryFields f;
  f.distServerName = "dist";
  f.distServerPort = 81;
  f.distServerProtocol = "http";
  f.remoteOfficeId = "ro";
  for (const char* flag : {"no", "Yes", "YES", ""}) {
    f.distributionServerEnabled = flag;
    EXPECT_EQ(Lines(f).size(), 30u) << flag;
  }
  f.distributionServerEnabled = nullptr;
  EXPECT_EQ(Lines(f).size(), 30u);
  f.distributionServerEnabled = "yes";
  const std::vector<std::string> lines = Lines(f);
  ASSERT_EQ(lines.size(), 37u);
  const std::vector<std::string> block(lines.begin() + 29, lines.end() - 1);
  EXPECT_EQ(block, (std::vector<std::string>{"Distribution Server Name             ->dist",
                                             "Distribution Server IPAddress        ->",
                                             "Distribution Server Sec IPAddress    ->",
                                             "Distribution Server Port             ->81",
                                             "Distribution Server Last Access Name ->",
                                             "Distribution Server Protocol         ->http",
                                             "Remote Office ID                     ->ro"}));
  EXPECT_EQ(lines.back(), std::string(66, '*'));
}

}  // namespace
