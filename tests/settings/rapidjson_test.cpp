// CRapidJSONClass against real files: text cut at a NUL, absent file, wide names, round trip.
#include "settings/rapidjson_class.h"

#include <gtest/gtest.h>

#include <string>

#include "support/test_support.h"
#include "win/strings.h"

namespace {

// Bad files are covered with agent parameters, which read the settings file through this class.
TEST(RapidJson, ReadsWideNamedFilesUpToTheFirstNulAndLogsAMissingOne) {
  korva::test::TempDir dir;
  const std::wstring cut = dir.File(L"r\u00e9glages-\u4e2d\u6587.json");
  korva::test::WriteFileBytes(
      cut, std::string("{\n  \"a\" : 1,\n  \"b\" : [ true, null, \"x\\u00e9\" ]\n}") + '\0' + "{{{ not json");
  rapidjson::Document document;
  ASSERT_TRUE(CRapidJSONClass::LoadJsonFromFile(cut, document));
  std::string text;
  EXPECT_TRUE(CRapidJSONClass::JsonDomToString(document, text));
  EXPECT_EQ(text, "{\"a\":1,\"b\":[true,null,\"x\xC3\xA9\"]}");

  const std::wstring absent = dir.File(L"absent.json");
  korva::test::LogCapture log;
  EXPECT_FALSE(CRapidJSONClass::LoadJsonFromFile(absent, document));
  EXPECT_TRUE(korva::test::HasLogLine(log.Text(), "CRapidJSONClass::FileToString",
                                      "The file [" + korva::win::WideToUtf8(absent) + "] open failed"));
}

}  // namespace
