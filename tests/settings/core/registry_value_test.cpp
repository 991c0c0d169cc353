// Text-to-bytes conversion of registry values by type.
#include "settings/core/registry_value.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace reg = korva::registry;

namespace {

TEST(RegistryValue, DecimalParsingFollowsTheCLibraryRules) {
  struct Case { const char* text; std::int64_t value; };
  const Case cases[] = {{"12abc", 12}, {"abc", 0}, {"", 0}, {"  42", 42}, {"-7x", -7}, {"+9", 9},
                        {"- 5", 0}, {"0012", 12}, {"4294967295", 4294967295LL},
                        {"99999999999999999999999", 200376420520689663LL}};
  for (const Case& c : cases) EXPECT_EQ(reg::ParseDecimal(c.text), c.value) << c.text;
}

TEST(RegistryValue, DwordAndQwordAreLittleEndianOfTheParsedText) {
  const reg::ValueBytes dword = reg::ValueBytesForType(4, "12abc");
  ASSERT_TRUE(dword.writable);
  EXPECT_EQ(dword.size, 4u);
  EXPECT_EQ(dword.data, (std::vector<std::uint8_t>{12, 0, 0, 0}));
  EXPECT_EQ(reg::ValueBytesForType(4, "-1").data, (std::vector<std::uint8_t>{0xFF, 0xFF, 0xFF, 0xFF}));
  const reg::ValueBytes qword = reg::ValueBytesForType(11, "4294967296");
  EXPECT_EQ(qword.size, 8u);
  EXPECT_EQ(qword.data, (std::vector<std::uint8_t>{0, 0, 0, 0, 1, 0, 0, 0}));
}

TEST(RegistryValue, StringTypesCarryTheirNul) {
  for (std::uint32_t type : {1u, 2u, 3u}) {
    const reg::ValueBytes v = reg::ValueBytesForType(type, "abc");
    ASSERT_TRUE(v.writable) << type;
    EXPECT_EQ(v.size, 4u);
    EXPECT_EQ(v.data, (std::vector<std::uint8_t>{'a', 'b', 'c', 0}));
  }
}

TEST(RegistryValue, MultiStringIsLengthPlusFifteenBytes) {
  const std::string list("one\0two\0\0", 9);
  const reg::ValueBytes v = reg::ValueBytesForType(7, list);
  ASSERT_TRUE(v.writable);
  EXPECT_EQ(v.size, 3u + 15u);
  ASSERT_EQ(v.data.size(), 18u);
  EXPECT_EQ(std::string(v.data.begin(), v.data.begin() + 9), list);
  for (std::size_t i = 9; i < v.data.size(); ++i) EXPECT_EQ(v.data[i], 0) << i;
}

TEST(RegistryValue, OtherTypesAreNotWritten) {
  for (std::uint32_t type : {0u, 5u, 6u, 8u, 9u, 10u, 12u, 0xFFFFFFFFu}) {
    EXPECT_FALSE(reg::ValueBytesForType(type, "1").writable) << type;
  }
}

}  // namespace
