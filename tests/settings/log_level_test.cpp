// The log level read from the registry, with the key written as the agent's installer writes it:
// from the 64-bit side, at the Wow6432Node path itself.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "settings/log_level.h"
#include "support/test_support.h"

namespace {

using korva::test::SetLogLevel;

constexpr const char* kComponent = "korva_agentservice";
constexpr const char* kUnreadable =
    "ERROR ] [ ReadDwordRegistryData ] Unable to read the log level value korva_agentservice.";

// Stores a value of any type where SetLogLevel stores its DWORDs.
void Store(const char* name, DWORD type, const std::string& data) {
  HKEY key = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\LogLevel", 0,
                            nullptr, 0, KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(RegSetValueExA(key, name, 0, type, reinterpret_cast<const BYTE*>(data.data()), DWORD(data.size())), 0);
  RegCloseKey(key);
}

// The component's value wins over "LogLevel", which wins over the default of 4; a missing or
// wrong-typed component value is logged with its code and leaves the caller's number alone.
TEST(LogLevel, ComponentValueOverridesLogLevelWhichOverridesTheDefault) {
  const struct {
    void (*store)();
    int level;
    LONG code;         // of reading the component's value
    const char* line;  // logged with the code, after the severity; nullptr: nothing is logged
  } cases[] = {
      {[] {}, 4, ERROR_FILE_NOT_FOUND, "DEBUG ] [ ReadDwordRegistryData ] Log level key is not present."},
      {[] { SetLogLevel("LogLevel", 6); }, 6, ERROR_FILE_NOT_FOUND,
       "DEBUG ] [ ReadDwordRegistryData ] Log level value korva_agentservice is not present."},
      {[] { Store(kComponent, REG_SZ, std::string("333", 4)), SetLogLevel("LogLevel", 5); }, 5, ERROR_UNSUPPORTED_TYPE,
       kUnreadable},
      {[] { Store(kComponent, REG_QWORD, std::string("\3\0\0\0\0\0\0\0", 8)); }, 4, ERROR_MORE_DATA, kUnreadable},
      {[] { SetLogLevel(kComponent, 2), SetLogLevel("LogLevel", 6); }, 2, ERROR_SUCCESS, nullptr},
      {[] { SetLogLevel(kComponent, 0), SetLogLevel("LogLevel", 6); }, 0, ERROR_SUCCESS, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.level);
    korva::test::CleanAgentRegistry();
    c.store();
    EXPECT_EQ(korva::ReadMaximumLogSeverity(), c.level);
    korva::test::LogCapture log(6);
    DWORD value = 77;
    EXPECT_EQ(ReadDwordRegistryData(kComponent, value), c.code);
    EXPECT_EQ(value, c.line ? 77u : DWORD(c.level));
    // The expected line is there; a successful read logs no code at all.
    const std::string wanted =
        c.line ? "[ " + std::string(c.line) + " Error code : " + std::to_string(c.code) + "\r\n" : "Error code";
    EXPECT_EQ(log.Text().find(wanted) != std::string::npos, c.line != nullptr) << wanted;
  }
  korva::test::CleanAgentRegistry();
}

}  // namespace
