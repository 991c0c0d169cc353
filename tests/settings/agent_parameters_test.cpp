// AgentParameters filled from the real registry and real settings files, and the start-up log it writes.
#include "settings/agent_parameters.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "support/test_support.h"

namespace {

using korva::test::HasLogLine;
using korva::test::HasLogLineStartingWith;
using korva::test::LogCapture;
using korva::test::TempDir;

constexpr const char* kInit = "InitializeAgentParameters";
constexpr const char* kLoad = "LoadGlobalVariablesJSON";

void SetValue(const char* key, const char* name, DWORD type, const void* data, DWORD size) {
  HKEY handle = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, key, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &handle, nullptr), 0);
  EXPECT_EQ(RegSetValueExA(handle, name, 0, type, static_cast<const BYTE*>(data), size), 0);
  RegCloseKey(handle);
}
void SetDword(const char* name, DWORD value) {
  SetValue(korva::test::kAgentKey, name, REG_DWORD, &value, sizeof value);
}
void SetString(const char* name, const std::string& value) {
  SetValue(korva::test::kAgentKey, name, REG_SZ, value.c_str(), static_cast<DWORD>(value.size() + 1));
}

std::string Text(const char* field) { return field == nullptr ? "<null>" : field; }

constexpr const char* kFullJson = R"({
  "agent_installed_dir": "C:\\Korva\\", "agent_registry_path_32": "SOFTWARE\\R32",
  "agent_registry_path_64": "SOFTWARE\\R64", "agent_resource_id": "res-1", "agent_log_level": 6,
  "agent_version": "3.1.4", "auth_token": "TOKEN-3f9a", "computer_name": "PC-SERVER-VIEW",
  "customer_id": "cust-9", "domain_name": "corp", "dynamic_key": "DYNKEY-77c1", "ProxyByPass": "*.corp",
  "ProxyEnabled": "1", "ProxyPassword": "PROXYPW-0b2e", "ProxyServerName": "proxy.corp", "ProxyUserName": "pu",
  "remoteOffice_id": "ro-2", "server_flatName": "SRVFLAT", "server_hash_time": "77",
  "server_installed_time": "1700000000", "server_ip_address": "10.0.0.1", "server_name": "srv.corp",
  "server_port": 80, "server_protocol": "https", "server_sec_ip_address": "10.0.0.2", "server_sec_port": 8443})";

class AgentParametersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korva::test::CleanAgentRegistry();
    korva::ResetAgentParametersForTest();
  }
  void TearDown() override {
    korva::test::CleanAgentRegistry();
    korva::ResetAgentParametersForTest();
  }
  // Writes the settings file and points "GlobalJsonPath" at it.
  void UseJson(const std::string& bytes) {
    korva::test::WriteFileBytes(dir_.File(L"agent.json"), bytes);
    SetString("GlobalJsonPath", dir_.NarrowPath() + "\\agent.json");
  }

  TempDir dir_;
};

void ExpectStaticDefaults() {
  const auto& p = AgentParameters;
  EXPECT_EQ(p.serverName, nullptr);
  EXPECT_EQ(p.installDirectory, nullptr);
  EXPECT_EQ(p.distributionServerEnabled, nullptr);
  EXPECT_EQ(p.basePath, nullptr);
  EXPECT_EQ(Text(p.serverProtocol), "http");
  EXPECT_EQ(Text(p.distServerProtocol), "http");
  EXPECT_EQ(Text(p.proxyByPass), "<local>");
  EXPECT_EQ(Text(p.scheduleDays), "1,2,3,4,5,6,7");
  EXPECT_EQ(Text(p.scheduleStartTime), "00:00:00");
  EXPECT_EQ(Text(p.scheduleEndTime), "23:59:59");
  EXPECT_EQ(Text(p.siblingEditionTag), "TESKEE");
  EXPECT_EQ(Text(p.productDisplayName), "Tallowmere Korva - Agent");
  EXPECT_STREQ(p.ifModifiedSinceKey, "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\IfModifiedSince");
  EXPECT_STREQ(p.configScheduleKey, "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\CollectionHistory\\ConfigSchedule");
}

