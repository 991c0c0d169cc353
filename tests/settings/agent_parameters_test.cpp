// AgentParameters filled from the real registry and real settings files, and the start-up log it writes.
#include "settings/agent_parameters.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "support/test_support.h"
#include "win/bitness.h"

namespace {

using korva::test::HasLogLine;
using korva::test::LogCapture;

constexpr const char* kInit = "InitializeAgentParameters";
constexpr const char* kLoad = "LoadGlobalVariablesJSON";

void SetValue(const char* key, const char* name, DWORD type, const void* data, DWORD size) {
  HKEY handle = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, key, 0, nullptr, 0, KEY_SET_VALUE | korva::win::kAgentRegistryView, nullptr, &handle, nullptr), 0);
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

constexpr const char* kFullJson = R"({"agent_installed_dir": "C:\\Korva\\", "agent_registry_path_32": "SOFTWARE\\R32",
  "agent_registry_path_64": "SOFTWARE\\R64", "auth_token": "TOKEN-3f9a", "dynamic_key": "DYNKEY-77c1",
  "ProxyPassword": "PROXYPW-0b2e", "server_name": "srv.corp", "server_port": 80, "server_protocol": "https",
  "server_sec_port": 8443})";

class AgentParametersTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    korva::test::CleanAgentRegistry();
    korva::ResetAgentParametersForTest();
  }
  // Writes the settings file (unless `bytes` is null) and points "GlobalJsonPath" at it.
  void UseJson(const char* bytes, std::size_t size) {
    DeleteFileW(dir_.File(L"agent.json").c_str());
    if (bytes != nullptr) korva::test::WriteFileBytes(dir_.File(L"agent.json"), std::string(bytes, size));
    SetString("GlobalJsonPath", dir_.NarrowPath() + "\\agent.json");
  }
  void UseJson(const char* bytes) { UseJson(bytes, std::strlen(bytes)); }

  korva::test::TempDir dir_;
};

void ExpectStartUpCompleted(const std::string& log) {
  EXPECT_TRUE(HasLogLine(log, kInit, "Local Machine Details initialized successfully."));
  EXPECT_TRUE(HasLogLine(log, kInit, "Agent Installation Mode          ->0(2->silent, 5->Manual)"));
  EXPECT_TRUE(HasLogLine(log, kInit, "@@@ End of InitializeAgentParameters @@@"));
}

// Only an "ImagedComputer" of exactly 1 marks an imaged computer.
TEST_F(AgentParametersTest, WithoutTheSubProductFlagNoJsonIsRead) {
  UseJson(kFullJson);
  SetDword("ImagedComputer", 1);
  LogCapture log;
  InitializeAgentParameters();
  const std::string out = log.Text();
  EXPECT_TRUE(HasLogLine(out, kInit, "Going to load details from registry."));
  EXPECT_EQ(out.find("CRapidJSONClass"), std::string::npos);
  ExpectStartUpCompleted(out);
  EXPECT_EQ(AgentParameters.serverName, nullptr);
  EXPECT_EQ(Text(AgentParameters.serverProtocol), "http");
  EXPECT_EQ(AgentParameters.imagedComputer, 1u);
  EXPECT_TRUE(HasLogLine(out, kInit, "Computer is detected as imaged One..."));
}

