// Settings-change monitor: waits for changes under the agent's QVM settings key and re-applies
// what depends on them (monitoring switches, the restore switch, the file-audit filter, the
// temporary-access grants, the device summary). UpdateMonitoringVariable reloads the switches.
#include "devicecontrol/settings_monitor.h"

#include <atomic>

#include "devicecontrol/device_actions.h"
#include "devicecontrol/drive_inventory.h"
#include "devicecontrol/restore_cycle.h"
#include "encryption/encrypt_device_handler.h"
#include "fileaudit/driver_installation.h"
#include "fileaudit/filter_cycle.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/machine_details.h"
#include "settings/registry.h"
#include "shared/core/agent_constants.h"
#include "shared/service_query.h"
#include "shared/service_state.h"
#include "tempaccess/temporary_access.h"
#include "win/bitness.h"
#include "win/unique_handle.h"

std::atomic<LONG> MonitorEncryptedDevice{0};

namespace {

constexpr const char* kName = "MonitorSettingsModified";
// Changes closer together than this give one reaction.
constexpr DWORD kSettleMs = 2000;
// How often a settings key that does not exist yet is looked for again.
constexpr DWORD kReopenMs = 5000;
constexpr DWORD kNotifyFilter = REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET;

enum class Wake { kStop, kChange, kTimeout, kFailed };

// Waits up to `timeoutMs` for the stop event or `change`.
Wake WaitForStopOr(HANDLE change, DWORD timeoutMs) {
  const HANDLE handles[] = {ServiceStopEvent, change};
  const DWORD count = change != nullptr ? 2 : 1;
  switch (WaitForMultipleObjects(count, handles, FALSE, timeoutMs)) {
    case WAIT_OBJECT_0:
      return Wake::kStop;
    case WAIT_OBJECT_0 + 1:
      return Wake::kChange;
    case WAIT_TIMEOUT:
      return Wake::kTimeout;
    default:
      korva::LogLastError(kName, "Waiting for a settings change failed.");
      return Wake::kFailed;
  }
}

// Opens the settings key for notification, trying again every kReopenMs until it exists; empty
// when the service stops first.
korva::win::UniqueRegKey OpenSettingsKey() {
  bool reported = false;
  for (;;) {
    korva::win::UniqueRegKey key;
    const LONG code = RegOpenKeyExA(HKEY_LOCAL_MACHINE, korva::kQvmSettingsKey, 0,
                                    KEY_NOTIFY | KEY_READ | korva::win::kAgentRegistryView, key.put());
    if (code == ERROR_SUCCESS) return key;
    if (!reported) {
      KLOG_WARNING_AS(kName) << "Unable to open [" << korva::kQvmSettingsKey << "] with code : " << code
                             << "; looking again every " << kReopenMs / 1000 << " seconds.";
      reported = true;
    }
    if (WaitForStopOr(nullptr, kReopenMs) != Wake::kTimeout) return {};
  }
}

[[nodiscard]] bool Arm(HKEY key, HANDLE change) {
  const LONG code = RegNotifyChangeKeyValue(key, TRUE, kNotifyFilter, change, TRUE);
  if (code != ERROR_SUCCESS) {
    KLOG_ERROR_AS(kName) << "RegNotifyChangeKeyValue failed with code : " << code;
    printErrorMsgForID(static_cast<DWORD>(code));
  }
  return code == ERROR_SUCCESS;
}

// After a first change, lets the burst settle: kSettleMs in all, re-arming on each change seen.
// False when the service stops (or watching fails) meanwhile.
bool Settle(HKEY key, HANDLE change) {
  const ULONGLONG end = GetTickCount64() + kSettleMs;
  for (;;) {
    if (!Arm(key, change)) return false;
    const ULONGLONG now = GetTickCount64();
    if (now >= end) return true;
    const Wake wake = WaitForStopOr(change, static_cast<DWORD>(end - now));
    if (wake == Wake::kStop || wake == Wake::kFailed) return false;
    if (wake == Wake::kTimeout) return true;  // still armed for the next change
  }
}

void ApplyFilterRequirement() {
  if (CheckQVFAFilterRequirement() == 1) {
    DWORD state = 0;
    if (QuerySCMServiceStatus(kFileAuditFilterService, &state) != ERROR_SUCCESS || state != SERVICE_RUNNING) {
      DriverServiceExecution(1);
      UpdateRemovableDriveEntries(1);
      StartDriverUserApplication();
    }
    korva::StartFilterCycle(kName);
  } else {
    DriverServiceExecution(2);
  }
}

void ReactToSettingsChange() {
  KLOG_INFO_AS(kName) << "Agent settings changed; applying them.";
  UpdateMonitoringVariable();
  FetchRestoreUnpluggedBlockedDevice();
  ApplyFilterRequirement();
  const LONGLONG nextRevoke = ProcessandUpdateTemporaryAccess(false);
  korva::ArmTempAccessRevokeTimer(kName, nextRevoke, korva::LocalTimeInSeconds(korva::DaylightBias::kAdded));
  ExecuteDeviceEventAction(9, 2, L"Unknown");
}

void WatchSettings() {
  const korva::win::UniqueRegKey key = OpenSettingsKey();
  if (!key) return;
  const korva::win::UniqueHandle change(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  if (!change) {
    korva::LogLastError(kName, "Unable to create the settings change event.");
    return;
  }
  KLOG_INFO_AS(kName) << "Watching [" << korva::kQvmSettingsKey << "] for changes.";
  if (!Arm(key.get(), change.get())) return;
  for (;;) {
    if (WaitForStopOr(change.get(), INFINITE) != Wake::kChange) return;
    if (!Settle(key.get(), change.get())) return;
    ReactToSettingsChange();
  }
}

}  // namespace

DWORD WINAPI MonitorSettingsModified(LPVOID /*parameter*/) {
  korva::log::ScopedGuardedVoid(kName, [] { WatchSettings(); });
  return 0;
}

void UpdateMonitoringVariable() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    // A missing or unreadable value turns encrypted-volume monitoring off.
    DWORD value = 0;
    if (ReadDwordRegValue(korva::kQvmSettingsKey, "MonitorEncryptedDevice", value) != ERROR_SUCCESS) value = 0;
    const LONG before = MonitorEncryptedDevice.exchange(static_cast<LONG>(value));
    KLOG_DEBUG_AS("UpdateMonitoringVariable") << "MonitorEncryptedDevice :" << static_cast<unsigned long>(value);
    if (before == 0 && value != 0) {
      EncryptDeviceHandler handler;  // monitoring turned on: every removable volume is checked now
      handler.DeviceHandler(nullptr, 3, 0);
    }
  });
}
