// Conversions between the ANSI code page, UTF-8 and UTF-16.
#include "win/strings.h"

#include <windows.h>

namespace korva::win {
namespace {

// Nothing when a call fails; its error stays the thread's last error.
std::optional<std::wstring> ToWide(UINT codePage, std::string_view text) {
  if (text.empty()) return std::wstring();
  const int size = static_cast<int>(text.size());
  const int needed = MultiByteToWideChar(codePage, 0, text.data(), size, nullptr, 0);
  if (needed <= 0) return std::nullopt;
  std::wstring result(static_cast<std::size_t>(needed), L'\0');
  if (MultiByteToWideChar(codePage, 0, text.data(), size, result.data(), needed) <= 0) return std::nullopt;
  return result;
}

std::optional<std::string> FromWide(UINT codePage, std::wstring_view text) {
  if (text.empty()) return std::string();
  const int size = static_cast<int>(text.size());
  const int needed = WideCharToMultiByte(codePage, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
  if (needed <= 0) return std::nullopt;
  std::string result(static_cast<std::size_t>(needed), '\0');
  if (WideCharToMultiByte(codePage, 0, text.data(), size, result.data(), needed, nullptr, nullptr) <= 0) {
    return std::nullopt;
  }
  return result;
}

}  // namespace

std::optional<std::string> WideToAnsiExact(std::wstring_view text) {
  if (text.empty()) return std::string();
  const int size = static_cast<int>(text.size());
  BOOL usedDefault = FALSE;
  const int needed =
      WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.data(), size, nullptr, 0, nullptr, &usedDefault);
  if (needed <= 0 || usedDefault) return std::nullopt;
  std::string result(static_cast<std::size_t>(needed), '\0');
  WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.data(), size, result.data(), needed, nullptr, &usedDefault);
  if (usedDefault || AnsiToWide(result) != text) return std::nullopt;
  return result;
}

std::wstring AnsiToWide(std::string_view text) { return ToWide(CP_ACP, text).value_or(std::wstring()); }
std::string WideToAnsi(std::wstring_view text) { return FromWide(CP_ACP, text).value_or(std::string()); }
std::wstring Utf8ToWide(std::string_view text) { return ToWide(CP_UTF8, text).value_or(std::wstring()); }
std::string WideToUtf8(std::wstring_view text) { return FromWide(CP_UTF8, text).value_or(std::string()); }
std::optional<std::wstring> TryUtf8ToWide(std::string_view text) { return ToWide(CP_UTF8, text); }
std::optional<std::string> TryWideToUtf8(std::wstring_view text) { return FromWide(CP_UTF8, text); }

}  // namespace korva::win