void ExpectStartUpCompleted(const std::string& log) {
  EXPECT_TRUE(HasLogLine(log, kInit, "Local Machine Details initialized successfully."));
  EXPECT_TRUE(HasLogLine(log, kInit, std::string(66, '*')));
  EXPECT_TRUE(HasLogLine(log, kInit, "Agent Installation Mode          ->0(2->silent, 5->Manual)"));
  EXPECT_TRUE(HasLogLine(log, kInit, "Computer is not an imaged one..."));
  EXPECT_TRUE(HasLogLine(log, kInit, "@@@ End of InitializeAgentParameters @@@"));
}

TEST_F(AgentParametersTest, WithoutTheSubProductFlagNoJsonIsRead) {
  UseJson(kFullJson);
  for (const bool present : {false, true}) {
    korva::ResetAgentParametersForTest();
    if (present) SetDword("IsTESKSubProduct", 0);
    LogCapture log;
    InitializeAgentParameters();
    const std::string out = log.Text();
    EXPECT_TRUE(HasLogLine(out, kInit, "Going to load details from registry.")) << present;
    EXPECT_EQ(out.find("Going to load details from Json file."), std::string::npos) << present;
    EXPECT_EQ(out.find("@@@ Inside LoadGlobalVariablesJSON @@@"), std::string::npos) << present;
    EXPECT_EQ(out.find("CRapidJSONClass"), std::string::npos) << present;
    ExpectStaticDefaults();
    ExpectStartUpCompleted(out);
    EXPECT_TRUE(HasLogLine(out, kInit, "Server Name                      ->"));
    EXPECT_TRUE(HasLogLine(out, kInit, "Server Protocol                  ->http"));
    EXPECT_NE(Text(AgentParameters.localComputerName), "");
  }
}

TEST_F(AgentParametersTest, JsonFillsTheRecordAndTheSummaryNeverShowsSecrets) {
  UseJson(kFullJson);
  SetDword("IsTESKSubProduct", 1);
  SetString("BasePath", "C:\\KorvaData");
  LogCapture log;
  InitializeAgentParameters();
  const std::string out = log.Text();

  const auto& p = AgentParameters;
  BOOL wow64 = FALSE;
  ASSERT_TRUE(IsWow64Process(GetCurrentProcess(), &wow64));
  EXPECT_EQ(p.isWow64, wow64 ? 1 : 0);
  EXPECT_EQ(Text(p.registryBasePath), wow64 ? "SOFTWARE\\R64" : "SOFTWARE\\R32");
  EXPECT_EQ(Text(p.installDirectory), "C:\\Korva\\DeviceControl\\");
  EXPECT_EQ(Text(p.authToken), "TOKEN-3f9a");
  EXPECT_EQ(Text(p.dynamicKey), "DYNKEY-77c1");
  EXPECT_EQ(Text(p.proxyPassword), "PROXYPW-0b2e");
  EXPECT_EQ(Text(p.serverName), "srv.corp");
  EXPECT_EQ(p.effectiveServerPort, 8443);
  EXPECT_EQ(Text(p.distributionServerEnabled), "no");
  EXPECT_EQ(Text(p.basePath), "C:\\KorvaData");

  EXPECT_TRUE(HasLogLine(out, kInit, "Going to load details from Json file."));
  EXPECT_TRUE(HasLogLine(out, kInit, "Details successfully loaded from Json file."));
  ExpectStartUpCompleted(out);
  EXPECT_TRUE(HasLogLine(out, kInit, "Server Name                      ->srv.corp"));
  EXPECT_TRUE(HasLogLine(out, kInit, "Server Port                      ->8443"));
  EXPECT_TRUE(HasLogLine(out, kInit, "Server Protocol                  ->https"));
  EXPECT_TRUE(HasLogLine(out, kInit, "Agent Installed Directory        ->C:\\Korva\\DeviceControl\\"));
  EXPECT_TRUE(HasLogLine(out, kInit, "Distribution Server Enabled      ->no"));
  EXPECT_TRUE(HasLogLine(out, kInit, "Local Computer Name              ->" + Text(p.localComputerName)));
  EXPECT_TRUE(HasLogLine(out, kInit, "Local Computer IP Address        ->" + Text(p.localIpAddress)));
  EXPECT_EQ(out.find("Distribution Server Name"), std::string::npos);
  for (const char* secret : {"TOKEN-3f9a", "DYNKEY-77c1", "PROXYPW-0b2e"}) {
    EXPECT_EQ(out.find(secret), std::string::npos) << secret;
  }
}

