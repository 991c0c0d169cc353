// Damaged input never keeps the service from running: each row damages one thing the start-up
// reads (the settings file or BasePath), starts the real service through the service control
// manager, and expects RUNNING, the logged reaction, the damaged input left as it was, and a clean
// stop.
#include <windows.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "settings/registry.h"
#include "support/test_support.h"
#include "win/unique_handle.h"

namespace {

using korva::test::TempDir;

constexpr wchar_t kAgentKeyW[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent";
// With no usable BasePath the log goes to "\logs" of the service's current drive.
constexpr wchar_t kRootLog[] = L"C:\\logs\\korva_agentservice.log";

// HKLM `path` in the agent's registry view, created when missing, for the test's own access.
korva::win::UniqueRegKey AgentKey(const wchar_t* path) {
  korva::win::UniqueRegKey key;
  RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr, key.put(),
                  nullptr);
  return key;
}

// No agent service, a fresh agent registry naming `folder` (BasePath, AgentInstallDir, the settings
// file "agent.json" of a sub-product), and the most verbose log.
void PrepareAgent(const TempDir& folder) {
  korva::test::DeleteAgentServiceIfPresent();
  korva::test::CleanAgentRegistry();
  korva::test::SetLogLevel("LogLevel", 6);
  for (const char* name : {"BasePath", "AgentInstallDir"}) {
    ASSERT_EQ(writeValue(korva::test::kAgentKey, name, REG_SZ, folder.NarrowPath()), 0);
  }
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "GlobalJsonPath", REG_SZ, folder.NarrowPath() + "\\agent.json"), 0);
}

void RemoveAgent() {
  korva::test::DeleteAgentServiceIfPresent();
  korva::test::CleanAgentRegistry();
}

std::string Nested(std::size_t depth, const std::string& open, const std::string& close) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) text += open;
  for (std::size_t i = 0; i < depth; ++i) text += close;
  return text;
}

// BasePath as a row leaves it: type and exact bytes (no terminator added), or deleted.
struct BasePathDamage {
  DWORD type;  // REG_NONE: the value is deleted
  std::string bytes;
};

struct Row {
  const char* name;
  std::optional<std::string> settings;  // the settings file's bytes; nothing: no file
  std::optional<BasePathDamage> basePath;
  const char* function;  // the logged reaction: a line of this function containing `text`
  const char* text;
};

const char* const kParse = "CRapidJSONClass::StringToJsonDom";
const char* const kUnparsable = "Unable to parse string json.";
const char* const kTooDeep = "nesting deeper than 64 levels";

const Row kRows[] = {
    {"TruncatedSettings", R"({"agent_installed_dir": "C:\\ag)", {}, kParse, kUnparsable},
    {"EmptySettings", "", {}, kParse, kUnparsable},
    {"BinarySettingsWithNuls", std::string("\x01\xfe\0{\"a\":1}\0\xff", 11), {}, kParse, kUnparsable},
    {"SettingsNotAnObject", "[1, 2, 3]", {}, "LoadGlobalVariablesJSON", "Unable to load the JSON file with code : 13"},
    {"SettingsValueOfWrongType",
     R"({"agent_installed_dir": 5})",
     {},
     "LoadGlobalVariablesJSON",
     "Key has an unexpected type in Json, default used : agent_installed_dir"},
    {"MillionNestedArrays", Nested(1000000, "[", "]"), {}, kParse, kTooDeep},
    {"MillionNestedObjects", Nested(1000000, "{\"a\":", "}"), {}, kParse, kTooDeep},
    {"HugeStringAndKey",
     "{\"" + std::string(1 << 20, 'k') + "\": \"" + std::string(8 << 20, 'x') + "\"}",
     {},
     "LoadGlobalVariablesJSON",
     "Key not found in Json, default used : agent_installed_dir"},
    {"SettingsFileOverTheCap",
     std::string(17 << 20, ' ') + "{}",
     {},
     "CRapidJSONClass::FileToString",
     "bytes read whole; not read"},
    {"SettingsFileMissing", std::nullopt, {}, "CRapidJSONClass::FileToString", "] open failed"},
    // A valid settings file makes the start-up read BasePath again once the log is open.
    {"BasePathMissing", "{}", BasePathDamage{REG_NONE, ""}, "BasePath",
     "Unable to read BasePath from registry with code : 2"},
    {"BasePathOfWrongType", "{}", BasePathDamage{REG_DWORD, std::string(4, '\x07')}, "BasePath",
     "Unable to read BasePath from registry with code : 1630"},
    {"BasePath32KCharacters", "{}", BasePathDamage{REG_SZ, std::string(32767, 'b') + '\0'}, "BasePath",
     "Unable to read BasePath from registry with code : 234"},
    // Stored without its terminator, the folder is still read exactly: the log stays in it.
    {"BasePathWithoutTerminator", "{}", BasePathDamage{REG_SZ, ""}, "InvokeMainThread", "System Bootup time :"},
};

