// Which folders may be given the agent folders' access list.
#include "service/core/agent_folder_rules.h"

#include <algorithm>

namespace korva::service {

bool IsAgentFolderToSecure(std::wstring_view folder) {
  constexpr std::wstring_view kSeparators = L"\\/";
  if (folder.size() < 4 || folder.find(L'\0') != std::wstring_view::npos) return false;
  const wchar_t drive = folder[0];
  const bool letter = (drive >= L'A' && drive <= L'Z') || (drive >= L'a' && drive <= L'z');
  if (!letter || folder[1] != L':' || folder[2] != L'\\') return false;
  // Past "X:\", a name: separators alone are still the root.
  if (folder.find_first_not_of(kSeparators, 3) == std::wstring_view::npos) return false;
  for (std::size_t start = 3; start <= folder.size();) {
    const std::size_t end = std::min(folder.find_first_of(kSeparators, start), folder.size());
    if (folder.substr(start, end - start) == L"..") return false;
    start = end + 1;
  }
  return true;
}

}  // namespace korva::service
