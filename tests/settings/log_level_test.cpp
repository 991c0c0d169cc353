// The log level read from the registry, with the key written as the agent's installer writes it:
// from the 64-bit side, at the Wow6432Node path itself.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "settings/log.h"
#include "settings/log_level.h"
#include "support/test_support.h"

namespace {

struct Value {
  const char* name;
  DWORD type;
  std::string data;
};

Value Dword(const char* name, DWORD number) {
  return {name, REG_DWORD, std::string(reinterpret_cast<const char*>(&number), sizeof number)};
}

// Creates the log-level key from the 64-bit side and stores the values there.
void WriteAsInstaller(const std::vector<Value>& values) {
  HKEY key = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\LogLevel", 0,
                            nullptr, 0, KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  for (const Value& v : values) {
    EXPECT_EQ(RegSetValueExA(key, v.name, 0, v.type, reinterpret_cast<const BYTE*>(v.data.data()),
                             static_cast<DWORD>(v.data.size())),
              ERROR_SUCCESS);
  }
  RegCloseKey(key);
}

class LogLevelTest : public ::testing::Test {
 protected:
  void SetUp() override { korva::test::CleanAgentRegistry(); }
  void TearDown() override {
    korva::log::ShutdownServiceLogger();
    korva::test::CleanAgentRegistry();
  }
};

// The component's value wins over "LogLevel", which wins over the default of 4; a missing or
// wrong-typed component value is logged with its code and leaves the caller's number alone.
TEST_F(LogLevelTest, ComponentValueOverridesLogLevelWhichOverridesTheDefault) {
  struct Case {
    bool createKey;
    std::vector<Value> values;
    LONG code;
    DWORD component;  // as ReadDwordRegistryData leaves it, starting from 77
    int level;
    const char* line;  // the logged message with its severity; empty when nothing is logged
  };
  const std::vector<Case> cases = {
      {false,
       {},
       ERROR_FILE_NOT_FOUND,
       77,
       4,
       "DEBUG ] [ ReadDwordRegistryData ] Log level key is not present. Error code : 2"},
      {true,
       {Dword("LogLevel", 6)},
       ERROR_FILE_NOT_FOUND,
       77,
       6,
       "DEBUG ] [ ReadDwordRegistryData ] Log level value korva_agentservice is not present. Error code : 2"},
      {true,
       {{"korva_agentservice", REG_SZ, std::string("3", 2)}, Dword("LogLevel", 5)},
       ERROR_UNSUPPORTED_TYPE,
       77,
       5,
       "ERROR ] [ ReadDwordRegistryData ] Unable to read the log level value korva_agentservice. Error code : 1630"},
      {true,
       {{"korva_agentservice", REG_QWORD, std::string("\3\0\0\0\0\0\0\0", 8)}},
       ERROR_MORE_DATA,
       77,
       4,
       "ERROR ] [ ReadDwordRegistryData ] Unable to read the log level value korva_agentservice. Error code : 234"},
      {true, {Dword("korva_agentservice", 2), Dword("LogLevel", 6)}, ERROR_SUCCESS, 2, 2, ""},
      {true, {Dword("korva_agentservice", 0), Dword("LogLevel", 6)}, ERROR_SUCCESS, 0, 0, ""},
  };
  for (const Case& c : cases) {
    korva::test::CleanAgentRegistry();
    if (c.createKey) WriteAsInstaller(c.values);
    EXPECT_EQ(korva::ReadMaximumLogSeverity(), c.level) << c.line;
    korva::test::LogCapture log(6);
    DWORD value = 77;
    EXPECT_EQ(ReadDwordRegistryData("korva_agentservice", value), c.code) << c.line;
    EXPECT_EQ(value, c.component) << c.line;
    const std::string text = log.Text();
    // The expected line is there; a successful read logs no code at all.
    const std::string wanted = *c.line != '\0' ? std::string("[ ") + c.line + "\r\n" : "Error code";
    EXPECT_EQ(text.find(wanted) != std::string::npos, *c.line != '\0') << text;
  }
}

// What main does with a level of 0: read it, set the log up with it, write its opening lines.
TEST_F(LogLevelTest, LevelZeroWritesNothingAndCreatesNoFile) {
  WriteAsInstaller({Dword("LogLevel", 0)});
  korva::test::TempDir dir;
  const std::wstring path = dir.File(L"logs\\korva_agentservice.log");
  korva::log::InitializeServiceLogger(path, korva::ReadMaximumLogSeverity());
  KLOG_INFO_AS("main") << "Log Opened.";
  KLOG_FATAL_AS("main") << "fatal";
  korva::log::ShutdownServiceLogger();
  EXPECT_FALSE(korva::test::FileExists(path));
  EXPECT_FALSE(korva::test::FileExists(dir.File(L"logs")));
}

}  // namespace
