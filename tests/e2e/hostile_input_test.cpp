// Damaged input never keeps the service from running: each row damages one thing the start-up
// reads (the settings file, an agent registry value), starts the real service through the service
// control manager, and expects RUNNING, the logged reaction, the damaged input left as it was, and
// a clean stop.
#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "settings/registry.h"
#include "support/service_support.h"
#include "support/test_support.h"

namespace {

using korva::test::TempDir;

constexpr wchar_t kAgentKeyW[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent";
// With no usable BasePath the log goes to "\logs" of the service's current drive.
constexpr wchar_t kRootLog[] = L"C:\\logs\\korva_agentservice.log";

std::string Nested(std::size_t depth, const std::string& open, const std::string& close) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) text += open;
  for (std::size_t i = 0; i < depth; ++i) text += close;
  return text;
}

void SettingsFile(const TempDir& folder, const std::string& bytes) {
  korva::test::WriteFileBytes(folder.File(L"agent.json"), bytes);
}

// Stores `bytes` exactly as given (narrow text, no terminator added) as a value of the agent key,
// next to a valid settings file, whose loading reads BasePath again once the log is open.
void SetRawAgentValue(const TempDir& folder, const char* name, DWORD type, const std::string& bytes) {
  SettingsFile(folder, "{}");
  const auto key = korva::test::OpenAgentKey(kAgentKeyW);
  ASSERT_TRUE(key);
  ASSERT_EQ(RegSetValueExA(key.get(), name, 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
                           static_cast<DWORD>(bytes.size())),
            ERROR_SUCCESS);
}