TEST_F(AgentParametersTest, JsonFillsTheRecordAndTheSummaryNeverShowsSecrets) {
  UseJson(kFullJson);
  SetDword("IsTESKSubProduct", 1);
  SetString("BasePath", "C:\\KorvaData");
  SetDword("ImagedComputer", 2);
  LogCapture log;
  InitializeAgentParameters();
  const std::string out = log.Text();

  const auto& p = AgentParameters;
  // The prefix is 64-bit Windows: both builds take the 64-bit path.
  EXPECT_EQ(Text(p.registryBasePath), "SOFTWARE\\R64");
  EXPECT_EQ(Text(p.authToken), "TOKEN-3f9a");
  EXPECT_EQ(p.effectiveServerPort, 8443);
  EXPECT_EQ(Text(p.basePath), "C:\\KorvaData");

  EXPECT_EQ(p.imagedComputer, 0u);
  EXPECT_TRUE(HasLogLine(out, kInit, "Computer is not an imaged one..."));
  EXPECT_TRUE(HasLogLine(out, kInit, "Details successfully loaded from Json file."));
  ExpectStartUpCompleted(out);
  EXPECT_TRUE(HasLogLine(out, kInit, std::string(66, '*')));
  EXPECT_TRUE(HasLogLine(out, kInit, "Server Name                      ->srv.corp"));
  EXPECT_TRUE(HasLogLine(out, kInit, "Server Port                      ->8443"));
  EXPECT_TRUE(HasLogLine(out, kInit, "Local Computer Name              ->" + Text(p.localComputerName)));
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
  EXPECT_EQ(p.effectiveServerPort, 0);
  const std::string out = log.Text();
  EXPECT_TRUE(HasLogLine(out, kLoad, "Key not found in Json, default used : server_port"));
  EXPECT_TRUE(HasLogLine(out, "BasePath", "Unable to read BasePath from registry with code : 2"));
}

// Each bad settings file gets the reading class's own line, then start-up goes on from the registry.
TEST_F(AgentParametersTest, JsonFailuresAreLoggedAndStartUpContinues) {
  struct Case {
    const char* bytes;  // nullptr: no file
    std::size_t size;
    const char* line;  // the reading class's line; nullptr: no "GlobalJsonPath" value
  };
  const Case cases[] = {
      {nullptr, 0, nullptr},
      {nullptr, 0, "[ CRapidJSONClass::LoadJsonFromFile ] Unable to convert json file to string."},
      {"", 0, "[ CRapidJSONClass::StringToJsonDom ] Unable to parse string json."},
      {"{\"server_name\": \"srv\"", 21,
       "[ CRapidJSONClass::LoadJsonFromFile ] Unable to convert json string to Json DOM."},
      {"{\"server_name\":\0\"srv\"}", 22, "[ CRapidJSONClass::StringToJsonDom ] Unable to parse string json."}};
  for (const Case& c : cases) {
    Reset();
    SetDword("IsTESKSubProduct", 1);
    if (c.line != nullptr) UseJson(c.bytes, c.size);
    LogCapture log;
    InitializeAgentParameters();
    const std::string out = log.Text();
    EXPECT_TRUE(HasLogLine(out, kInit, "Unable to load details from Json file. So going to try with registry."));
    EXPECT_TRUE(HasLogLine(out, kLoad,
                           c.line ? "Unable to load the JSON file with code : 13"
                                  : "Unable to read GlobalJsonPath from registry with code : 2"));
    if (c.line != nullptr) {
      EXPECT_NE(out.find(std::string(c.line) + "\r\n"), std::string::npos) << c.line;
    }
    ExpectStartUpCompleted(out);
    EXPECT_EQ(AgentParameters.serverName, nullptr);
  }
}

TEST_F(AgentParametersTest, RegistryStringsAreHeapCopiesAndMissingOnesAreLogged) {
  SetString("AgentInstallDir", "C:\\Program Files\\Korva");
  SetValue("Software\\Kestrelix\\Quovane\\QVAgent", "DotNetVersion", REG_SZ, "4.8", 4);
  char* dir = nullptr;
  EXPECT_EQ(AgentInstallDir(&dir), 0);
  EXPECT_EQ(Text(dir), "C:\\Program Files\\Korva");
  std::free(dir);
  EXPECT_EQ(getDotNetVersionForInvokingExe(), "4.8");

  Reset();
  LogCapture log;
  char* missing = nullptr;
  EXPECT_EQ(AgentInstallDir(&missing), ERROR_FILE_NOT_FOUND);
  std::free(missing);
  EXPECT_EQ(getDotNetVersionForInvokingExe(), "");
  const std::string out = log.Text();
  EXPECT_TRUE(HasLogLine(out, "AgentInstallDir", "Unable to read AgentInstallDir from registry with code : 2"));
  EXPECT_TRUE(HasLogLine(out, "getDotNetVersionForInvokingExe", "Unable to obtain the value from registry."));
}

}  // namespace
