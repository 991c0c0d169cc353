// The settings reaction: once the watcher has seen a change settle, re-applies what depends on the
// settings (monitoring switches, the restore switch, the temporary-access grants, the file-audit
// filter, the device summary). UpdateMonitoringVariable reloads the switches.
#include "service/settings_reaction.h"

#include <atomic>
#include <string>

#include "devicecontrol/drive_inventory.h"
#include "devicecontrol/restore_cycle.h"
#include "devicecontrol/summary_program.h"
#include "encryption/encrypt_device_handler.h"
#include "fileaudit/driver_installation.h"
#include "fileaudit/filter_cycle.h"
#include "settings/core/agent_constants.h"
#include "settings/log.h"
#include "settings/machine_details.h"
#include "settings/registry.h"
#include "shared/service_query.h"
#include "shared/service_state.h"
#include "tempaccess/temporary_access.h"

std::atomic<LONG> MonitorEncryptedDevice{0};

namespace {

// The reaction logs as the thread it runs on.
constexpr const char* kName = "MonitorSettingsModified";

// Writes "isQVFANeeded" as the start-up does, so the filter cycle follows a policy that appears or
// goes; only when it differs, as every write under the key wakes the watcher.
void StoreFilterNeeded(int needed) {
  const char* text = needed == 1 ? "1" : "0";
  std::string stored;
  if (ReadRegSZ(korva::kQvmSettingsKey, korva::kFilterNeededValue, stored) == ERROR_SUCCESS && stored == text) return;
  // Read back by the file-audit code (ReadFilterNeeded); a failed write is not retried.
  (void)writeValue(korva::kQvmSettingsKey, korva::kFilterNeededValue, REG_SZ, text);
}

// A reaction under way when a stop begins goes no further: its filter setup would race the
// stop's, and the programs it starts would outlive the service.
bool StopHasBegun() {
  if (!ServiceIsEnding()) return false;
  KLOG_INFO_AS(kName) << "The service is stopping; the rest of the settings change is not applied.";
  return true;
}

void ApplyFilterRequirement() {
  const int needed = CheckQVFAFilterRequirement();
  StoreFilterNeeded(needed);
  if (needed == 1) {
    DWORD state = 0;
    if (QuerySCMServiceStatus(kFileAuditFilterService, &state) != ERROR_SUCCESS || state != SERVICE_RUNNING) {
      DriverServiceExecution(korva::fileaudit::kDriverStart);
      if (ServiceIsEnding()) return;  // the setup may have run for minutes; the caller says so
      UpdateRemovableDriveEntries(korva::devicecontrol::kStartNewDrives);
      if (ServiceIsEnding()) return;
      StartDriverUserApplication();
    }
    korva::StartFilterCycle(kName);  // which starts nothing once a stop has begun
  } else {
    DriverServiceExecution(korva::fileaudit::kDriverStop);
  }
}

void ReactToSettingsChange() {
  KLOG_INFO_AS(kName) << "Agent settings changed; applying them.";
  // Not even the switches: monitoring turned on would check every volume.
  if (StopHasBegun()) return;
  UpdateMonitoringVariable();
  FetchRestoreUnpluggedBlockedDevice();
  // The grants before the filter: a revoke the change brings is made at once, not after the
  // filter's setup programs, which may run for minutes (or be cut short by a stop).
  korva::ProcessGrantsAndArmRevokeTimer(kName);
  if (StopHasBegun()) return;
  ApplyFilterRequirement();
  if (StopHasBegun()) return;
  ExecuteDeviceEventAction(korva::devicecontrol::kEnumerationEventClass, korva::devicecontrol::kEnumerationEventKind,
                           korva::devicecontrol::kEnumerationInstancePath);
}

class Reaction final : public korva::SettingsReaction {
 public:
  void React() override { ReactToSettingsChange(); }
};

}  // namespace

namespace korva {

SettingsReaction& ServiceSettingsReaction() {
  static Reaction reaction;
  return reaction;
}

SettingsWatch& ServiceSettingsWatch() {
  static SettingsWatch watch{&ServiceSettingsReaction(), std::nullopt};
  return watch;
}

}  // namespace korva

void UpdateMonitoringVariable() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    // A missing or unreadable value turns encrypted-volume monitoring off.
    DWORD value = 0;
    if (ReadDwordRegValue(korva::kQvmSettingsKey, "MonitorEncryptedDevice", value) != ERROR_SUCCESS) value = 0;
    const LONG before = MonitorEncryptedDevice.exchange(static_cast<LONG>(value));
    KLOG_DEBUG_AS("UpdateMonitoringVariable") << "MonitorEncryptedDevice :" << static_cast<unsigned long>(value);
    if (before == 0 && value != 0) {
      // Monitoring turned on: every removable volume is checked now.
      EncryptDeviceHandler::DeviceHandler(nullptr, korva::encryption::kMonitoringTurnedOn,
                                          korva::encryption::kNoSubKind);
    }
  });
}
