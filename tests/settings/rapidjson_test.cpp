// CRapidJSONClass against real files: absent, empty, cut at a NUL, malformed, wide names, round trip.
#include "settings/rapidjson_class.h"

#include <gtest/gtest.h>

#include <string>

#include "support/test_support.h"
#include "win/strings.h"

namespace {

using korva::test::HasLogLine;
using korva::test::LogCapture;
using korva::test::TempDir;

std::string Utf8(const std::wstring& text) { return korva::win::WideToUtf8(text); }

TEST(RapidJson, MissingFileIsLoggedAndFails) {
  TempDir dir;
  const std::wstring path = dir.File(L"absent.json");
  LogCapture log;
  std::string text = "stale";
  EXPECT_NE(CRapidJSONClass::FileToString(path, text), 0);
  EXPECT_EQ(text, "");
  rapidjson::Document document;
  EXPECT_FALSE(CRapidJSONClass::LoadJsonFromFile(path, document));
  const std::string out = log.Text();
  EXPECT_TRUE(HasLogLine(out, "CRapidJSONClass::FileToString", "The file [" + Utf8(path) + "] open failed"));
  EXPECT_TRUE(HasLogLine(out, "CRapidJSONClass::LoadJsonFromFile", "Unable to convert json file to string."));
  EXPECT_EQ(out.find("Unable to parse string json."), std::string::npos);
}

TEST(RapidJson, EmptyFileReadsAsEmptyTextThatDoesNotParse) {
  TempDir dir;
  const std::wstring path = dir.File(L"empty.json");
  korva::test::WriteFileBytes(path, "");
  LogCapture log;
  std::string text = "stale";
  EXPECT_EQ(CRapidJSONClass::FileToString(path, text), 0);
  EXPECT_EQ(text, "");
  rapidjson::Document document;
  EXPECT_FALSE(CRapidJSONClass::LoadJsonFromFile(path, document));
  const std::string out = log.Text();
  EXPECT_TRUE(HasLogLine(out, "CRapidJSONClass::StringToJsonDom", "Unable to parse string json."));
  EXPECT_TRUE(HasLogLine(out, "CRapidJSONClass::LoadJsonFromFile", "Unable to convert json string to Json DOM."));
  EXPECT_EQ(out.find("open failed"), std::string::npos);
}

TEST(RapidJson, TextEndsAtTheFirstNulByte) {
  TempDir dir;
  const std::wstring whole = dir.File(L"whole.json");
  korva::test::WriteFileBytes(whole, std::string("{\"a\":1}\0{{{ not json", 20));
  std::string text;
  ASSERT_EQ(CRapidJSONClass::FileToString(whole, text), 0);
  EXPECT_EQ(text, "{\"a\":1}");
  rapidjson::Document document;
  ASSERT_TRUE(CRapidJSONClass::LoadJsonFromFile(whole, document));
  EXPECT_EQ(document["a"].GetInt(), 1);

  const std::wstring cut = dir.File(L"cut.json");
  korva::test::WriteFileBytes(cut, std::string("{\"a\":\0 1}", 9));
  LogCapture log;
  EXPECT_FALSE(CRapidJSONClass::LoadJsonFromFile(cut, document));
  EXPECT_TRUE(HasLogLine(log.Text(), "CRapidJSONClass::StringToJsonDom", "Unable to parse string json."));
}

TEST(RapidJson, MalformedTextFailsWithItsLines) {
  TempDir dir;
  const std::wstring path = dir.File(L"bad.json");
  korva::test::WriteFileBytes(path, "{\"server_name\": \"srv\",}");
  LogCapture log;
  rapidjson::Document document;
  EXPECT_FALSE(CRapidJSONClass::LoadJsonFromFile(path, document));
  EXPECT_FALSE(CRapidJSONClass::StringToJsonDom("[1, 2", document));
  EXPECT_TRUE(CRapidJSONClass::StringToJsonDom("[1, 2]", document));
  const std::string out = log.Text();
  EXPECT_TRUE(HasLogLine(out, "CRapidJSONClass::LoadJsonFromFile", "Unable to convert json string to Json DOM."));
}

TEST(RapidJson, WidePathsAreOpenedAsWide) {
  TempDir dir;
  const std::wstring path = dir.File(L"r\u00e9glages-\u4e2d\u6587.json");
  korva::test::WriteFileBytes(path, "{\"k\": \"v\"}");
  rapidjson::Document document;
  ASSERT_TRUE(CRapidJSONClass::LoadJsonFromFile(path, document));
  EXPECT_STREQ(document["k"].GetString(), "v");
}

TEST(RapidJson, DocumentsSerialiseCompactlyAndEveryMethodLogsEntryAndExit) {
  TempDir dir;
  const std::wstring path = dir.File(L"pretty.json");
  korva::test::WriteFileBytes(path, "{\n  \"a\" : 1,\n  \"b\" : [ true, null, \"x\\u00e9\" ]\n}\n");
  LogCapture log;
  rapidjson::Document document;
  ASSERT_TRUE(CRapidJSONClass::LoadJsonFromFile(path, document));
  std::string text;
  EXPECT_TRUE(CRapidJSONClass::JsonDomToString(document, text));
  EXPECT_EQ(text, "{\"a\":1,\"b\":[true,null,\"x\xC3\xA9\"]}");
  const std::string out = log.Text();
  for (const char* name : {"CRapidJSONClass::FileToString", "CRapidJSONClass::StringToJsonDom",
                           "CRapidJSONClass::LoadJsonFromFile", "CRapidJSONClass::JsonDomToString"}) {
    EXPECT_TRUE(HasLogLine(out, name, std::string("@@@ Inside ") + name + " @@@")) << name;
    EXPECT_TRUE(HasLogLine(out, name, std::string("@@@ End of ") + name + " @@@")) << name;
  }
}

}  // namespace
