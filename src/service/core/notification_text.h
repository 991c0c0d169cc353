// Text of the access log (rows, header, path) and the revoke timer's due time.
#pragma once

#include <cstdint>
#include <string>

namespace korva::notify {

inline constexpr const char* kAccessLogFileName = "korva_agentserviceaccess.log";
// The two header lines, written once into a new file; rows bring their own line breaks.
inline constexpr const char* kAccessLogHeader =
    "DATE\t\tNOTIFICATION-TIME\tNOTIFICATION-RECEIVED\n----\t\t-----------------\t---------------------";

// "7-3-2024": day, month (1-12) and four-digit year, no padding.
std::string AccessLogDate(int day, int month, int year);
// "09:05:01"
std::string AccessLogTime(int hour, int minute, int second);
// "\n<date>\t<time>\t\t\t<name>\t": each row starts with a line break and ends with a tab.
std::string AccessLogRow(const std::string& date, const std::string& time, const std::string& name);
// "<directory>logs\<file>"; a directory without its closing backslash gets one.
std::string AccessLogPath(const std::string& directory);

// Milliseconds from now to the next revoke, computed in unsigned 64-bit arithmetic (a revoke
// time in the past or the "no grant" maximum wraps instead of overflowing) and kept to 32 bits,
// as the timer takes them.
std::uint32_t RevokeDueTimeMs(std::uint64_t nextRevokeSeconds, std::uint64_t nowSeconds) noexcept;

}  // namespace korva::notify