TEST_F(AgentParametersTest, MissingKeysGiveTheirDefaultsAndAreLogged) {
  UseJson(R"({"server_name": "only"})");
  LogCapture log;
  ASSERT_EQ(LoadGlobalVariablesJSON(), 0);
  const auto& p = AgentParameters;
  EXPECT_EQ(Text(p.serverName), "only");
  EXPECT_EQ(Text(p.installDirectory), "DeviceControl\\");
  EXPECT_EQ(Text(p.serverInstalledTime), "0");
  EXPECT_EQ(Text(p.serverProtocol), "");
  EXPECT_EQ(Text(p.authToken), "");
  EXPECT_EQ(p.serverPort, 0);
  EXPECT_EQ(p.effectiveServerPort, 0);
  EXPECT_EQ(Text(p.basePath), "");  // no "BasePath" value
  const std::string out = log.Text();
  EXPECT_TRUE(HasLogLine(out, kLoad, "Key not found in Json, default used : server_port"));
  EXPECT_TRUE(HasLogLine(out, "BasePath", "Unable to read BasePath from registry with code : 2"));
}

TEST_F(AgentParametersTest, JsonFailuresAreLoggedAndStartUpContinues) {
  struct Case {
    const char* name;
    bool setPath;    // "GlobalJsonPath" names agent.json
    bool writeFile;  // agent.json exists with `bytes`
    std::string bytes;
  };
  const Case cases[] = {{"no path value", false, false, ""},
                        {"absent file", true, false, ""},
                        {"empty file", true, true, ""},
                        {"malformed", true, true, "{\"server_name\": \"srv\""},
                        {"cut at NUL", true, true, std::string("{\"server_name\":\0\"srv\"}", 22)},
                        {"array root", true, true, "[{\"server_name\": \"srv\"}]"}};
  for (const Case& c : cases) {
    korva::test::CleanAgentRegistry();
    korva::ResetAgentParametersForTest();
    DeleteFileW(dir_.File(L"agent.json").c_str());
    SetDword("IsTESKSubProduct", 1);
    if (c.writeFile) korva::test::WriteFileBytes(dir_.File(L"agent.json"), c.bytes);
    if (c.setPath) SetString("GlobalJsonPath", dir_.NarrowPath() + "\\agent.json");
    LogCapture log;
    InitializeAgentParameters();
    const std::string out = log.Text();
    EXPECT_TRUE(HasLogLine(out, kInit, "Unable to load details from Json file. So going to try with registry."))
        << c.name;
    EXPECT_TRUE(HasLogLine(out, kLoad,
                           c.setPath ? "Unable to load the JSON file with code : 13"
                                     : "Unable to read GlobalJsonPath from registry with code : 2"))
        << c.name;
    ExpectStartUpCompleted(out);
    EXPECT_EQ(AgentParameters.serverName, nullptr) << c.name;
    EXPECT_EQ(Text(AgentParameters.serverProtocol), "http") << c.name;
  }
}

