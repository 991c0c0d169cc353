// Text of the access log and the revoke timer's due time.
#include "service/core/notification_text.h"

#include <cstdio>

namespace korva::notify {

std::string AccessLogDate(int day, int month, int year) {
  char text[48];
  std::snprintf(text, sizeof text, "%d-%d-%d", day, month, year);
  return text;
}

std::string AccessLogTime(int hour, int minute, int second) {
  char text[48];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", hour, minute, second);
  return text;
}

std::string AccessLogRow(const std::string& date, const std::string& time, const std::string& name) {
  return "\n" + date + "\t" + time + "\t\t\t" + name + "\t";
}

std::string AccessLogPath(const std::string& directory) {
  std::string path = directory;
  if (!path.empty() && path.back() != '\\' && path.back() != '/') path += '\\';
  return path + "logs\\" + kAccessLogFileName;
}

std::uint32_t RevokeDueTimeMs(std::uint64_t nextRevokeSeconds, std::uint64_t nowSeconds) noexcept {
  const std::uint64_t dueMs = nextRevokeSeconds * 1000u - nowSeconds * 1000u;
  return static_cast<std::uint32_t>(dueMs);
}

}  // namespace korva::notify
