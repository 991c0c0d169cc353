// Outside JSON of every damaged shape parses to a result or a reported error, never a crash,
// whatever its depth or size.
#include "settings/core/json_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using korva::json::kMaxNestingDepth;
using korva::json::ParseBounded;

std::string Nested(std::size_t depth, const std::string& open, const std::string& close) {
  std::string text;
  text.reserve(depth * (open.size() + close.size()));
  for (std::size_t i = 0; i < depth; ++i) text += open;
  for (std::size_t i = 0; i < depth; ++i) text += close;
  return text;
}

struct Case {
  const char* name;
  std::string text;
  bool ok;
  bool tooDeep;
};

TEST(JsonText, EveryShapeParsesOrReportsWhereItStopped) {
  const Case cases[] = {
      {"object", R"({"a":1,"b":[true,null,"x"]})", true, false},
      {"truncated", R"({"a":1,"b":[tr)", false, false},
      {"empty", "", false, false},
      {"blanks only", "   \n\t ", false, false},
      {"cut at a NUL byte", std::string("{\"a\":1}\0garbage", 15), true, false},
      {"NUL inside the object", std::string("{\"a\":\0 1}", 9), false, false},
      {"binary", "\x01\xff\xfe{\x80", false, false},
      {"deepest allowed arrays", Nested(kMaxNestingDepth, "[", "]"), true, false},
      {"one level too deep", Nested(kMaxNestingDepth + 1, "[", "]"), false, true},
      {"a million arrays", Nested(1000000, "[", "]"), false, true},
      {"a million objects", Nested(1000000, "{\"a\":", "}"), false, true},
      {"unclosed million arrays", std::string(1000000, '['), false, true},
      {"huge string", "{\"k\":\"" + std::string(8 * 1024 * 1024, 'x') + "\"}", true, false},
      {"huge key", "{\"" + std::string(4 * 1024 * 1024, 'k') + "\":1}", true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    rapidjson::Document document;
    const auto outcome = ParseBounded(c.text, document);
    EXPECT_EQ(outcome.ok, c.ok);
    EXPECT_EQ(outcome.tooDeep, c.tooDeep);
    EXPECT_EQ(outcome.reason.empty(), c.ok);
    if (!c.ok) {
      EXPECT_TRUE(document.IsNull()) << "a failed parse leaves the document as it was";
    }
  }
}

TEST(JsonText, ReportsTheOffsetWhereTheParseStopped) {
  rapidjson::Document document;
  EXPECT_EQ(ParseBounded(R"({"a":1,})", document).offset, 7u);
  const auto deep = ParseBounded(Nested(kMaxNestingDepth + 1, "[", "]"), document);
  EXPECT_EQ(deep.offset, kMaxNestingDepth) << "the index of the bracket that opened one level too deep";
  EXPECT_EQ(deep.reason, "nesting deeper than 64 levels");
}

}  // namespace
