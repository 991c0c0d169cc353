// The full image path of an opened process, and the open of a file at such a path.
#pragma once

#include <windows.h>

#include <string>

#include "win/procedure.h"

namespace korva::win {

// The image path of `process` (opened with PROCESS_QUERY_LIMITED_INFORMATION at least), up to the
// longest path the system has; empty, with the call's error in `error`, when it cannot be read.
inline std::wstring ProcessImagePath(HANDLE process, DWORD& error) {
  std::wstring path(32768, L'\0');
  auto size = static_cast<DWORD>(path.size());
  if (!QueryFullProcessImageNameW(process, 0, path.data(), &size)) {
    error = GetLastError();
    return {};
  }
  path.resize(size);
  return path;
}

// Opens the existing file at `path` (CreateFileW's OPEN_EXISTING) as the path names it. An image
// path read from a 64-bit process names its own side: in a 32-bit process under WOW64 the system
// would turn its System32 into SysWOW64 and open another file than the one that runs, or none.
// The redirection is off for this open alone: it applies to the whole thread while it is off, and a
// library loaded meanwhile would come from the 64-bit side. CreateFileW's error stays the last one.
inline HANDLE OpenFileAsNamed(const wchar_t* path, DWORD access, DWORD share) {
  using DisableFn = BOOL(WINAPI*)(PVOID*);
  using RevertFn = BOOL(WINAPI*)(PVOID);
  // Looked up: a system without WOW64 has no redirection to turn off.
  static const auto disable =
      LookUpProcedure<DisableFn>(GetModuleHandleW(L"kernel32.dll"), "Wow64DisableWow64FsRedirection");
  static const auto revert =
      LookUpProcedure<RevertFn>(GetModuleHandleW(L"kernel32.dll"), "Wow64RevertWow64FsRedirection");
  PVOID previous = nullptr;
  const bool off = disable != nullptr && revert != nullptr && disable(&previous) != FALSE;
  const HANDLE file = CreateFileW(path, access, share, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  const DWORD error = GetLastError();
  if (off) revert(previous);
  SetLastError(error);
  return file;
}

}  // namespace korva::win
