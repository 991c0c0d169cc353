// Watching the agent's settings key for changes; what a settled change sets off is the service's.
#pragma once

#include <windows.h>

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
}  // namespace korva

// Thread procedure; `parameter` is the korva::SettingsReaction to call. Until the stop event,
// calls it once for each burst of changes under the QVM settings key (waiting for the key to
// exist first) that changed what the reaction depends on.
DWORD WINAPI MonitorSettingsModified(LPVOID parameter);
