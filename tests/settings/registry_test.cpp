// Registry helpers against the Wine prefix's real registry, in the service's 32-bit view.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "settings/error_text.h"
#include "settings/registry.h"
#include "settings/string_conversion.h"
#include "support/test_support.h"
#include "win/bitness.h"

namespace {

using korva::test::HasLogLine;

const std::string kKey = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\RegistryTest";

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { Clean(); }
  void TearDown() override { Clean(); }
  // The test key of the 64-bit view too, which writes with is64 = 1 reach.
  static void Clean() {
    korva::test::CleanAgentRegistry();
    RegDeleteKeyExA(HKEY_LOCAL_MACHINE, kKey.c_str(), KEY_WOW64_64KEY, 0);
  }
};

// Raw read of a value with an explicit view, bypassing the helpers under test.
LONG RawQuery(const std::string& path, const std::string& name, REGSAM view, std::string* data) {
  HKEY key = nullptr;
  LONG code = RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ | view, &key);
  if (code != ERROR_SUCCESS) return code;
  DWORD size = 0;
  code = RegQueryValueExA(key, name.c_str(), nullptr, nullptr, nullptr, &size);
  if (code == ERROR_SUCCESS) {
    data->resize(size);
    code = RegQueryValueExA(key, name.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(data->data()), &size);
  }
  RegCloseKey(key);
  return code;
}

