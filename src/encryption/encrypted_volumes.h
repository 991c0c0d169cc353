// What the encrypted-volume handler learns from the system: the removable volumes with the devices
// they belong to, and each one's protection status from the volume-encryption provider. Behind a
// narrow interface because Wine has neither removable volumes nor that provider.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace korva {

// The WMI namespace of the volume-encryption provider.
inline constexpr wchar_t kVolumeEncryptionNamespace[] = L"root\\cimv2\\Security\\MicrosoftVolumeEncryption";

struct RemovableVolume {
  std::wstring volume;                    // "E:", or the GUID name of a volume with no drive letter
  std::vector<std::wstring> deviceChain;  // instance paths: the volume's own first, then its ancestors
  // The system's GUID name: what the handler knows the volume by, whatever letter it gets or loses
  // after its arrival. Empty: known by `volume`.
  std::wstring name;
};

// A protection status, or why there is none.
struct ProtectionAnswer {
  std::optional<long> status;
  std::string reason;
  // Whether asking again later may give a status: not without a connection to the provider (a
  // system without it), nor for a name no query can hold.
  bool mayAnswerLater = true;
  // The provider answered, and lists no such volume (one it does not handle, as an optical disc):
  // it may still come to list it just after an arrival, but not for good.
  bool notListed = false;
};

class EncryptedVolumeSource {
 public:
  virtual ~EncryptedVolumeSource() = default;
  virtual std::vector<RemovableVolume> RemovableVolumes() = 0;
  // The names of every volume there now, as RemovableVolume::name (or `volume` where a source
  // names none) gives them, removable or not; nothing when the list could not be had whole.
  virtual std::optional<std::vector<std::wstring>> VolumeNames() = 0;
  virtual ProtectionAnswer ProtectionStatus(const std::wstring& volume) = 0;
};

// The system's answers: the volume probe and the device tree, and WMI through CWMI_Core.
EncryptedVolumeSource& SystemEncryptedVolumeSource();
// Tests give a table instead; null puts the system's back.
void SetEncryptedVolumeSourceForTest(EncryptedVolumeSource* source);
EncryptedVolumeSource& CurrentEncryptedVolumeSource();

}  // namespace korva