TEST_F(AgentParametersTest, ImagedComputerIsOnlyTheValueOne) {
  struct Case { bool present; DWORD value; DWORD flag; const char* line; };
  for (const Case& c : {Case{false, 0, 0, "Computer is not an imaged one..."},
                        Case{true, 1, 1, "Computer is detected as imaged One..."},
                        Case{true, 0, 0, "Computer is not an imaged one..."},
                        Case{true, 2, 0, "Computer is not an imaged one..."}}) {
    korva::test::CleanAgentRegistry();
    if (c.present) SetDword("ImagedComputer", c.value);
    LogCapture log;
    InitializeAgentParameters();
    EXPECT_EQ(AgentParameters.imagedComputer, c.flag) << c.value;
    EXPECT_TRUE(HasLogLine(log.Text(), kInit, c.line)) << c.value;
  }
}

TEST_F(AgentParametersTest, AgentKeyStringsAreHandedBackAsHeapCopies) {
  SetString("AgentInstallDir", "C:\\Program Files\\Korva");
  SetString("BasePath", "C:\\ProgramData\\Korva");
  char* dir = nullptr;
  char* base = nullptr;
  EXPECT_EQ(AgentInstallDir(&dir), 0);
  EXPECT_EQ(BasePath(&base), 0);
  const std::unique_ptr<char, decltype(&std::free)> dirOwner(dir, &std::free), baseOwner(base, &std::free);
  EXPECT_EQ(Text(dir), "C:\\Program Files\\Korva");
  EXPECT_EQ(Text(base), "C:\\ProgramData\\Korva");

  korva::test::CleanAgentRegistry();
  LogCapture log;
  char* missing = nullptr;
  EXPECT_EQ(AgentInstallDir(&missing), ERROR_FILE_NOT_FOUND);
  std::free(missing);
  EXPECT_TRUE(HasLogLine(log.Text(), "AgentInstallDir", "Unable to read AgentInstallDir from registry with code : 2"));
}

TEST_F(AgentParametersTest, DotNetVersionComesFromTheCompanionAgentKey) {
  {
    LogCapture log;
    EXPECT_EQ(getDotNetVersionForInvokingExe(), "");
    EXPECT_TRUE(HasLogLine(log.Text(), "getDotNetVersionForInvokingExe", "Unable to obtain the value from registry."));
  }
  SetValue("Software\\Kestrelix\\Quovane\\QVAgent", "DotNetVersion", REG_SZ, "4.8", 4);
  LogCapture log;
  EXPECT_EQ(getDotNetVersionForInvokingExe(), "4.8");
  EXPECT_EQ(log.Text().find("Unable to obtain"), std::string::npos);
}

TEST_F(AgentParametersTest, EnvironmentFieldsAndRerunsAndReset) {
  char temp[MAX_PATH] = {};
  GetEnvironmentVariableA("TEMP", temp, sizeof temp);
  UseJson(kFullJson);
  SetDword("IsTESKSubProduct", 1);
  InitializeAgentParameters();
  InitializeAgentParameters();  // a second run replaces every field it writes
  EXPECT_EQ(Text(AgentParameters.tempDirectory), temp);
  EXPECT_NE(AgentParameters.disableFsRedirection, nullptr);
  EXPECT_NE(AgentParameters.revertFsRedirection, nullptr);
  EXPECT_EQ(Text(AgentParameters.serverName), "srv.corp");

  // A TEMP the 255-byte buffer cannot hold leaves the field empty.
  ASSERT_TRUE(SetEnvironmentVariableA("TEMP", std::string(300, 'T').c_str()));
  InitializeAgentParameters();
  SetEnvironmentVariableA("TEMP", temp);
  EXPECT_EQ(Text(AgentParameters.tempDirectory), "");

  korva::ResetAgentParametersForTest();
  ExpectStaticDefaults();
  EXPECT_EQ(AgentParameters.tempDirectory, nullptr);
  EXPECT_EQ(AgentParameters.localComputerName, nullptr);
}

}  // namespace
