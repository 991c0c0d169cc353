// The full image path of an opened process.
#pragma once

#include <windows.h>

#include <string>

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

}  // namespace korva::win
