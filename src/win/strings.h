// Conversions between the ANSI code page, UTF-8 and UTF-16 (Win32's MultiByteToWideChar family):
// the one place that calls those two.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korva::win {

// Each returns the converted text; text that cannot be converted gives the empty string.
std::wstring AnsiToWide(std::string_view text);
std::string WideToAnsi(std::wstring_view text);
// The ANSI form only when every character has an exact one: no best-fit look-alike (a full-width
// '＼' turning into '\\', say) and no default character. Nothing otherwise.
std::optional<std::string> WideToAnsiExact(std::wstring_view text);
std::wstring Utf8ToWide(std::string_view text);
std::string WideToUtf8(std::wstring_view text);

// The same for callers that report a failure: nothing when the system refuses the conversion, and
// GetLastError() then gives its error. Empty text converts to empty text.
std::optional<std::wstring> TryUtf8ToWide(std::string_view text);
std::optional<std::string> TryWideToUtf8(std::wstring_view text);

}  // namespace korva::win
