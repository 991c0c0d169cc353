// What the launchers decide before and after a child runs: refusal texts, wait lengths, command
// lines and log lines. No Win32 here, so it is tested natively.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace korva::process {

// The wait, in minutes, that has a launcher return as soon as the child has started.
inline constexpr std::uint32_t kNoWait = 0;
// ERROR_RETRY: a launch refused because the machine is shutting down; callers retry at next start.
inline constexpr std::uint32_t kShutdownRefusalCode = 1237;
// WAIT_TIMEOUT: the child outlived its wait and was terminated.
inline constexpr std::uint32_t kTimedOutCode = 258;
// ERROR_NO_TOKEN: no token could be had for the requested session.
inline constexpr std::uint32_t kNoTokenCode = 1008;

// The system's own texts, the remarks' grammar included: kept as they stand.
inline constexpr const char* kShutdownLogText = "Shutdown is in Progress. So returning without executing the process";
inline constexpr const char* kShutdownRemarks = "Machine is shutdown. Installation will retried in the next reboot";

// Milliseconds to wait for `minutes`. Saturates just below INFINITE (0xFFFFFFFF) so a huge
// minute count never wraps into a short wait nor turns into an endless one.
std::uint32_t WaitMillisecondsForMinutes(std::uint32_t minutes) noexcept;

// How the log names a launch of an application with its arguments: the path in double quotes
// (left alone when it already is quoted), then a blank and the arguments when there are any.
// The child itself gets only the arguments as its command line.
std::string AppLaunchText(std::string_view application, const char* arguments);
std::wstring AppLaunchText(std::wstring_view application, const wchar_t* arguments);

// "Terminating the Process for application <cmd> as time is exceeded <n> Minutes " (the trailing
// blank is the system's own).
std::wstring TimeExceededLine(std::wstring_view commandLine, std::uint32_t minutes);

// "CurrentWorkingDirectory Buffer overflow. Need to allocate the length for <n> chars".
std::string CurrentDirectoryOverflowLine(std::size_t needed);

// A child's captured output cut into lines for the log: "\r\n" and "\n" both end a line, a last
// line without an end counts, blank lines are dropped, and a control character left inside a line
// (a tab apart) becomes '?'.
std::vector<std::string> OutputLines(std::string_view output);

}  // namespace korva::process
