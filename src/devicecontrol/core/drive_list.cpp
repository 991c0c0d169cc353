// The merge of a fresh volume scan into the removable drive list.
#include "devicecontrol/core/drive_list.h"

#include <algorithm>

namespace korva::devicecontrol {

namespace {

constexpr wchar_t FoldAscii(wchar_t c) noexcept { return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c + 32) : c; }

bool Contains(const std::vector<std::wstring>& list, std::wstring_view path) {
  return std::any_of(list.begin(), list.end(), [&](const std::wstring& entry) { return SameDrivePath(entry, path); });
}

}  // namespace

bool SameDrivePath(std::wstring_view a, std::wstring_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (FoldAscii(a[i]) != FoldAscii(b[i])) return false;
  }
  return true;
}

DriveListMerge MergeDriveList(const std::vector<std::wstring>& current, const std::vector<std::wstring>& scan) {
  DriveListMerge merge;
  merge.listWasEmpty = current.empty();
  std::vector<std::wstring> kept;
  for (const std::wstring& path : scan) {
    if (Contains(kept, path) || Contains(merge.added, path)) continue;
    if (!merge.listWasEmpty && Contains(current, path)) {
      kept.push_back(path);
    } else {
      merge.added.push_back(path);
    }
  }
  merge.list = std::move(kept);
  merge.list.insert(merge.list.end(), merge.added.begin(), merge.added.end());
  return merge;
}

}  // namespace korva::devicecontrol
