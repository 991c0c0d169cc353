// Deletes a folder and everything in it, quietly: the benchmarks' scratch folders.
#pragma once

#include <windows.h>
#include <shellapi.h>

#include <string>

namespace korva::bench {

inline void RemoveTree(const std::wstring& path) {
  std::wstring from = path;
  from.push_back(L'\0');  // the list of paths ends in two NULs
  SHFILEOPSTRUCTW op{};
  op.wFunc = FO_DELETE;
  op.pFrom = from.c_str();
  op.fFlags = FOF_NOCONFIRMATION | FOF_NOERRORUI | FOF_SILENT;
  SHFileOperationW(&op);
}

}  // namespace korva::bench
