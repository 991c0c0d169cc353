// Typed reads and writes of one value of an open registry key. The check that a value read is
// stored with the type and size its reader expects lives here and nowhere else: a string "1"
// read as a number would otherwise come back as 49, a DWORD read as a QWORD as half a number.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace korva::win {

// A DWORD is a 4-byte REG_DWORD, a QWORD an 8-byte REG_QWORD; anything else is the wrong shape.
constexpr bool IsDwordValue(DWORD type, DWORD size) noexcept { return type == REG_DWORD && size == sizeof(DWORD); }
constexpr bool IsQwordValue(DWORD type, DWORD size) noexcept { return type == REG_QWORD && size == sizeof(ULONGLONG); }

// Each gives the registry's error, or ERROR_UNSUPPORTED_TYPE for a value of the wrong shape;
// `value` is set only on success.
[[nodiscard]] LONG QueryDword(HKEY key, const char* name, DWORD& value) noexcept;
[[nodiscard]] LONG QueryDword(HKEY key, const wchar_t* name, DWORD& value) noexcept;
[[nodiscard]] LONG QueryQword(HKEY key, const wchar_t* name, ULONGLONG& value) noexcept;

[[nodiscard]] LONG SetDword(HKEY key, const wchar_t* name, DWORD value) noexcept;
[[nodiscard]] LONG SetQword(HKEY key, const wchar_t* name, ULONGLONG value) noexcept;
// A REG_SZ of `value` as it is, ended by its NUL.
[[nodiscard]] LONG SetString(HKEY key, const wchar_t* name, const std::wstring& value) noexcept;

// The name the system knows `key` by, where it really is: "\REGISTRY\MACHINE\..." or
// "\REGISTRY\USER\...", whatever links the path that opened it went through. Empty when it
// cannot be read.
std::optional<std::wstring> KeyFullName(HKEY key);

}  // namespace korva::win
