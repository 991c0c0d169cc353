// Comparing and formatting the device class and custom event GUIDs.
#include "devicecontrol/core/device_classes.h"

#include <cstring>

namespace korva::devicecontrol {

bool SameGuid(const ClassGuid& a, const ClassGuid& b) noexcept {
  return a.data1 == b.data1 && a.data2 == b.data2 && a.data3 == b.data3 &&
         std::memcmp(a.data4, b.data4, sizeof a.data4) == 0;
}

CustomVolumeEvent ClassifyCustomEvent(const ClassGuid& eventGuid) noexcept {
  if (SameGuid(eventGuid, kVolumeEncryptionStatusChange)) return CustomVolumeEvent::kEncryptionStatusChange;
  if (SameGuid(eventGuid, kVolumeChange)) return CustomVolumeEvent::kVolumeChange;
  return CustomVolumeEvent::kOther;
}

VolumeHandleEvent ClassifyVolumeHandleEvent(const ClassGuid& eventGuid) noexcept {
  static constexpr struct {
    const ClassGuid& guid;
    VolumeHandleEvent event;
  } kEvents[] = {{kVolumeLock, VolumeHandleEvent::kLock},
                 {kVolumeLockFailed, VolumeHandleEvent::kLockFailed},
                 {kVolumeUnlock, VolumeHandleEvent::kUnlock},
                 {kVolumeDismount, VolumeHandleEvent::kDismount},
                 {kVolumeDismountFailed, VolumeHandleEvent::kDismountFailed},
                 {kVolumeMount, VolumeHandleEvent::kMount}};
  for (const auto& known : kEvents) {
    if (SameGuid(eventGuid, known.guid)) return known.event;
  }
  return VolumeHandleEvent::kOther;
}

namespace {

void AppendHex(std::string& out, std::uint32_t value, int digits) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) out.push_back(kDigits[(value >> shift) & 0xF]);
}

}  // namespace

std::string GuidText(const ClassGuid& guid) {
  std::string text;
  text.reserve(38);
  text.push_back('{');
  AppendHex(text, guid.data1, 8);
  text.push_back('-');
  AppendHex(text, guid.data2, 4);
  text.push_back('-');
  AppendHex(text, guid.data3, 4);
  text.push_back('-');
  for (int i = 0; i < 8; ++i) {
    if (i == 2) text.push_back('-');
    AppendHex(text, guid.data4[i], 2);
  }
  text.push_back('}');
  return text;
}

}  // namespace korva::devicecontrol
