// Access-log text: rows, dates, times and the file's place.
#include "shared/core/access_log_text.h"

#include <gtest/gtest.h>

namespace al = korva::accesslog;

namespace {

// The header and the file's layout are checked on a real file by the notification tests.
TEST(AccessLogText, RowsPadTheTimeButNotTheDateAndThePathGetsTheLogsFolder) {
  EXPECT_EQ(al::Row(al::Date(7, 3, 2024), al::Time(9, 5, 1), "Device_Event_Notification"),
            "\n7-3-2024\t09:05:01\t\t\tDevice_Event_Notification\t");
  EXPECT_EQ(al::PathIn("C:\\Korva\\"), "C:\\Korva\\logs\\korva_agentserviceaccess.log");
  EXPECT_EQ(al::PathIn("C:\\Korva"), "C:\\Korva\\logs\\korva_agentserviceaccess.log");
  EXPECT_EQ(al::PathIn(""), "logs\\korva_agentserviceaccess.log");
}

}  // namespace
