// Decisions of the encrypted-volume handler.
#include "encryption/core/volume_rules.h"

#include <algorithm>
#include <cwctype>

namespace korva::encryption {

namespace {
bool SameIgnoringCase(std::wstring_view a, std::wstring_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return std::towupper(static_cast<wint_t>(x)) == std::towupper(static_cast<wint_t>(y));
         });
}
}  // namespace

bool BelongsToDevice(const std::vector<std::wstring>& deviceChain, std::wstring_view instancePath) {
  if (instancePath.empty()) return false;
  return std::any_of(deviceChain.begin(), deviceChain.end(),
                     [&](const std::wstring& device) { return SameIgnoringCase(device, instancePath); });
}

std::optional<wchar_t> DriveLetterOf(const std::vector<std::wstring>& mountPaths) {
  for (const std::wstring& path : mountPaths) {
    if (path.size() != 3 || path[1] != L':' || path[2] != L'\\') continue;
    const wchar_t upper = path[0] >= L'a' && path[0] <= L'z' ? static_cast<wchar_t>(path[0] - L'a' + L'A') : path[0];
    if (upper >= L'A' && upper <= L'Z') return upper;
  }
  return std::nullopt;
}

bool ShouldBlock(bool monitoring, long protectionStatus, bool blockedBefore) noexcept {
  return monitoring && protectionStatus == kUnprotected && !blockedBefore;
}

std::wstring ProtectionQuery(wchar_t driveLetter) {
  return L"SELECT DriveLetter, ProtectionStatus FROM Win32_EncryptableVolume WHERE DriveLetter = '" +
         std::wstring(1, driveLetter) + L":'";
}

}  // namespace korva::encryption
