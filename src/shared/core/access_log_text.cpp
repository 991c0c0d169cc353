// Text of the access log.
#include "shared/core/access_log_text.h"

#include <cstdio>

namespace korva::accesslog {

// 48 characters hold any three ints with their separators, so the text is never cut.
std::string Date(int day, int month, int year) {
  char text[48];
  (void)std::snprintf(text, sizeof text, "%d-%d-%d", day, month, year);
  return text;
}

std::string Time(int hour, int minute, int second) {
  char text[48];
  (void)std::snprintf(text, sizeof text, "%02d:%02d:%02d", hour, minute, second);
  return text;
}

std::string Row(const std::string& date, const std::string& time, const std::string& name) {
  return "\n" + date + "\t" + time + "\t\t\t" + name + "\t";
}

std::string PathIn(const std::string& directory) {
  std::string path = directory;
  if (!path.empty() && path.back() != '\\' && path.back() != '/') path += '\\';
  return path + "logs\\" + kFileName;
}

}  // namespace korva::accesslog
