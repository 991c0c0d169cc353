// The encrypted-volume handler: a table of removable volumes with their volume-handle
// notifications, and the protection check that blocks unprotected ones.
#include "encryption/encrypt_device_handler.h"

#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "devicecontrol/action_program.h"
#include "encryption/core/volume_rules.h"
#include "encryption/encrypted_volumes.h"
#include "encryption/wmi_core.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/monitoring_state.h"
#include "shared/notification_calls.h"
#include "shared/service_state.h"
#include "win/unique_handle.h"

namespace {

constexpr const char* kHandler = "EncryptDeviceHandler::DeviceHandler";
constexpr const char* kCheck = "EncryptDeviceHandler::CheckAndBlock";
// The action program's code that blocks the volume for the logged-on user.
constexpr int kBlockVolumeAction = 7;

struct DriveEntry {
  std::vector<std::wstring> deviceChain;
  korva::win::UniqueFileHandle volume;  // kept open while its notification lives
  std::vector<HDEVNOTIFY> notifications;
  bool blocked = false;
};

// Guards the table: the device events, the settings monitor and the stop reach the handler from
// different threads. Never held while a program runs.
std::mutex g_mutex;
std::map<wchar_t, DriveEntry> g_drives;
// Notifications already cancelled while the table still lists them (the stop cancels from a copy and
// leaves the table as it is): never cancelled twice.
std::set<HDEVNOTIFY> g_cancelled;
bool g_wmiAsked = false;

// The first use of any kind connects to the provider on the calling thread, so a missing namespace
// is logged at once, before any worker asks.
void ConnectOnFirstUse() {
  if (g_wmiAsked) return;
  g_wmiAsked = true;
  CWMI_Core* wmi = CWMI_Core::GetWMIInstance(korva::kVolumeEncryptionNamespace);
  if (wmi == nullptr || !wmi->IsConnected()) {
    KLOG_ERROR_AS(kHandler) << "Volume encryption status is not available (WMI connection result "
                            << HresultText(WmiFirstConnectionResult()) << ").";
  }
}

std::wstring DriveText(wchar_t letter) { return std::wstring(1, letter) + L":"; }

// Opens the volume and registers its handle notification with the service; the entry keeps both,
// or nothing when either step fails (logged).
void RegisterVolume(wchar_t letter, DriveEntry& entry) {
  const std::wstring device = L"\\\\.\\" + DriveText(letter);
  korva::win::UniqueFileHandle volume(CreateFileW(
      device.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!volume) {
    korva::LogLastError(kHandler, "Unable to open the volume ", device, ".");
    return;
  }
  DEV_BROADCAST_HANDLE filter{};
  filter.dbch_size = sizeof filter;
  filter.dbch_devicetype = DBT_DEVTYP_HANDLE;
  filter.dbch_handle = volume.get();
  const HDEVNOTIFY notification = korva::CurrentDeviceNotificationCalls().registerNotification(
      ServiceStatusHandle, &filter, DEVICE_NOTIFY_SERVICE_HANDLE);
  if (notification == nullptr) {
    korva::LogLastError(kHandler, "RegisterDeviceNotification failed for the volume ", device, ".");
    return;
  }
  KLOG_INFO_AS(kHandler) << "Volume " << DriveText(letter) << " registered for its notifications.";
  g_cancelled.erase(notification);  // a value the system hands out again is live once more
  entry.volume = std::move(volume);
  entry.notifications.push_back(notification);
}

void Unregister(std::vector<HDEVNOTIFY> notifications, const char* function) {
  for (HDEVNOTIFY notification : notifications) {
    if (notification == nullptr || g_cancelled.count(notification) != 0) continue;
    if (korva::CurrentDeviceNotificationCalls().unregisterNotification(notification)) {
      g_cancelled.insert(notification);
    } else {
      korva::LogLastError(function, "UnregisterDeviceNotification is failed.");
    }
  }
}

// The removable volumes not yet in the table get an entry and a notification; returns their letters.
std::vector<wchar_t> AddNewVolumes() {
  std::vector<wchar_t> added;
  for (korva::RemovableVolume& volume : korva::CurrentEncryptedVolumeSource().RemovableVolumes()) {
    if (g_drives.count(volume.driveLetter) != 0) continue;
    DriveEntry& entry = g_drives[volume.driveLetter];
    entry.deviceChain = std::move(volume.deviceChain);
    RegisterVolume(volume.driveLetter, entry);
    added.push_back(volume.driveLetter);
  }
  return added;
}

// The drive whose notification a custom event came through; 0 when it is none of ours.
wchar_t DriveOfEvent(PDEV_BROADCAST_HDR header) {
  if (header == nullptr || header->dbch_devicetype != DBT_DEVTYP_HANDLE) return 0;
  const HDEVNOTIFY notification = reinterpret_cast<const DEV_BROADCAST_HANDLE*>(header)->dbch_hdevnotify;
  for (const auto& [letter, entry] : g_drives) {
    for (HDEVNOTIFY registered : entry.notifications) {
      if (registered == notification && notification != nullptr) return letter;
    }
  }
  return 0;
}

}  // namespace

void EncryptDeviceHandler::DeviceHandler(PDEV_BROADCAST_HDR header, int kind, int subKind) {
  korva::log::ScopedGuardedVoid(kHandler, [&] {
    const korva::win::ComInitialization com(COINIT_MULTITHREADED);
    std::vector<wchar_t> toCheck;
    {
      const std::lock_guard<std::mutex> lock(g_mutex);
      ConnectOnFirstUse();
      KLOG_INFO_AS(kHandler) << "Kind :" << kind << " SubKind :" << subKind;
      switch (kind) {
        case 1:
          toCheck = AddNewVolumes();
          break;
        case 2:
          if (const wchar_t letter = DriveOfEvent(header); letter != 0) {
            toCheck.push_back(letter);
          } else {
            KLOG_WARNING_AS(kHandler) << "The event came for a volume that is not registered; ignored.";
          }
          break;
        case 3:
          (void)AddNewVolumes();
          for (const auto& drive : g_drives) toCheck.push_back(drive.first);
          break;
        default:
          KLOG_WARNING_AS(kHandler) << "Unknown kind; nothing done.";
      }
    }
    // Checked without the table's lock: the block action may run for minutes, and the device events
    // of the control handler must not wait for it.
    for (wchar_t letter : toCheck) CheckAndBlock(letter);
  });
}

void EncryptDeviceHandler::CheckAndBlock(wchar_t driveLetter) {
  korva::log::ScopedGuardedVoid(kCheck, [&] {
    const korva::ProtectionAnswer answer = korva::CurrentEncryptedVolumeSource().ProtectionStatus(driveLetter);
    if (!answer.status) {
      KLOG_WARNING_AS(kCheck) << "Protection status of " << DriveText(driveLetter) << " unknown: " << answer.reason
                              << ".";
      return;
    }
    KLOG_INFO_AS(kCheck) << "Drive " << DriveText(driveLetter) << " ProtectionStatus :" << *answer.status;
    {
      const std::lock_guard<std::mutex> lock(g_mutex);
      DriveEntry& entry = g_drives[driveLetter];
      if (!korva::encryption::ShouldBlock(MonitorEncryptedDevice.load() != 0, *answer.status, entry.blocked)) return;
      entry.blocked = true;
    }
    KLOG_INFO_AS(kCheck) << "Drive " << DriveText(driveLetter) << " is not protected; blocking it.";
    ProcessSecureDeviceOperation(kBlockVolumeAction);
  });
}

void EncryptDeviceHandler::UnregisterDiskNotification(const std::wstring& instancePath) {
  korva::log::ScopedGuardedVoid("EncryptDeviceHandler::UnregisterDiskNotification", [&] {
    const std::lock_guard<std::mutex> lock(g_mutex);
    for (auto drive = g_drives.begin(); drive != g_drives.end();) {
      if (!korva::encryption::BelongsToDevice(drive->second.deviceChain, instancePath)) {
        ++drive;
        continue;
      }
      KLOG_INFO_AS("EncryptDeviceHandler::UnregisterDiskNotification")
          << "Dropping the notifications of " << DriveText(drive->first) << ".";
      Unregister(drive->second.notifications, "EncryptDeviceHandler::UnregisterDiskNotification");
      for (HDEVNOTIFY notification : drive->second.notifications) g_cancelled.erase(notification);
      drive = g_drives.erase(drive);
    }
  });
}

void EncryptDeviceHandler::UnregisterAllDiskNotification() {
  korva::log::ScopedGuardedVoid("EncryptDeviceHandler::UnregisterAllDiskNotification", [] {
    const std::lock_guard<std::mutex> lock(g_mutex);
    KLOG_INFO_AS("EncryptDeviceHandler::UnregisterAllDiskNotification")
        << "Going to unregister all the disk notifications.";
    for (const auto& drive : g_drives) {
      Unregister(drive.second.notifications, "EncryptDeviceHandler::UnregisterAllDiskNotification");
    }
  });
}

std::size_t korva::RegisteredVolumeNotificationCount() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  std::size_t count = 0;
  for (const auto& drive : g_drives) {
    for (HDEVNOTIFY notification : drive.second.notifications) count += g_cancelled.count(notification) == 0 ? 1 : 0;
  }
  return count;
}

void korva::ResetEncryptedVolumesForTest() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_drives.clear();
  g_cancelled.clear();
}
