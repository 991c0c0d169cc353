// Watching the agent's settings key for changes; what a settled change sets off is the service's.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>

namespace korva {
// What the watcher calls once per settled change. The service implements it (it drives
// subsystems device control does not reach) and hands it to the thread, which it must outlive.
class SettingsReaction {
 public:
  virtual void React() = 0;

 protected:
  SettingsReaction() = default;
  SettingsReaction(const SettingsReaction&) = default;
  SettingsReaction& operator=(const SettingsReaction&) = default;
  ~SettingsReaction() = default;
};

// What the settings reaction depends on, as it stands now, folded into one number. A settings key
// that does not exist counts as one without values.
std::uint64_t SettingsFingerprintNow();

// What the service hands the watcher thread, which it must outlive: the reaction, and what the
// settings stood at (SettingsFingerprintNow) before the start-up read them, when it took that. The
// watcher takes its own first look only later; when that differs, the settings changed after the
// start-up read them and the watcher reacts once, as to any change.
struct SettingsWatch {
  SettingsReaction* reaction = nullptr;
  std::optional<std::uint64_t> startBaseline;
};
}  // namespace korva

// Thread procedure; `parameter` is the korva::SettingsWatch. Until the stop event, calls its
// reaction once for each burst of changes under the QVM settings key that changed what the
// reaction depends on; also once when the key it had to wait for appears, and once at its first
// look when the settings differ from the start-up's baseline.
DWORD WINAPI MonitorSettingsModified(LPVOID parameter);
