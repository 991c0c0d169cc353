// Damaged input never keeps the service from running: one row per kind of damage to what the start-up reads.
#include "e2e/service_fixture.h"
#include "support/nested.h"
#include "win/strings.h"

namespace korva::test {
namespace {

// Where "%s\logs" led with no usable BasePath; a folder any user may create on a default Windows.
constexpr wchar_t kRootLog[] = L"C:\\logs\\korva_agentservice.log";
// Where the log goes instead: beside the executable, inside its installation.
std::wstring ExecutableLog() {
  const std::wstring program = ServiceExecutable();
  return program.substr(0, program.find_last_of(L'\\')) + L"\\logs\\korva_agentservice.log";
}

// BasePath as a row leaves it: its type (REG_NONE: deleted) and exact bytes (empty: the test's folder;
// kLinked: a link to it a user could re-point). Unless it is still `usable`, the log goes beside the
// executable, saying why, and nothing is written to the test's folder.
struct BasePathDamage { DWORD type; std::string bytes; bool usable = false; };
const char* const kLinked = "<link>";

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
    {"EmptySettings", "", {}, kParse, kUnparsable},
    {"BinarySettingsWithNuls", std::string("\x01\xfe\0{\"a\":1}\0\xff", 11), {}, kParse, kUnparsable},
    {"SettingsNotAnObject", "[1, 2, 3]", {}, "LoadGlobalVariablesJSON", "Unable to load the JSON file with code : 13"},
    {"SettingsValueOfWrongType", R"({"agent_installed_dir": 5})", {}, "LoadGlobalVariablesJSON",
     "Key has an unexpected type in Json, default used : agent_installed_dir"},
    {"MillionNestedArrays", Nested(1000000, "[", ']'), {}, kParse, kTooDeep},
    {"HugeStringAndKey", "{\"" + std::string(1 << 20, 'k') + "\": \"" + std::string(8 << 20, 'x') + "\"}", {},
     "LoadGlobalVariablesJSON", "Key not found in Json, default used : agent_installed_dir"},
    {"SettingsFileOverTheCap", std::string(17 << 20, ' ') + "{}", {}, "CRapidJSONClass::FileToString",
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
    {"BasePathWithoutTerminator", "{}", BasePathDamage{REG_SZ, "", true}, "InvokeMainThread", "System Bootup time :"},
    {"BasePathReachedThroughALink", "{}", BasePathDamage{REG_SZ, kLinked}, "main",
     "(the folder is reached through a link or folder that users may change or replace"},
};

class HostileInputTest : public ServiceTest, public ::testing::WithParamInterface<Row> {};

TEST_P(HostileInputTest, ServiceRunsLogsTheReactionAndStopsCleanly) {
  const Row& row = GetParam();
  UseSettings(row.settings);
  const TempDir links;
  std::optional<FolderLink> link;
  if (row.basePath) {
    std::string bytes = row.basePath->bytes.empty() ? dir_.NarrowPath() : row.basePath->bytes;
    if (bytes == kLinked) {
      ASSERT_TRUE(link.emplace(links.File(L"base"), dir_.path()).made());
      bytes = win::WideToAnsi(links.File(L"base"));
    }
    ASSERT_EQ(row.basePath->type == REG_NONE
                  ? RegDeleteValueA(AgentKey(kAgentKey).get(), "BasePath")
                  : RegSetValueExA(AgentKey(kAgentKey).get(), "BasePath", 0, row.basePath->type,
                                   reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size())),
              ERROR_SUCCESS);
  }
  const bool baseUnusable = row.basePath && !row.basePath->usable;
  const std::wstring logPath = baseUnusable ? ExecutableLog() : LogPath();
  const std::size_t mark = ReadFileBytes(logPath).size();
  const std::size_t rootMark = ReadFileBytes(kRootLog).size();
  const std::size_t folderMark = ReadFileBytes(LogPath()).size();
  Start();
  EXPECT_TRUE(Logged(row.function, row.text, mark, logPath)) << "no line of " << row.function << " with: " << row.text;
  if (baseUnusable) {
    const std::string why = "; the log is written to " + win::WideToAnsi(ExecutableLog());
    EXPECT_TRUE(Logged("main", why, mark, logPath));
  }
  Stop();  // a service that had stopped by itself fails the stop request
  EXPECT_EQ(ReadFileBytes(kRootLog).size(), rootMark) << "the log was written in a drive's root";
  if (baseUnusable) {
    EXPECT_EQ(ReadFileBytes(LogPath()).size(), folderMark) << "the log was written in the test's folder";
  }
}

// Installed as the package installs it (no settings file, so no installation folder), a device-control
// policy makes the start-up want the filter: its setup program is refused, once, and nothing starts.
TEST_F(ServiceTest, InstalledAsThePackageDoesWithAPolicyStartsNothingAnywhere) {
  std::filesystem::create_directories(dir_.File(L"data\\policy"));
  WriteFileBytes(PolicyFile(L"devicecontrol.json"), "{}");
  const std::vector<std::string> programs = {"driversetup64", "driversetup32", "korvaFaService", "devctrlaction64",
                                             "devctrlaction32"};
  const PlantedBin planted(programs);
  const std::size_t mark = Log().size();
  Start();
  const std::string refused = ".exe is not started: the installation folder \"\" is refused: the folder is empty";
  const std::string setup = "driversetup64" + refused;  // every machine Wine runs on is 64-bit
  EXPECT_TRUE(Logged("DriverServiceExecution", setup, mark));
  Stop();
  const std::string log = Log().substr(mark);
  // Each program's refusal once, the setup program's start and stop together.
  EXPECT_EQ(CountOf(log, setup), 1u);
  for (const std::string& program : programs) EXPECT_LE(CountOf(log, program + refused), 1u) << program;
  EXPECT_EQ(CountOf(log, "Process successfully created"), 0u);
  EXPECT_TRUE(planted.Journal().empty());
}

INSTANTIATE_TEST_SUITE_P(Rows, HostileInputTest, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace korva::test
