// CRapidJSONClass against real files: text cut at a NUL, absent file, wide names, round trip.
#include "settings/rapidjson_class.h"

#include <gtest/gtest.h>

#include <string>

#include "support/test_support.h"
#include "win/strings.h"

namespace {

using korva::test::HasLogLine;
using korva::test::TempDir;

// Bad files are covered with agent parameters, which read the settings file through this class.
TEST(RapidJson, TextEndsAtTheFirstNulAndAMissingFileIsNamedInTheLog) {
  TempDir dir;
  const std::wstring whole = dir.File(L"whole.json");
  korva::test::WriteFileBytes(whole, std::string("{\"a\":1}\0{{{ not json", 20));
  rapidjson::Document document;
  ASSERT_TRUE(CRapidJSONClass::LoadJsonFromFile(whole, document));
  EXPECT_EQ(document["a"].GetInt(), 1);

  const std::wstring absent = dir.File(L"absent.json");
  korva::test::LogCapture log;
  EXPECT_FALSE(CRapidJSONClass::LoadJsonFromFile(absent, document));
  EXPECT_TRUE(HasLogLine(log.Text(), "CRapidJSONClass::FileToString",
                         "The file [" + korva::win::WideToUtf8(absent) + "] open failed"));
}

TEST(RapidJson, WidePathsAreOpenedAndDocumentsSerialiseCompactly) {
  TempDir dir;
  const std::wstring path = dir.File(L"r\u00e9glages-\u4e2d\u6587.json");
  korva::test::WriteFileBytes(path, "{\n  \"a\" : 1,\n  \"b\" : [ true, null, \"x\\u00e9\" ]\n}\n");
  rapidjson::Document document;
  ASSERT_TRUE(CRapidJSONClass::LoadJsonFromFile(path, document));
  std::string text;
  EXPECT_TRUE(CRapidJSONClass::JsonDomToString(document, text));
  EXPECT_EQ(text, "{\"a\":1,\"b\":[true,null,\"x\xC3\xA9\"]}");
}

}  // namespace
