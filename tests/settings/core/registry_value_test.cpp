// Text-to-bytes conversion of registry values by type.
#include "settings/core/registry_value.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace reg = korva::registry;

namespace {

TEST(RegistryValue, DecimalParsingFollowsTheCLibraryRules) {
  const std::pair<const char*, std::int64_t> cases[] = {{"12abc", 12}, {"abc", 0},  {"", 0},
                                                        {"  42", 42},  {"-7x", -7}, {"- 5", 0}};
  for (const auto& [text, value] : cases) EXPECT_EQ(reg::ParseDecimal(text), value) << text;
  EXPECT_EQ(reg::ParseDecimal("99999999999999999999999"), 200376420520689663LL);
}

TEST(RegistryValue, BytesByType) {
  using Bytes = std::vector<std::uint8_t>;
  EXPECT_EQ(reg::ValueBytesForType(4, "-1").data, (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(reg::ValueBytesForType(11, "4294967296").data, (Bytes{0, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(reg::ValueBytesForType(2, "abc").data, (Bytes{'a', 'b', 'c', 0}));
  const reg::ValueBytes multi = reg::ValueBytesForType(7, std::string("one\0two\0\0", 9));
  EXPECT_EQ(multi.size, 3u + 15u);
  EXPECT_EQ(multi.data, (Bytes{'o', 'n', 'e', 0, 't', 'w', 'o', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  for (std::uint32_t type : {0u, 6u, 8u, 0xFFFFFFFFu}) EXPECT_FALSE(reg::ValueBytesForType(type, "1").writable) << type;
}

}  // namespace
