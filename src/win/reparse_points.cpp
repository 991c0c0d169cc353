// Which reparse points redirect an open to another place.
#include "win/reparse_points.h"

#include <windows.h>

namespace korva::win {

bool ReparsePointRedirects(const wchar_t* path) noexcept {
  WIN32_FIND_DATAW found{};
  const HANDLE search = FindFirstFileW(path, &found);
  if (search == INVALID_HANDLE_VALUE) return true;
  FindClose(search);
  return found.dwReserved0 == 0 || IsReparseTagNameSurrogate(found.dwReserved0);
}

bool OpenReparsePointRedirects(void* file) noexcept {
  FILE_ATTRIBUTE_TAG_INFO facts{};
  if (!GetFileInformationByHandleEx(file, FileAttributeTagInfo, &facts, sizeof(facts))) return true;
  if ((facts.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return false;
  return facts.ReparseTag == 0 || IsReparseTagNameSurrogate(facts.ReparseTag);
}

}  // namespace korva::win
