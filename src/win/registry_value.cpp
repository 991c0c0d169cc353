// Typed reads and writes of one value of an open registry key.
#include "win/registry_value.h"

#include <vector>

#include "win/procedure.h"

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

LONG SetString(HKEY key, const wchar_t* name, const std::wstring& value) noexcept {
  const std::size_t bytes = (value.size() + 1) * sizeof(wchar_t);
  if (bytes > MAXDWORD) return ERROR_INVALID_PARAMETER;
  return SetRaw(key, name, REG_SZ, value.c_str(), static_cast<DWORD>(bytes));
}

std::optional<std::wstring> KeyFullName(HKEY key) {
  // NtQueryKey's KeyNameInformation (3): a ULONG byte count, then the name, not terminated.
  using NtQueryKeyFn = LONG(NTAPI*)(HANDLE, int, void*, ULONG, ULONG*);
  constexpr int kKeyNameInformation = 3;
  static const auto query = LookUpProcedure<NtQueryKeyFn>(GetModuleHandleW(L"ntdll.dll"), "NtQueryKey");
  if (query == nullptr) return std::nullopt;
  std::vector<ULONG> buffer(256);  // ULONGs keep the count aligned
  for (int attempt = 0; attempt < 3; ++attempt) {
    ULONG needed = 0;
    const auto bytes = static_cast<ULONG>(buffer.size() * sizeof(ULONG));
    const LONG status = query(key, kKeyNameInformation, buffer.data(), bytes, &needed);
    if (status >= 0) {
      const ULONG nameBytes = buffer[0];
      if (nameBytes > bytes - sizeof(ULONG)) return std::nullopt;
      return std::wstring(reinterpret_cast<const wchar_t*>(buffer.data() + 1), nameBytes / sizeof(wchar_t));
    }
    if (needed <= bytes) return std::nullopt;  // failed for another reason than the room
    buffer.resize(needed / sizeof(ULONG) + 1);
  }
  return std::nullopt;
}

}  // namespace korva::win