// The raw type and bytes of an agent value, to show the service left it alone.
std::string RawAgentValue(const char* name) {
  const auto key = korva::test::OpenAgentKey(kAgentKeyW);
  DWORD type = REG_NONE;
  DWORD size = 0;
  if (!key || RegQueryValueExA(key.get(), name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS) return "missing";
  std::string bytes(size, '\0');
  RegQueryValueExA(key.get(), name, nullptr, &type, reinterpret_cast<BYTE*>(bytes.data()), &size);
  return std::to_string(type) + ":" + bytes;
}

struct Row {
  const char* name;
  // Damages the input; `folder` is the agent's folder (BasePath), its settings file "agent.json".
  std::function<void(const TempDir& folder)> damage;
  const char* function;  // the logged reaction: a line of this function containing `text`
  const char* text;
  bool logsAtRoot;            // the damage takes BasePath away, so the log moves
  const char* registryValue;  // the damaged registry value, or null for the settings file
};

const Row kRows[] = {
    {"TruncatedSettings", [](const TempDir& d) { SettingsFile(d, R"({"agent_installed_dir": "C:\\ag)"); },
     "CRapidJSONClass::StringToJsonDom", "Unable to parse string json.", false, nullptr},
    {"EmptySettings", [](const TempDir& d) { SettingsFile(d, ""); }, "CRapidJSONClass::StringToJsonDom",
     "Unable to parse string json.", false, nullptr},
    {"BinarySettingsWithNuls", [](const TempDir& d) { SettingsFile(d, std::string("\x01\xfe\0{\"a\":1}\0\xff", 11)); },
     "CRapidJSONClass::StringToJsonDom", "Unable to parse string json.", false, nullptr},
    {"SettingsNotAnObject", [](const TempDir& d) { SettingsFile(d, "[1, 2, 3]"); }, "LoadGlobalVariablesJSON",
     "Unable to load the JSON file with code : 13", false, nullptr},
    {"SettingsValueOfWrongType", [](const TempDir& d) { SettingsFile(d, R"({"agent_installed_dir": 5})"); },
     "LoadGlobalVariablesJSON", "Key has an unexpected type in Json, default used : agent_installed_dir", false,
     nullptr},
    {"MillionNestedArrays", [](const TempDir& d) { SettingsFile(d, Nested(1000000, "[", "]")); },
     "CRapidJSONClass::StringToJsonDom", "JSON parse stopped at offset 64: nesting deeper than 64 levels", false,
     nullptr},
    {"MillionNestedObjects", [](const TempDir& d) { SettingsFile(d, Nested(1000000, "{\"a\":", "}")); },
     "CRapidJSONClass::StringToJsonDom", "JSON parse stopped at offset 320: nesting deeper than 64 levels", false,
     nullptr},
    {"HugeStringAndKey",
     [](const TempDir& d) {
       SettingsFile(d, "{\"" + std::string(1 << 20, 'k') + "\": \"" + std::string(8 << 20, 'x') + "\"}");
     },
     "LoadGlobalVariablesJSON", "Key not found in Json, default used : agent_installed_dir", false, nullptr},
    {"SettingsFileOverTheCap", [](const TempDir& d) { SettingsFile(d, std::string(17 << 20, ' ') + "{}"); },
     "CRapidJSONClass::FileToString", "bytes read whole; not read", false, nullptr},
    {"SettingsFileMissing", [](const TempDir&) {}, "CRapidJSONClass::FileToString", "] open failed", false, nullptr},
    {"BasePathMissing",
     [](const TempDir& d) {
       SettingsFile(d, "{}");
       RegDeleteValueA(korva::test::OpenAgentKey(kAgentKeyW).get(), "BasePath");
     },
     "BasePath", "Unable to read BasePath from registry with code : 2", true, "BasePath"},
    {"BasePathOfWrongType",
     [](const TempDir& d) { SetRawAgentValue(d, "BasePath", REG_DWORD, std::string(4, '\x07')); }, "BasePath",
     "Unable to read BasePath from registry with code : 1630", true, "BasePath"},
    {"BasePath32KCharacters",
     [](const TempDir& d) { SetRawAgentValue(d, "BasePath", REG_SZ, std::string(32767, 'b') + '\0'); }, "BasePath",
     "Unable to read BasePath from registry with code : 234", true, "BasePath"},
    {"BasePathWithoutTerminator",
     [](const TempDir& d) { SetRawAgentValue(d, "BasePath", REG_SZ, d.NarrowPath()); },  // read exactly as stored
     "InvokeMainThread", "System Bootup time :", false, "BasePath"},
};

class HostileInputTest : public ::testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(korva::test::PrepareCleanAgent(dir_.NarrowPath()));
    ASSERT_EQ(writeValue(korva::test::kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
    ASSERT_EQ(writeValue(korva::test::kAgentKey, "GlobalJsonPath", REG_SZ, dir_.NarrowPath() + "\\agent.json"), 0);
    const auto install = korva::test::RunProgram(L"\"" + korva::test::ServiceExecutable() + L"\" /i", 60000);
    ASSERT_EQ(install.exitCode, 0u) << install.output;
    service_ = korva::test::OpenAgentService(SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
    ASSERT_TRUE(service_);
  }
  void TearDown() override {
    service_.reset();
    korva::test::RemoveAgent();
  }

  std::wstring LogPath() const { return GetParam().logsAtRoot ? kRootLog : dir_.File(L"logs\\korva_agentservice.log"); }
  // What `damaged` holds now: the settings file's bytes, or the registry value's type and bytes.
  std::string DamagedInput() const {
    const Row& row = GetParam();
    return row.registryValue != nullptr ? RawAgentValue(row.registryValue)
                                        : korva::test::ReadFileBytes(dir_.File(L"agent.json"));
  }

  TempDir dir_;
  korva::win::UniqueServiceHandle service_;
};

TEST_P(HostileInputTest, ServiceRunsLogsTheReactionAndStopsCleanly) {
  const Row& row = GetParam();
  row.damage(dir_);
  const std::string before = DamagedInput();
  const std::size_t mark = korva::test::ReadFileBytes(LogPath()).size();

  ASSERT_TRUE(StartServiceW(service_.get(), 0, nullptr)) << GetLastError();
  ASSERT_EQ(korva::test::WaitForServiceState(service_.get(), SERVICE_RUNNING, 60000),
            static_cast<DWORD>(SERVICE_RUNNING));
  const std::string wanted = std::string("] [ ") + row.function + " ] ";
  std::string written;
  bool found = false;
  for (int i = 0; i < 1500 && !found; ++i) {  // up to 30 s for the start-up to write it
    written = korva::test::ReadFileBytes(LogPath());
    written = written.size() > mark ? written.substr(mark) : std::string();
    for (std::size_t at = written.find(wanted); at != std::string::npos && !found; at = written.find(wanted, at + 1)) {
      const std::size_t end = written.find('\n', at);
      found = written.substr(at, end - at).find(row.text) != std::string::npos;
    }
    if (!found) Sleep(20);
  }
  EXPECT_TRUE(found) << "no line of " << row.function << " with: " << row.text;
  EXPECT_EQ(korva::test::WaitForServiceState(service_.get(), SERVICE_RUNNING, 0), static_cast<DWORD>(SERVICE_RUNNING));

  const DWORD sent = korva::test::SendControl(service_.get(), SERVICE_CONTROL_STOP);
  EXPECT_TRUE(sent == 0 || sent == ERROR_SERVICE_REQUEST_TIMEOUT) << sent;  // see the e2e stop tests
  EXPECT_EQ(korva::test::WaitForServiceState(service_.get(), SERVICE_STOPPED, 60000),
            static_cast<DWORD>(SERVICE_STOPPED));
  EXPECT_TRUE(DamagedInput() == before) << "the service changed the damaged input";
}

// Installing reads the same settings: a million nested objects must not take "/i" down either.
TEST(HostileInstall, InstallSucceedsWithAMillionNestedObjectsInTheSettings) {
  TempDir dir;
  ASSERT_TRUE(korva::test::PrepareCleanAgent(dir.NarrowPath()));
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "GlobalJsonPath", REG_SZ, dir.NarrowPath() + "\\agent.json"), 0);
  SettingsFile(dir, Nested(1000000, "{\"a\":", "}"));
  const auto install = korva::test::RunProgram(L"\"" + korva::test::ServiceExecutable() + L"\" /i", 60000);
  EXPECT_EQ(install.exitCode, 0u) << install.output;
  EXPECT_TRUE(korva::test::QueryAgentServiceConfig().exists);
  EXPECT_NE(korva::test::ReadFileBytes(dir.File(L"logs\\korva_agentservice.log")).find("nesting deeper than 64 levels"),
            std::string::npos);
  korva::test::RemoveAgent();
}

INSTANTIATE_TEST_SUITE_P(Rows, HostileInputTest, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

}  // namespace
