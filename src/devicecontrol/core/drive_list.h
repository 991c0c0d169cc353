// The merge of a fresh volume scan into the removable drive list, and what the refresh does with
// the drives it adds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace korva::devicecontrol {

// UpdateRemovableDriveEntries' argument: whether the drives new to the list are started (the
// new-drive hook runs for each) or only listed.
inline constexpr int kStartNewDrives = 1;
inline constexpr int kOnlyListNewDrives = 0;

// Whether two drive paths name the same drive. Only ASCII letters fold, as the C runtime's
// wide case-insensitive compare does in the "C" locale; drive letters and the usual mount
// folders are ASCII.
bool SameDrivePath(std::wstring_view a, std::wstring_view b) noexcept;

// The outcome of one merge.
struct DriveListMerge {
  bool listWasEmpty = false;        // the list was empty and has been replaced by the scan
  std::vector<std::wstring> list;   // the list from now on
  std::vector<std::wstring> added;  // entries of `list` that were not in the old list, in order
};

// Merges `scan` (the drives found now, in scan order) into `current` (the list so far).
// An empty list takes the scan as it is. Otherwise the list becomes the scan entries already
// listed (the kept part) followed by those that were not (the new part), both in scan order and
// spelled as the scan has them; drives no longer found drop out. A scan entry that repeats an
// earlier one (in any letter case) is left out, so the list never holds one drive twice.
DriveListMerge MergeDriveList(const std::vector<std::wstring>& current, const std::vector<std::wstring>& scan);

}  // namespace korva::devicecontrol