TEST_F(RegistryTest, DwordsParseTheirTextAndAMissingValueLeavesTheCallersDwordAlone) {
  struct Case {
    const char* text;
    DWORD stored;
  };
  for (const Case& c : {Case{"12abc", 12}, Case{"abc", 0}, Case{" -1", 0xFFFFFFFFu}}) {
    ASSERT_EQ(writeValue(kKey, "Number", REG_DWORD, c.text), 0) << c.text;
    DWORD value = 12345;
    ASSERT_EQ(ReadDwordRegValue(kKey, "Number", value), 0);
    EXPECT_EQ(value, c.stored) << c.text;
  }
  DWORD value = 77;
  EXPECT_EQ(ReadDwordRegValue(kKey, "Absent", value), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ReadDwordRegValue(kKey + "\\NoSuchKey", "Absent", value), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(value, 77u);
}

TEST_F(RegistryTest, StringsRoundTripAndOverlongOnesFailWithMoreData) {
  ASSERT_EQ(writeValue(kKey, "Exactly259", REG_SZ, std::string(259, 'y')), 0);
  std::string value;
  EXPECT_EQ(ReadRegSZ(kKey, "Exactly259", value), 0);
  EXPECT_EQ(value, std::string(259, 'y'));

  ASSERT_EQ(writeValue(kKey, "Long", REG_SZ, std::string(300, 'x')), 0);
  EXPECT_EQ(ReadRegSZ(kKey, "Long", value), ERROR_MORE_DATA);
  EXPECT_EQ(value, "");
}

TEST_F(RegistryTest, WrongTypedValuesAreNotTakenForNumbersOrText) {
  korva::test::LogCapture log;
  ASSERT_EQ(writeValue(kKey, "Text", REG_SZ, "5"), 0);
  ASSERT_EQ(writeValue(kKey, "Number", REG_DWORD, "5"), 0);
  DWORD number = 42;
  EXPECT_EQ(ReadDwordRegValue(kKey, "Text", number), ERROR_UNSUPPORTED_TYPE);
  EXPECT_EQ(number, 42u);
  std::string text = "stale";
  EXPECT_EQ(ReadRegSZ(kKey, "Number", text), ERROR_UNSUPPORTED_TYPE);
  EXPECT_EQ(text, "");
  const std::string lines = log.Text();
  EXPECT_TRUE(HasLogLine(lines, "__ReadDwordRegistryData", "Registry value Text has the unexpected type 1"));
  EXPECT_TRUE(HasLogLine(lines, "__ReadRegSZ", "Registry value Number has the unexpected type 4"));
}

TEST_F(RegistryTest, WritingUnderAMissingKeyCreatesItAndLogsTheCodeOnce) {
  korva::test::LogCapture log;
  EXPECT_EQ(__IsParentRegKeyPresent(kKey, 0), 0);
  ASSERT_EQ(writeValue(kKey, "Value", REG_SZ, "v"), 0);
  EXPECT_EQ(__IsParentRegKeyPresent(kKey, 0), 1);
  ASSERT_EQ(writeValue(kKey, "Value2", REG_SZ, "v"), 0);  // key exists now: no second creation line
  const std::string lines = log.Text();
  const std::string creation = "] [ __writeValue ] While Adding Registry Key, returned with error code :0\r\n";
  const std::size_t first = lines.find(creation);
  ASSERT_NE(first, std::string::npos) << lines;
  EXPECT_EQ(lines.find(creation, first + 1), std::string::npos);
}

TEST_F(RegistryTest, MultiStringIsWrittenWithFifteenBytesBeyondItsLength) {
  const std::string list("alpha\0beta\0\0", 12);
  ASSERT_EQ(writeValue(kKey, "List", REG_MULTI_SZ, list), 0);
  std::string data;
  ASSERT_EQ(RawQuery(kKey, "List", korva::win::kAgentRegistryView, &data), 0);
  EXPECT_EQ(data.size(), 5u + 15u);
  EXPECT_EQ(data.substr(0, 12), list);
}

TEST_F(RegistryTest, ValuesLandUnderWow6432NodeUnlessIs64IsOne) {
  ASSERT_EQ(writeValue(kKey, "Where", REG_SZ, "32"), 0);
  std::string data;
  const std::string redirected = "SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\RegistryTest";
  ASSERT_EQ(RawQuery(redirected, "Where", KEY_WOW64_64KEY, &data), 0);
  EXPECT_EQ(data, std::string("32", 3));
  EXPECT_EQ(RawQuery(kKey, "Where", KEY_WOW64_64KEY, &data), ERROR_FILE_NOT_FOUND);

  ASSERT_EQ(__writeValue(kKey, "Where", REG_SZ, 1, "64"), 0);
  ASSERT_EQ(RawQuery(kKey, "Where", KEY_WOW64_64KEY, &data), 0);
  EXPECT_EQ(data, std::string("64", 3));
  EXPECT_EQ(ReadRegSZ(kKey, "Where", data), 0);
  EXPECT_EQ(data, "32");
}

TEST_F(RegistryTest, StringCopiesConversionsAndErrorReportsLogTheirFailures) {
  const char* utf8 =
      "Stra\xC3\x9F"
      "e \xE2\x82\xAC";
  wchar_t* wide = nullptr;
  ChangeToWideStr(utf8, &wide);
  ASSERT_NE(wide, nullptr);
  EXPECT_STREQ(wide, L"Stra\u00DFe \u20AC");
  EXPECT_EQ(ChangeToMultiByteStr(wide), utf8);
  std::free(wide);

  korva::test::LogCapture log;
  char* copy = nullptr;
  AllocateAndDoStringCopyA(static_cast<const char*>(nullptr), &copy);
  EXPECT_EQ(copy, nullptr);
  wide = nullptr;
  ChangeToWideStr(nullptr, &wide);
  EXPECT_EQ(wide, nullptr);
  EXPECT_FALSE(GetErrorMsgForID(ERROR_FILE_NOT_FOUND).empty());
  printErrorMsgForID(ERROR_ACCESS_DENIED);
  DisplayErrorInfo(ERROR_INVALID_PARAMETER);
  const std::string lines = log.Text();
  EXPECT_TRUE(HasLogLine(lines, "AllocateAndDoStringCopyA", "Src is NULL."));
  EXPECT_TRUE(HasLogLine(lines, "ChangeToWideStr", "AnsiString is empty!"));
  EXPECT_TRUE(HasLogLine(lines, "GetErrorMsgForID", "Error Code    :2"));
  EXPECT_TRUE(HasLogLine(lines, "printErrorMsgForID", "Error ID      :5"));
  EXPECT_TRUE(HasLogLine(lines, "DisplayErrorInfo", "Error Code    :87"));
}

}  // namespace
