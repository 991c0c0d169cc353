// Decisions of the encrypted-volume handler: what it is asked to do, which device a volume belongs
// to, and when an unprotected volume is blocked.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korva::encryption {

// EncryptDeviceHandler::DeviceHandler's `kind`.
enum VolumeEventKind : int {
  kVolumeArrived = 1,       // register the removable volumes not registered yet, check them
  kVolumeHandleEvent = 2,   // a custom event on a registered volume's handle: check that volume again
  kMonitoringTurnedOn = 3,  // check every removable volume now
};
// Its `subKind`: which custom event a kVolumeHandleEvent is; kNoSubKind with the other kinds.
enum VolumeEventSubKind : int { kNoSubKind = 0, kEncryptionStatusChanged = 1, kVolumeChanged = 2 };

// Why the handler lets go of a volume's handle: an open handle would veto what is under way.
enum class VolumeRelease { kRemoval, kLock, kDismount };
// Why it opens the volume again: what it let go of it for failed, or is over.
enum class VolumeReopen { kRemovalFailed, kLockFailed, kUnlocked, kDismountFailed, kMounted };

// ProtectionStatus of Win32_EncryptableVolume: 0 unprotected, 1 protected, 2 unknown.
inline constexpr long kUnprotected = 0;

// True when `instancePath` names the volume's device or one of its ancestors (`deviceChain`, the
// volume's own instance path first), compared without regard to case.
bool BelongsToDevice(const std::vector<std::wstring>& deviceChain, std::wstring_view instancePath);
// The drive letter a volume is known by: the first of its mount paths that is a drive's root ("E:\\").
// A volume mounted in folders only ("C:\\mnt\\usb\\") has none: its path's first letter is another
// volume's.
std::optional<wchar_t> DriveLetterOf(const std::vector<std::wstring>& mountPaths);
// An unprotected removable volume is blocked once while monitoring is on.
bool ShouldBlock(bool monitoring, long protectionStatus, bool blockedBefore) noexcept;
// Whether a volume's block still stands after a check read `protectionStatus`: only while the volume
// stays unprotected. Once it reads otherwise (protected, or locked), a later loss of its protection
// is a new reason to block it.
bool BlockStands(long protectionStatus, bool blockedBefore) noexcept;

// How the handler names a volume: "E:" for one with a drive letter, else the system's name for it,
// "\\?\Volume{GUID}\" (a volume with no letter is still reached through that name, and must be
// checked as much as one with a letter).
std::wstring VolumeId(const std::vector<std::wstring>& mountPaths, const std::wstring& volumeName);
// Whether `volume` is a volume's GUID name, "\\?\Volume{" hex digits and dashes "}\".
bool IsVolumeGuidName(std::wstring_view volume);
// The path that opens the volume itself: "\\.\E:", or the GUID name without its last backslash;
// empty for anything else.
std::wstring VolumeDevicePath(std::wstring_view volume);
// The WQL query for the encryptable volume: "... WHERE DriveLetter = 'E:'", or, for a volume with no
// letter, "... WHERE DeviceID = '<its GUID name, each backslash doubled>'"; nothing for any other text.
std::optional<std::wstring> ProtectionQuery(std::wstring_view volume);

}  // namespace korva::encryption
