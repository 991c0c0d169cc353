// The on-demand program's name test.
#include "ondemand/core/lock_rules.h"

namespace korva::ondemand {
namespace {
constexpr wchar_t FoldAscii(wchar_t c) noexcept {
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}
}  // namespace

bool IsOnDemandProgramName(std::wstring_view imageName) noexcept {
  const std::size_t slash = imageName.find_last_of(L"\\/");
  if (slash != std::wstring_view::npos) imageName.remove_prefix(slash + 1);
  if (imageName.size() != kOnDemandProgram.size()) return false;
  for (std::size_t i = 0; i < imageName.size(); ++i) {
    if (FoldAscii(imageName[i]) != FoldAscii(kOnDemandProgram[i])) return false;
  }
  return true;
}

}  // namespace korva::ondemand