class HostileInputTest : public ::testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(PrepareAgent(dir_));
    const auto install = korva::test::RunProgram(L"\"" + korva::test::ServiceExecutable() + L"\" /i", 60000);
    ASSERT_EQ(install.exitCode, 0u) << install.output;
    service_ = korva::test::OpenAgentService(SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
    ASSERT_TRUE(service_);
  }
  void TearDown() override {
    service_.reset();
    RemoveAgent();
  }

  void Damage(const Row& row) const {
    if (row.settings) korva::test::WriteFileBytes(dir_.File(L"agent.json"), *row.settings);
    if (!row.basePath) return;
    const auto key = AgentKey(kAgentKeyW);
    const std::string bytes = row.basePath->bytes.empty() ? dir_.NarrowPath() : row.basePath->bytes;
    ASSERT_EQ(row.basePath->type == REG_NONE
                  ? RegDeleteValueA(key.get(), "BasePath")
                  : RegSetValueExA(key.get(), "BasePath", 0, row.basePath->type,
                                   reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size())),
              ERROR_SUCCESS);
  }
  // The damaged input as it is now: the settings file's bytes and BasePath's type and bytes.
  std::string DamagedInput() const {
    const auto key = AgentKey(kAgentKeyW);
    DWORD type = REG_NONE;
    DWORD size = 0;
    std::string value = "missing";
    if (RegQueryValueExA(key.get(), "BasePath", nullptr, &type, nullptr, &size) == ERROR_SUCCESS) {
      value.assign(size, '\0');
      RegQueryValueExA(key.get(), "BasePath", nullptr, &type, reinterpret_cast<BYTE*>(value.data()), &size);
    }
    return korva::test::ReadFileBytes(dir_.File(L"agent.json")) + "|" + std::to_string(type) + ":" + value;
  }

  TempDir dir_;
  korva::win::UniqueServiceHandle service_;
};

TEST_P(HostileInputTest, ServiceRunsLogsTheReactionAndStopsCleanly) {
  const Row& row = GetParam();
  Damage(row);
  const std::string before = DamagedInput();
  const bool logsAtRoot = row.basePath && std::string(row.function) == "BasePath";
  const std::wstring logPath = logsAtRoot ? kRootLog : dir_.File(L"logs\\korva_agentservice.log");
  const std::size_t mark = korva::test::ReadFileBytes(logPath).size();

  ASSERT_TRUE(StartServiceW(service_.get(), 0, nullptr)) << GetLastError();
  ASSERT_EQ(korva::test::WaitForServiceState(service_.get(), SERVICE_RUNNING, 60000),
            static_cast<DWORD>(SERVICE_RUNNING));
  const std::string wanted = std::string("] [ ") + row.function + " ] ";
  bool found = false;
  for (int i = 0; i < 1500 && !found; ++i) {  // up to 30 s for the start-up to write it
    const std::string log = korva::test::ReadFileBytes(logPath);
    for (std::size_t at = log.find(wanted, mark); at != std::string::npos && !found; at = log.find(wanted, at + 1)) {
      found = log.substr(at, log.find('\n', at) - at).find(row.text) != std::string::npos;
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

INSTANTIATE_TEST_SUITE_P(Rows, HostileInputTest, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

// Installing reads the same settings: a million nested objects must not take "/i" down either.
TEST(HostileInstall, InstallSucceedsWithAMillionNestedObjectsInTheSettings) {
  TempDir dir;
  ASSERT_NO_FATAL_FAILURE(PrepareAgent(dir));
  korva::test::WriteFileBytes(dir.File(L"agent.json"), Nested(1000000, "{\"a\":", "}"));
  const auto install = korva::test::RunProgram(L"\"" + korva::test::ServiceExecutable() + L"\" /i", 60000);
  EXPECT_EQ(install.exitCode, 0u) << install.output;
  EXPECT_EQ(korva::test::AgentServiceConfig().rfind(L"error", 0), std::wstring::npos);
  EXPECT_NE(korva::test::ReadFileBytes(dir.File(L"logs\\korva_agentservice.log")).find(kTooDeep), std::string::npos);
  RemoveAgent();
}

}  // namespace
