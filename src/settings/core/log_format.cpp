// Text of the service log: severity names, date text, header bytes and rolled file names.
#include "settings/core/log_format.h"

namespace korva::logformat {

std::string PrintableText(std::string_view text, std::size_t maxChars) {
  const bool cut = text.size() > maxChars;
  std::string shown(cut ? text.substr(0, maxChars) : text);
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  }
  if (cut) shown += "...";
  return shown;
}

std::string_view SeverityName(int severity) noexcept {
  switch (severity) {
    case 1:
      return "FATAL";
    case 2:
      return "ERROR";
    case 3:
      return "WARNING";
    case 4:
      return "INFO";
    case 5:
      return "DEBUG";
    case 6:
      return "VERBOSE";
    default:
      return "UNKNOWN";
  }
}

namespace {
char* PutDigits(char* p, int value, int width) noexcept {
  unsigned v = value < 0 ? 0u : static_cast<unsigned>(value);
  for (int i = width - 1; i >= 0; --i) {
    p[i] = static_cast<char>('0' + v % 10);
    v /= 10;
  }
  return p + width;
}
}  // namespace

void FormatDateTime(const LocalTime& t, char* out) noexcept {
  char* p = PutDigits(out, t.year, 4);
  *p++ = '-';
  p = PutDigits(p, t.month, 2);
  *p++ = '-';
  p = PutDigits(p, t.day, 2);
  *p++ = ' ';
  p = PutDigits(p, t.hour, 2);
  *p++ = ':';
  p = PutDigits(p, t.minute, 2);
  *p++ = ':';
  PutDigits(p, t.second, 2);
}

std::string NewFileHeaderBytes() {
  std::string bytes(kByteOrderMark);
  AppendWithCrLf(bytes, kHeader);
  return bytes;
}

SplitName SplitFileName(const std::wstring& path) {
  const std::size_t dot = path.rfind(L'.');
  const std::size_t slash = path.find_last_of(L"\\/");
  if (dot == std::wstring::npos || (slash != std::wstring::npos && dot < slash)) {
    return {path, std::wstring()};
  }
  return {path.substr(0, dot), path.substr(dot + 1)};
}

std::wstring RolledFileName(const SplitName& name, int number) {
  std::wstring result = name.nameWithoutExtension;
  if (number > 0) result += std::to_wstring(number);
  if (!name.extension.empty()) {
    result += L'.';
    result += name.extension;
  }
  return result;
}

}  // namespace korva::logformat
