// Text of the service log: the line layout, severity names, the header and the rolled file names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace korva::logformat {

// A record's creation time as local calendar time.
struct LocalTime {
  int year;
  int month;  // 1-12
  int day;
  int hour;
  int minute;
  int second;
};

inline constexpr std::string_view kHeader = "Date/Time | ThreadID | Severity | Function | Message\n";
inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// Text from outside the agent as a log line or event may show it: control characters (a line break
// would forge a line of its own) turn into '?'. Past `maxChars` characters the text is cut and
// "..." says so.
std::string PrintableText(std::string_view text, std::size_t maxChars = std::string_view::npos);

// "FATAL" ... "VERBOSE"; "UNKNOWN" for anything else.
std::string_view SeverityName(int severity) noexcept;

// "YYYY-MM-DD hh:mm:ss": 19 characters, written to `out` (which must hold 19).
void FormatDateTime(const LocalTime& time, char* out) noexcept;
inline constexpr std::size_t kDateTimeLength = 19;

// Appends `text` to `out`, turning every "\n" into "\r\n".
template <typename Buffer>
void AppendWithCrLf(Buffer& out, std::string_view text) {
  // One pass over the text: the C library's memchr is slow under Wine for these short strings.
  static constexpr char kCrLf[] = "\r\n";
  const char* run = text.data();
  const char* const end = text.data() + text.size();
  for (const char* p = run; p != end; ++p) {
    if (*p != '\n') continue;
    out.append(run, p);
    out.append(kCrLf, kCrLf + 2);
    run = p + 1;
  }
  out.append(run, end);
}

// Appends one complete line, line end included, already converted to CRLF:
// "[ <date time>:mmm ] [ TTTTTTTT ] [ SEVERITY ] [ FUNCTION ] MESSAGE\r\n".
// `dateTime` is the 19-character text of FormatDateTime (callers cache it per second).
template <typename Buffer>
void AppendLine(Buffer& out, std::string_view dateTime, unsigned milliseconds, std::uint32_t threadId, int severity,
                std::string_view function, std::string_view message) {
  char prefix[64];
  char* p = prefix;
  *p++ = '[';
  *p++ = ' ';
  for (char c : dateTime) *p++ = c;
  *p++ = ':';
  *p++ = static_cast<char>('0' + (milliseconds / 100) % 10);
  *p++ = static_cast<char>('0' + (milliseconds / 10) % 10);
  *p++ = static_cast<char>('0' + milliseconds % 10);
  const char kMid[] = " ] [ ";
  for (std::size_t i = 0; i + 1 < sizeof kMid; ++i) *p++ = kMid[i];
  // Thread id, zero-padded to at least 8 digits.
  char digits[10];
  int n = 0;
  std::uint32_t v = threadId;
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  for (int pad = n; pad < 8; ++pad) *p++ = '0';
  while (n > 0) *p++ = digits[--n];
  for (std::size_t i = 0; i + 1 < sizeof kMid; ++i) *p++ = kMid[i];
  // Severity right-aligned in 5; longer names whole.
  const std::string_view name = SeverityName(severity);
  for (std::size_t pad = name.size(); pad < 5; ++pad) *p++ = ' ';
  for (char c : name) *p++ = c;
  for (std::size_t i = 0; i + 1 < sizeof kMid; ++i) *p++ = kMid[i];
  out.append(prefix, p);
  AppendWithCrLf(out, function);
  static constexpr char kClose[] = " ] ";
  out.append(kClose, kClose + 3);
  AppendWithCrLf(out, message);
  static constexpr char kCrLf[] = "\r\n";
  out.append(kCrLf, kCrLf + 2);
}

// The bytes that start a new log file: byte-order mark and the header line with CRLF.
std::string NewFileHeaderBytes();

// A log path split at the last '.' of its file-name part: "C:\a.b\logs\x.log" -> "C:\a.b\logs\x", "log".
struct SplitName {
  std::wstring nameWithoutExtension;
  std::wstring extension;  // empty when the file name has no '.'
};
SplitName SplitFileName(const std::wstring& path);

// File of number n: the name, the number glued on when above 0, then "." and the extension
// (korva_agentservice1.log: no separator before the number, deliberately).
std::wstring RolledFileName(const SplitName& name, int number);

}  // namespace korva::logformat
