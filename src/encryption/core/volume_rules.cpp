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

bool BlockStands(long protectionStatus, bool blockedBefore) noexcept {
  return blockedBefore && protectionStatus == kUnprotected;
}

std::wstring VolumeId(const std::vector<std::wstring>& mountPaths, const std::wstring& volumeName) {
  const std::optional<wchar_t> letter = DriveLetterOf(mountPaths);
  return letter ? std::wstring{*letter, L':'} : volumeName;
}

bool IsVolumeGuidName(std::wstring_view volume) {
  constexpr std::wstring_view kStart = L"\\\\?\\Volume{";
  constexpr std::wstring_view kEnd = L"}\\";
  if (volume.size() <= kStart.size() + kEnd.size() || volume.substr(0, kStart.size()) != kStart ||
      volume.substr(volume.size() - kEnd.size()) != kEnd) {
    return false;
  }
  const std::wstring_view guid = volume.substr(kStart.size(), volume.size() - kStart.size() - kEnd.size());
  return std::all_of(guid.begin(), guid.end(), [](wchar_t c) {
    return c == L'-' || (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'f') || (c >= L'A' && c <= L'F');
  });
}

namespace {
bool IsDriveId(std::wstring_view volume) {
  return volume.size() == 2 && volume[0] >= L'A' && volume[0] <= L'Z' && volume[1] == L':';
}
}  // namespace

std::wstring VolumeDevicePath(std::wstring_view volume) {
  if (IsDriveId(volume)) return L"\\\\.\\" + std::wstring(volume);
  if (IsVolumeGuidName(volume)) return std::wstring(volume.substr(0, volume.size() - 1));
  return {};
}

std::optional<std::wstring> ProtectionQuery(std::wstring_view volume) {
  constexpr wchar_t kSelect[] = L"SELECT DriveLetter, ProtectionStatus FROM Win32_EncryptableVolume WHERE ";
  if (IsDriveId(volume)) return kSelect + std::wstring(L"DriveLetter = '") + std::wstring(volume) + L"'";
  if (!IsVolumeGuidName(volume)) return std::nullopt;
  std::wstring escaped;
  for (const wchar_t c : volume) {
    escaped += c;
    if (c == L'\\') escaped += c;
  }
  return kSelect + std::wstring(L"DeviceID = '") + escaped + L"'";
}

}  // namespace korva::encryption
