// Registry helpers against the Wine prefix's real registry, in the service's 32-bit view.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "settings/error_text.h"
#include "settings/registry.h"
#include "settings/string_conversion.h"
#include "support/test_support.h"

namespace {

using korva::test::HasLogLine;
using korva::test::HasLogLineStartingWith;

const std::string kKey = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\RegistryTest";

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { korva::test::CleanAgentRegistry(); }
  void TearDown() override { korva::test::CleanAgentRegistry(); }
};

// Raw read of a value with an explicit view, bypassing the helpers under test.
LONG RawQuery(const std::string& path, const std::string& name, REGSAM view, DWORD* type, std::string* data) {
  HKEY key = nullptr;
  LONG code = RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ | view, &key);
  if (code != ERROR_SUCCESS) return code;
  DWORD size = 0;
  code = RegQueryValueExA(key, name.c_str(), nullptr, type, nullptr, &size);
  if (code == ERROR_SUCCESS) {
    data->resize(size);
    code = RegQueryValueExA(key, name.c_str(), nullptr, type, reinterpret_cast<BYTE*>(data->data()), &size);
  }
  RegCloseKey(key);
  return code;
}

TEST_F(RegistryTest, MissingValueLeavesTheCallersDwordAlone) {
  ASSERT_EQ(writeValue(kKey, "Other", REG_DWORD, "1"), 0);
  DWORD value = 77;
  EXPECT_EQ(ReadDwordRegValue(kKey, "Absent", value), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(value, 77u);
  EXPECT_EQ(ReadDwordRegValue(kKey + "\\NoSuchKey", "Absent", value), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(value, 77u);
}

TEST_F(RegistryTest, DwordTextIsParsedLikeTheCLibrary) {
  struct Case { const char* text; DWORD stored; };
  for (const Case& c : {Case{"12abc", 12}, Case{"abc", 0}, Case{" -1", 0xFFFFFFFFu}, Case{"300", 300}}) {
    ASSERT_EQ(writeValue(kKey, "Number", REG_DWORD, c.text), 0) << c.text;
    DWORD value = 12345;
    ASSERT_EQ(ReadDwordRegValue(kKey, "Number", value), 0);
    EXPECT_EQ(value, c.stored) << c.text;
  }
}

TEST_F(RegistryTest, StringsRoundTripAndOverlongOnesFailWithMoreData) {
  ASSERT_EQ(writeValue(kKey, "Short", REG_SZ, "C:\\Program Files\\Korva"), 0);
  std::string value = "stale";
  EXPECT_EQ(ReadRegSZ(kKey, "Short", value), 0);
  EXPECT_EQ(value, "C:\\Program Files\\Korva");

  ASSERT_EQ(writeValue(kKey, "Long", REG_SZ, std::string(300, 'x')), 0);
  value = "stale";
  EXPECT_EQ(ReadRegSZ(kKey, "Long", value), ERROR_MORE_DATA);
  EXPECT_EQ(value, "");

  ASSERT_EQ(writeValue(kKey, "Exactly259", REG_SZ, std::string(259, 'y')), 0);
  EXPECT_EQ(ReadRegSZ(kKey, "Exactly259", value), 0);
  EXPECT_EQ(value, std::string(259, 'y'));

  value = "stale";
  EXPECT_EQ(ReadRegSZ(kKey, "Absent", value), ERROR_FILE_NOT_FOUND);
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

TEST_F(RegistryTest, WritingUnderAMissingKeyCreatesItAndLogsTheCode) {
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
  EXPECT_TRUE(HasLogLine(lines, "RegistryUtil", "@@@ Inside RegistryCreateKey @@@"));
  EXPECT_TRUE(HasLogLine(lines, "__writeValue", "@@@ End of __writeValue @@@"));
}

TEST_F(RegistryTest, MultiStringIsWrittenWithFifteenBytesBeyondItsLength) {
  const std::string list("alpha\0beta\0\0", 12);
  ASSERT_EQ(writeValue(kKey, "List", REG_MULTI_SZ, list), 0);
  DWORD type = 0;
  std::string data;
  ASSERT_EQ(RawQuery(kKey, "List", 0, &type, &data), 0);
  EXPECT_EQ(type, static_cast<DWORD>(REG_MULTI_SZ));
  EXPECT_EQ(data.size(), 5u + 15u);
  EXPECT_EQ(data.substr(0, 12), list);
}

TEST_F(RegistryTest, UnwrittenTypesStoreNothingAndReturnTheCreationCode) {
  EXPECT_EQ(writeValue(kKey, "Link", REG_LINK, "x"), 0);
  EXPECT_EQ(__IsParentRegKeyPresent(kKey, 0), 1);  // the key was still created
  DWORD type = 0;
  std::string data;
  EXPECT_EQ(RawQuery(kKey, "Link", 0, &type, &data), ERROR_FILE_NOT_FOUND);
}

TEST_F(RegistryTest, ValuesLandInTheThirtyTwoBitViewUnlessIs64IsOne) {
  ASSERT_EQ(writeValue(kKey, "Where", REG_SZ, "32"), 0);
  DWORD type = 0;
  std::string data;
  const std::string redirected = "SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\RegistryTest";
  ASSERT_EQ(RawQuery(redirected, "Where", KEY_WOW64_64KEY, &type, &data), 0);
  EXPECT_EQ(data, std::string("32", 3));
  EXPECT_EQ(RawQuery(kKey, "Where", KEY_WOW64_64KEY, &type, &data), ERROR_FILE_NOT_FOUND);

  ASSERT_EQ(__writeValue(kKey, "Where", REG_SZ, 1, "64"), 0);
  ASSERT_EQ(RawQuery(kKey, "Where", KEY_WOW64_64KEY, &type, &data), 0);
  EXPECT_EQ(data, std::string("64", 3));
  std::string viaHelper;
  EXPECT_EQ(__ReadRegSZ(kKey, "Where", 1, viaHelper), 0);
  EXPECT_EQ(viaHelper, "64");
  EXPECT_EQ(ReadRegSZ(kKey, "Where", viaHelper), 0);
  EXPECT_EQ(viaHelper, "32");
}

TEST_F(RegistryTest, KeyObjectReportsItsViewAndClosesOnReset) {
  Endpoint_Manager::CRegistryUtil util;
  Endpoint_Manager::RegistryKeyHandle key;
  ASSERT_EQ(util.RegistryCreateKey(key, kKey, 0), 0);
  EXPECT_EQ(key.key(), nullptr);  // closed right after creation
  DWORD type = REG_DWORD;
  DWORD value = 0;
  DWORD size = sizeof value;
  EXPECT_EQ(util.RegistryQueryValue(key, kKey, "Absent", &type, reinterpret_cast<BYTE*>(&value), &size, 1),
            ERROR_FILE_NOT_FOUND);
  EXPECT_NE(key.key(), nullptr);  // a failed query keeps the key open until the object goes
  EXPECT_EQ(key.view(), static_cast<REGSAM>(KEY_WOW64_64KEY));
  key.Reset();
  EXPECT_EQ(key.key(), nullptr);
  EXPECT_EQ(util.RegistryIsAvailable(key, kKey, 0), 1);
  EXPECT_EQ(key.key(), nullptr);
  EXPECT_EQ(util.RegistryIsAvailable(key, kKey + "\\Missing", 0), 0);
}

TEST_F(RegistryTest, StringCopyHandsBackAHeapCopyOrLogsANullSource) {
  korva::test::LogCapture log;
  ASSERT_EQ(writeValue(kKey, "Dir", REG_SZ, "C:\\Korva"), 0);
  char* copy = nullptr;
  EXPECT_EQ(AllocateAndDoStringCopyA(kKey, "Dir", &copy), 0);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "C:\\Korva");
  std::free(copy);
  copy = nullptr;
  EXPECT_EQ(AllocateAndDoStringCopyA(kKey, "Absent", &copy), ERROR_FILE_NOT_FOUND);
  ASSERT_NE(copy, nullptr);  // the empty text read is copied like any other
  EXPECT_STREQ(copy, "");
  std::free(copy);
  copy = nullptr;
  AllocateAndDoStringCopyA(static_cast<const char*>(nullptr), &copy);
  EXPECT_EQ(copy, nullptr);
  EXPECT_TRUE(HasLogLine(log.Text(), "AllocateAndDoStringCopyA", "Src is NULL."));
}

TEST_F(RegistryTest, ErrorReportsCarryTheCodeAndAMessageLine) {
  korva::test::LogCapture log;
  EXPECT_FALSE(GetErrorMsgForID(ERROR_FILE_NOT_FOUND).empty());
  printErrorMsgForID(ERROR_ACCESS_DENIED);
  DisplayErrorInfo(ERROR_INVALID_PARAMETER);
  const std::string lines = log.Text();
  EXPECT_TRUE(HasLogLine(lines, "GetErrorMsgForID", "Error Code    :2"));
  EXPECT_TRUE(HasLogLineStartingWith(lines, "GetErrorMsgForID", "Error Message :"));
  EXPECT_TRUE(HasLogLine(lines, "printErrorMsgForID", "Error ID      :5"));
  EXPECT_TRUE(HasLogLineStartingWith(lines, "printErrorMsgForID", "Error Message :"));
  EXPECT_TRUE(HasLogLine(lines, "DisplayErrorInfo", "Error Code    :87"));
  EXPECT_TRUE(HasLogLineStartingWith(lines, "DisplayErrorInfo", "Error Message :"));
}

TEST_F(RegistryTest, Utf8AndWideConvertBothWaysAndNullIsReported) {
  korva::test::LogCapture log;
  const char* utf8 = "Stra\xC3\x9F" "e \xE2\x82\xAC";
  wchar_t* wide = nullptr;
  ChangeToWideStr(utf8, &wide);
  ASSERT_NE(wide, nullptr);
  EXPECT_STREQ(wide, L"Stra\u00DFe \u20AC");
  EXPECT_EQ(ChangeToMultiByteStr(wide), utf8);
  std::free(wide);
  wide = nullptr;
  ChangeToWideStr(nullptr, &wide);
  EXPECT_EQ(wide, nullptr);
  EXPECT_EQ(ChangeToMultiByteStr(nullptr), "");
  EXPECT_TRUE(HasLogLine(log.Text(), "ChangeToWideStr", "AnsiString is empty!"));
}

}  // namespace
