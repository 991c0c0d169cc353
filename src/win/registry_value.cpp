// Typed reads and writes of one value of an open registry key.
#include "win/registry_value.h"

namespace korva::win {
namespace {

[[nodiscard]] LONG QueryRaw(HKEY key, const char* name, DWORD* type, void* data, DWORD* size) noexcept {
  return RegQueryValueExA(key, name, nullptr, type, static_cast<BYTE*>(data), size);
}
[[nodiscard]] LONG QueryRaw(HKEY key, const wchar_t* name, DWORD* type, void* data, DWORD* size) noexcept {
  return RegQueryValueExW(key, name, nullptr, type, static_cast<BYTE*>(data), size);
}

template <typename Char, typename Number, bool (*HasShape)(DWORD, DWORD)>
[[nodiscard]] LONG QueryNumber(HKEY key, const Char* name, Number& value) noexcept {
  DWORD type = REG_NONE;
  Number data = 0;
  DWORD size = sizeof data;
  const LONG code = QueryRaw(key, name, &type, &data, &size);
  if (code == ERROR_SUCCESS && !HasShape(type, size)) return ERROR_UNSUPPORTED_TYPE;
  if (code == ERROR_SUCCESS) value = data;
  return code;
}

bool DwordShape(DWORD type, DWORD size) { return IsDwordValue(type, size); }
bool QwordShape(DWORD type, DWORD size) { return IsQwordValue(type, size); }

[[nodiscard]] LONG SetRaw(HKEY key, const wchar_t* name, DWORD type, const void* data, DWORD size) noexcept {
  return RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), size);
}

}  // namespace

LONG QueryDword(HKEY key, const char* name, DWORD& value) noexcept {
  return QueryNumber<char, DWORD, DwordShape>(key, name, value);
}
LONG QueryDword(HKEY key, const wchar_t* name, DWORD& value) noexcept {
  return QueryNumber<wchar_t, DWORD, DwordShape>(key, name, value);
}
LONG QueryQword(HKEY key, const wchar_t* name, ULONGLONG& value) noexcept {
  return QueryNumber<wchar_t, ULONGLONG, QwordShape>(key, name, value);
}

LONG SetDword(HKEY key, const wchar_t* name, DWORD value) noexcept {
  return SetRaw(key, name, REG_DWORD, &value, sizeof value);
}
LONG SetQword(HKEY key, const wchar_t* name, ULONGLONG value) noexcept {
  return SetRaw(key, name, REG_QWORD, &value, sizeof value);
}

}  // namespace korva::win
