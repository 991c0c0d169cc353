// The log level read from the registry, with the key written as the agent's installer writes it:
// from the 64-bit side, at the Wow6432Node path itself.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "settings/log.h"
#include "settings/log_level.h"
#include "support/test_support.h"

namespace {

using korva::test::FileExists;
using korva::test::HasLogLine;
using korva::test::HasLogLineStartingWith;

constexpr char kInstallerKey[] = "SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\LogLevel";
constexpr char kNativeKey[] = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\LogLevel";

struct Value {
  const char* name;
  DWORD type;
  std::string data;
};

Value Dword(const char* name, DWORD number) {
  return {name, REG_DWORD, std::string(reinterpret_cast<const char*>(&number), sizeof number)};
}
Value Text(const char* name, const char* text) { return {name, REG_SZ, std::string(text, std::strlen(text) + 1)}; }
Value Qword(const char* name, unsigned long long number) {
  return {name, REG_QWORD, std::string(reinterpret_cast<const char*>(&number), sizeof number)};
}

// Creates `path` in the given view and stores the values there.
void WriteKey(const char* path, REGSAM view, const std::vector<Value>& values) {
  HKEY key = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_SET_VALUE | view, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  for (const Value& v : values) {
    EXPECT_EQ(RegSetValueExA(key, v.name, 0, v.type, reinterpret_cast<const BYTE*>(v.data.data()),
                             static_cast<DWORD>(v.data.size())),
              ERROR_SUCCESS);
  }
  RegCloseKey(key);
}

void WriteAsInstaller(const std::vector<Value>& values) { WriteKey(kInstallerKey, KEY_WOW64_64KEY, values); }

void DeleteNativeAgentTree() {
  HKEY software = nullptr;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE", 0, KEY_ALL_ACCESS | KEY_WOW64_64KEY, &software) == 0) {
    RegDeleteTreeA(software, "Kestrelix");
    RegCloseKey(software);
  }
}

class LogLevelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korva::test::CleanAgentRegistry();
    DeleteNativeAgentTree();
  }
  void TearDown() override {
    korva::log::ShutdownServiceLogger();
    korva::test::CleanAgentRegistry();
    DeleteNativeAgentTree();
  }
};

TEST_F(LogLevelTest, ComponentValueOverridesLogLevelWhichOverridesTheDefault) {
  struct Case {
    const char* what;
    std::vector<Value> values;
    int expected;
  };
  const std::vector<Case> cases = {
      {"key only", {}, 4},
      {"LogLevel only", {Dword("LogLevel", 6)}, 6},
      {"component only", {Dword("korva_agentservice", 1)}, 1},
      {"both", {Dword("korva_agentservice", 2), Dword("LogLevel", 6)}, 2},
      {"component 0 silences", {Dword("korva_agentservice", 0), Dword("LogLevel", 6)}, 0},
      {"no range check", {Dword("LogLevel", 9)}, 9},
      {"no range check either way", {Dword("LogLevel", 0xFFFFFFFFu)}, -1},
      {"LogLevel as text", {Text("LogLevel", "6")}, 4},
      {"component as text", {Text("korva_agentservice", "2"), Dword("LogLevel", 5)}, 5},
      {"component too wide", {Qword("korva_agentservice", 3), Dword("LogLevel", 5)}, 5},
  };
  EXPECT_EQ(korva::ReadMaximumLogSeverity(), 4) << "no key";
  for (const Case& c : cases) {
    korva::test::CleanAgentRegistry();
    WriteAsInstaller(c.values);
    EXPECT_EQ(korva::ReadMaximumLogSeverity(), c.expected) << c.what;
  }
}

// The 32-bit view's own path reaches the same key; the 64-bit program's key is another one.
TEST_F(LogLevelTest, KeyIsTheOneUnderWow6432Node) {
  WriteKey(kNativeKey, KEY_WOW64_64KEY, {Dword("LogLevel", 6)});
  EXPECT_EQ(korva::ReadMaximumLogSeverity(), 4);
  WriteKey(kNativeKey, 0, {Dword("LogLevel", 5)});
  EXPECT_EQ(korva::ReadMaximumLogSeverity(), 5);
}

TEST_F(LogLevelTest, ReadReturnsTheRegistryCodeAndLogsIt) {
  struct Case {
    const char* what;
    bool createKey;
    std::vector<Value> values;
    LONG code;
    const char* line;  // start of the logged message, empty when nothing is logged
    const char* severity;
  };
  const std::vector<Case> cases = {
      {"no key", false, {}, ERROR_FILE_NOT_FOUND, "Log level key is not present. Error code : 2", "DEBUG"},
      {"no value", true, {}, ERROR_FILE_NOT_FOUND,
       "Log level value korva_agentservice is not present. Error code : 2", "DEBUG"},
      {"text", true, {Text("korva_agentservice", "3")}, ERROR_UNSUPPORTED_TYPE,
       "Unable to read the log level value korva_agentservice. Error code : 1630", "ERROR"},
      {"eight bytes", true, {Qword("korva_agentservice", 3)}, ERROR_MORE_DATA,
       "Unable to read the log level value korva_agentservice. Error code : 234", "ERROR"},
      {"dword", true, {Dword("korva_agentservice", 3)}, ERROR_SUCCESS, "", ""},
  };
  for (const Case& c : cases) {
    korva::test::CleanAgentRegistry();
    if (c.createKey) WriteAsInstaller(c.values);
    korva::test::LogCapture log(6);
    DWORD value = 77;
    EXPECT_EQ(ReadDwordRegistryData("korva_agentservice", value), c.code) << c.what;
    EXPECT_EQ(value, c.code == ERROR_SUCCESS ? 3u : 77u) << c.what;
    const std::string text = log.Text();
    EXPECT_TRUE(HasLogLine(text, "ReadDwordRegistryData", "@@@ Inside ReadDwordRegistryData @@@")) << c.what;
    EXPECT_TRUE(HasLogLine(text, "ReadDwordRegistryData", "@@@ End of ReadDwordRegistryData @@@")) << c.what;
    if (*c.line != '\0') {
      EXPECT_TRUE(HasLogLine(text, "ReadDwordRegistryData", c.line)) << c.what << "\n" << text;
      EXPECT_NE(text.find(std::string("[ ") + c.severity + " ] [ ReadDwordRegistryData ] " + c.line), std::string::npos)
          << c.what;
    } else {
      EXPECT_FALSE(HasLogLineStartingWith(text, "ReadDwordRegistryData", "Unable")) << c.what;
    }
  }
}

// What main does with a level of 0: read it, set the log up with it, write its opening lines.
TEST_F(LogLevelTest, LevelZeroWritesNothingAndCreatesNoFile) {
  WriteAsInstaller({Dword("LogLevel", 0)});
  korva::test::TempDir dir;
  const std::wstring path = dir.File(L"logs\\korva_agentservice.log");
  korva::log::InitializeServiceLogger(path, korva::ReadMaximumLogSeverity());
  KLOG_INFO_AS("main") << std::string(82, '*');
  KLOG_INFO_AS("main") << "Log Opened.";
  KLOG_FATAL_AS("main") << "fatal";
  {
    KLOG_SCOPE_AS("initialize");
  }
  korva::log::ShutdownServiceLogger();
  EXPECT_FALSE(FileExists(path));
  EXPECT_FALSE(FileExists(dir.File(L"logs")));
}

}  // namespace
