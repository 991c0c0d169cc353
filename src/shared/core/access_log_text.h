// Text of the access log: its rows, its header and its path.
#pragma once

#include <string>

namespace korva::accesslog {

inline constexpr const char* kFileName = "korva_agentserviceaccess.log";
// The two header lines, written once into a new file; rows bring their own line breaks.
inline constexpr const char* kHeader =
    "DATE\t\tNOTIFICATION-TIME\tNOTIFICATION-RECEIVED\n----\t\t-----------------\t---------------------";

// "7-3-2024": day, month (1-12) and four-digit year, no padding.
std::string Date(int day, int month, int year);
// "09:05:01"
std::string Time(int hour, int minute, int second);
// "\n<date>\t<time>\t\t\t<name>\t": each row starts with a line break and ends with a tab, so
// the file never ends with a line break; the layout is deliberate.
std::string Row(const std::string& date, const std::string& time, const std::string& name);
// "<directory>logs\<file>"; a directory without its closing backslash gets one.
std::string PathIn(const std::string& directory);

}  // namespace korva::accesslog
