// Building one log record's message: text and numbers appended into a stack buffer as UTF-8.
#include <windows.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "settings/log.h"
#include "win/strings.h"

namespace korva::log {

RecordStream::~RecordStream() {
  Submit(severity_, function_, std::string_view(data_, size_));
  if (data_ != inline_) std::free(data_);
}

void RecordStream::Grow(std::size_t needed) noexcept {
  std::size_t capacity = capacity_ * 2;
  while (capacity < needed) capacity *= 2;
  char* bigger = static_cast<char*>(std::malloc(capacity));
  if (bigger == nullptr) return;  // keep what fits; a log record is never worth a crash
  std::memcpy(bigger, data_, size_);
  if (data_ != inline_) std::free(data_);
  data_ = bigger;
  capacity_ = capacity;
}

void RecordStream::AppendUtf8(const char* data, std::size_t size) noexcept {
  if (size_ + size > capacity_) Grow(size_ + size);
  if (size_ + size > capacity_) size = capacity_ - size_;
  // Inline copies: the C library's memcpy costs more than the few bytes of a number.
  char* out = data_ + size_;
  std::size_t i = 0;
  for (; i + 4 <= size; i += 4) std::memcpy(out + i, data + i, 4);
  for (; i < size; ++i) out[i] = data[i];
  size_ += size;
}

namespace {
// Narrow text is in the ANSI code page; the log is UTF-8.
void AppendAnsi(RecordStream& stream, std::string_view text) noexcept {
  try {
    const std::string utf8 = win::WideToUtf8(win::AnsiToWide(text));
    stream.AppendUtf8(utf8.data(), utf8.size());
  } catch (...) {
  }
}
}  // namespace

// ASCII text, the common case, is copied byte by byte as it is checked: one pass, no library call
// (the C library's memchr and memcpy cost more than the copy itself for texts this short).
RecordStream& RecordStream::operator<<(std::string_view text) noexcept {
  const std::size_t size = text.size();
  if (size_ + size > capacity_) Grow(size_ + size);
  if (size_ + size <= capacity_) {
    char* out = data_ + size_;
    std::size_t i = 0;
    for (; i < size && static_cast<unsigned char>(text[i]) < 0x80; ++i) out[i] = text[i];
    if (i == size) {
      size_ += size;
      return *this;
    }
  }
  AppendAnsi(*this, text);
  return *this;
}

RecordStream& RecordStream::operator<<(const char* text) noexcept {
  if (text == nullptr) return *this;
  // Copies while measuring; only text that is not ASCII or does not fit takes the longer way.
  char* out = data_ + size_;
  const std::size_t room = capacity_ - size_;
  for (std::size_t i = 0; i < room; ++i) {
    const char c = text[i];
    if (c == '\0') {
      size_ += i;
      return *this;
    }
    if (static_cast<unsigned char>(c) >= 0x80) break;
    out[i] = c;
  }
  return *this << std::string_view(text);
}

RecordStream& RecordStream::operator<<(const std::string& text) noexcept { return *this << std::string_view(text); }

RecordStream& RecordStream::operator<<(const wchar_t* text) noexcept {
  if (text == nullptr) return *this;
  try {
    const std::string utf8 = win::WideToUtf8(std::wstring_view(text));
    AppendUtf8(utf8.data(), utf8.size());
  } catch (...) {
  }
  return *this;
}

RecordStream& RecordStream::operator<<(const std::wstring& text) noexcept { return *this << text.c_str(); }

RecordStream& RecordStream::operator<<(char c) noexcept { return *this << std::string_view(&c, 1); }

RecordStream& RecordStream::operator<<(wchar_t c) noexcept {
  const wchar_t text[2] = {c, L'\0'};
  return *this << text;
}

RecordStream& RecordStream::operator<<(bool value) noexcept {
  AppendUtf8(value ? "1" : "0", 1);
  return *this;
}

void RecordStream::AppendSigned(long long value) noexcept {
  char digits[24];
  const auto result = std::to_chars(digits, digits + sizeof digits, value);
  AppendUtf8(digits, static_cast<std::size_t>(result.ptr - digits));
}

void RecordStream::AppendUnsigned(unsigned long long value) noexcept {
  char digits[24];
  const auto result = std::to_chars(digits, digits + sizeof digits, value);
  AppendUtf8(digits, static_cast<std::size_t>(result.ptr - digits));
}

RecordStream& RecordStream::operator<<(int value) noexcept {
  AppendSigned(value);
  return *this;
}
RecordStream& RecordStream::operator<<(unsigned value) noexcept {
  AppendUnsigned(value);
  return *this;
}
RecordStream& RecordStream::operator<<(long value) noexcept {
  AppendSigned(value);
  return *this;
}
RecordStream& RecordStream::operator<<(unsigned long value) noexcept {
  AppendUnsigned(value);
  return *this;
}
RecordStream& RecordStream::operator<<(long long value) noexcept {
  AppendSigned(value);
  return *this;
}
RecordStream& RecordStream::operator<<(unsigned long long value) noexcept {
  AppendUnsigned(value);
  return *this;
}

RecordStream& RecordStream::operator<<(double value) noexcept {
  char text[32];
  const int n = std::snprintf(text, sizeof text, "%g", value);
  if (n > 0)
    AppendUtf8(text, static_cast<std::size_t>(n) < sizeof text ? static_cast<std::size_t>(n) : sizeof text - 1);
  return *this;
}

RecordStream& RecordStream::operator<<(const void* pointer) noexcept {
  char text[24];
  const int n = std::snprintf(text, sizeof text, "%p", pointer);
  if (n > 0) AppendUtf8(text, static_cast<std::size_t>(n));
  return *this;
}

Scope::Scope(const char* name) noexcept : function_(name), exitText_(nullptr) {
  if (Enabled(kDebug)) RecordStream(kDebug, function_) << "@@@ Inside " << name << " @@@";
}

Scope::Scope(const char* function, const char* entryText, const char* exitText) noexcept
    : function_(function), exitText_(exitText) {
  if (Enabled(kDebug)) RecordStream(kDebug, function_) << entryText;
}

Scope::~Scope() {
  if (!Enabled(kDebug)) return;
  if (exitText_ != nullptr) {
    RecordStream(kDebug, function_) << exitText_;
  } else {
    RecordStream(kDebug, function_) << "@@@ End of " << function_ << " @@@";
  }
}

}  // namespace korva::log
