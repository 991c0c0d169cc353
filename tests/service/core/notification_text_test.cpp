// Access-log text and the revoke timer's due time.
#include "service/core/notification_text.h"

#include <gtest/gtest.h>

#include <limits>

namespace nt = korva::notify;

namespace {

// The header and the file's layout are checked on a real file by the notification tests.
TEST(AccessLogText, RowsPadTheTimeButNotTheDateAndThePathGetsTheLogsFolder) {
  EXPECT_EQ(nt::AccessLogRow(nt::AccessLogDate(7, 3, 2024), nt::AccessLogTime(9, 5, 1), "Device_Event_Notification"),
            "\n7-3-2024\t09:05:01\t\t\tDevice_Event_Notification\t");
  EXPECT_EQ(nt::AccessLogDate(31, 12, 1999), "31-12-1999");
  EXPECT_EQ(nt::AccessLogTime(23, 59, 0), "23:59:00");
  EXPECT_EQ(nt::AccessLogPath("C:\\Korva\\"), "C:\\Korva\\logs\\korva_agentserviceaccess.log");
  EXPECT_EQ(nt::AccessLogPath("C:\\Korva"), "C:\\Korva\\logs\\korva_agentserviceaccess.log");
  EXPECT_EQ(nt::AccessLogPath(""), "logs\\korva_agentserviceaccess.log");
}

TEST(RevokeDueTime, IsTheDistanceInMillisecondsKeptToThirtyTwoBits) {
  EXPECT_EQ(nt::RevokeDueTimeMs(1000, 990), 10000u);
  EXPECT_EQ(nt::RevokeDueTimeMs(5000000, 0), static_cast<std::uint32_t>(5000000000ull));  // truncated
  // A past revoke time and the "no grant" maximum wrap around instead of overflowing.
  EXPECT_EQ(nt::RevokeDueTimeMs(10, 11), static_cast<std::uint32_t>(0xFFFFFFFFFFFFFC18ull));
  const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(nt::RevokeDueTimeMs(max, 1700000000), static_cast<std::uint32_t>(max * 1000u - 1700000000000ull));
}

}  // namespace
