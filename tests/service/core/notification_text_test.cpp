// The revoke timer's due time.
#include "service/core/notification_text.h"

#include <gtest/gtest.h>

#include <limits>

namespace nt = korva::notify;

namespace {

TEST(RevokeDueTime, IsTheDistanceInMillisecondsKeptToThirtyTwoBits) {
  EXPECT_EQ(nt::RevokeDueTimeMs(1000, 990), 10000u);
  EXPECT_EQ(nt::RevokeDueTimeMs(5000000, 0), static_cast<std::uint32_t>(5000000000ull));  // truncated
  // A past revoke time and the "no grant" maximum wrap around instead of overflowing.
  EXPECT_EQ(nt::RevokeDueTimeMs(10, 11), static_cast<std::uint32_t>(0xFFFFFFFFFFFFFC18ull));
  const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(nt::RevokeDueTimeMs(max, 1700000000), static_cast<std::uint32_t>(max * 1000u - 1700000000000ull));
}

}  // namespace
