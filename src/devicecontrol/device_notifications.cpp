// Registration for device-interface notifications, and DeviceEventNotify, which turns each device
// event into the secure-device operation, the drive inventory refresh and the encrypted-volume
// handler's work.
#include "devicecontrol/device_notifications.h"

#include <objbase.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "devicecontrol/core/device_action_text.h"
#include "devicecontrol/core/device_classes.h"
#include "devicecontrol/drive_inventory.h"
#include "devicecontrol/restore_cycle.h"
#include "devicecontrol/summary_program.h"
#include "encryption/encrypt_device_handler.h"
#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/monitoring_state.h"
#include "shared/service_state.h"
#include "win/unique_handle.h"

HDEVNOTIFY DeviceNotificationHandles[kDeviceNotificationSlotCount] = {};

namespace {

namespace devicecontrol = korva::devicecontrol;

// The slots are registered on resume (a thread nothing waits for) and unregistered on stop and
// suspend: one at a time.
std::mutex g_slotsMutex;

static_assert(kDeviceNotificationSlotCount == devicecontrol::kDeviceInterfaceClassCount);
static_assert(sizeof(GUID) == sizeof(devicecontrol::ClassGuid));
// The filter's size as the system expects it for an interface class filter with an empty name.
static_assert(sizeof(DEV_BROADCAST_DEVICEINTERFACE_W) == 32);

GUID ToGuid(const devicecontrol::ClassGuid& guid) noexcept {
  GUID result;
  std::memcpy(&result, &guid, sizeof result);
  return result;
}

devicecontrol::ClassGuid FromGuid(const GUID& guid) noexcept {
  devicecontrol::ClassGuid result;
  std::memcpy(&result, &guid, sizeof result);
  return result;
}

bool IsDeviceInterface(const DEV_BROADCAST_HDR* header) {
  return header != nullptr && header->dbch_devicetype == DBT_DEVTYP_DEVICEINTERFACE;
}

DWORD OnArrival(PDEV_BROADCAST_HDR header) {
  KLOG_INFO_AS("DeviceEventNotify") << "Device is inserted.";
  if (!IsDeviceInterface(header)) {
    // Logged when the header is null or not a device interface: the wording is the system's own.
    KLOG_ERROR_AS("DeviceEventNotify") << "lpdb is null (or) It is DeviceInterface DevType.";
    return 0;
  }
  const DWORD result =
      ProcessSecureDeviceOperation(reinterpret_cast<PDEV_BROADCAST_DEVICEINTERFACE_W>(header), DBT_DEVICEARRIVAL);
  if (MonitorEncryptedDevice.load() != 0) {
    EncryptDeviceHandler::DeviceHandler(header, korva::encryption::kVolumeArrived, korva::encryption::kNoSubKind);
  }
  UpdateRemovableDriveEntries(devicecontrol::kStartNewDrives);
  return result;
}

DWORD OnRemoval(PDEV_BROADCAST_HDR header) {
  KLOG_INFO_AS("DeviceEventNotify") << "Device is removed.";
  if (!IsDeviceInterface(header)) {
    // The same line as on an arrival, its wording the system's own.
    KLOG_ERROR_AS("DeviceEventNotify") << "lpdb is null (or) It is DeviceInterface DevType.";
    return 0;
  }
  // Its result is always 0.
  (void)ProcessSecureDeviceOperation(reinterpret_cast<PDEV_BROADCAST_DEVICEINTERFACE_W>(header),
                                     DBT_DEVICEREMOVECOMPLETE);
  UpdateRemovableDriveEntries(devicecontrol::kStartNewDrives);
  if (SkipRestoreUnpluggedBlocked.load() == 0) {
    ProcessSecureDeviceOperation(korva::kRestoreActionCode);
  } else {
    KLOG_INFO_AS("DeviceEventNotify") << "ProcessSecureDeviceOperation call skipped as per the Registry Entry.";
  }
  return 0;
}

// A lock or a dismount of a volume the encrypted-volume handler holds: the handle is closed while it
// is under way (an open handle fails the lock that formatting, a disk check or an eject takes, and a
// dismounted volume's handle is stale) and opened again once it failed or is over. Whatever the
// monitoring says: the handler holds its volumes either way.
void OnVolumeLockStep(PDEV_BROADCAST_HDR header) {
  if (header == nullptr || header->dbch_devicetype != DBT_DEVTYP_HANDLE) return;
  using korva::encryption::VolumeRelease;
  using korva::encryption::VolumeReopen;
  const auto* handleEvent = reinterpret_cast<const DEV_BROADCAST_HANDLE*>(header);
  switch (devicecontrol::ClassifyVolumeHandleEvent(FromGuid(handleEvent->dbch_eventguid))) {
    case devicecontrol::VolumeHandleEvent::kLock:
      EncryptDeviceHandler::ReleaseVolume(header, VolumeRelease::kLock);
      break;
    case devicecontrol::VolumeHandleEvent::kDismount:
      EncryptDeviceHandler::ReleaseVolume(header, VolumeRelease::kDismount);
      break;
    case devicecontrol::VolumeHandleEvent::kLockFailed:
      EncryptDeviceHandler::ReopenVolume(header, VolumeReopen::kLockFailed);
      break;
    case devicecontrol::VolumeHandleEvent::kUnlock:
      EncryptDeviceHandler::ReopenVolume(header, VolumeReopen::kUnlocked);
      break;
    case devicecontrol::VolumeHandleEvent::kDismountFailed:
      EncryptDeviceHandler::ReopenVolume(header, VolumeReopen::kDismountFailed);
      break;
    case devicecontrol::VolumeHandleEvent::kMount:
      EncryptDeviceHandler::ReopenVolume(header, VolumeReopen::kMounted);
      break;
    case devicecontrol::VolumeHandleEvent::kOther:
      break;
  }
}

// Custom events arrive only for the volume handles the encrypted-volume handler registered.
void OnCustomEvent(PDEV_BROADCAST_HDR header) {
  if (MonitorEncryptedDevice.load() == 0 || header == nullptr || header->dbch_devicetype != DBT_DEVTYP_HANDLE) return;
  const auto* handleEvent = reinterpret_cast<const DEV_BROADCAST_HANDLE*>(header);
  // A fresh zero-filled 1000-byte block; StringFromGUID2 is told its true capacity in characters.
  constexpr std::size_t kGuidTextBytes = 1000;
  const korva::win::UniqueMallocText<wchar_t> text(static_cast<wchar_t*>(std::calloc(kGuidTextBytes, 1)));
  if (text) {
    StringFromGUID2(handleEvent->dbch_eventguid, text.get(), static_cast<int>(kGuidTextBytes / sizeof(wchar_t)));
    KLOG_INFO_AS("DeviceEventNotify") << "DBT_CUSTOMEVENT received :" << static_cast<const wchar_t*>(text.get());
  } else {
    KLOG_INFO_AS("DeviceEventNotify") << "DBT_CUSTOMEVENT received :"
                                      << "(null)";
  }
  switch (devicecontrol::ClassifyCustomEvent(FromGuid(handleEvent->dbch_eventguid))) {
    case devicecontrol::CustomVolumeEvent::kEncryptionStatusChange: {
      KLOG_INFO_AS("DeviceEventNotify") << "Encrypt status change.";
      EncryptDeviceHandler::DeviceHandler(header, korva::encryption::kVolumeHandleEvent,
                                          korva::encryption::kEncryptionStatusChanged);
      break;
    }
    case devicecontrol::CustomVolumeEvent::kVolumeChange: {
      KLOG_INFO_AS("DeviceEventNotify") << "Volume status change.";
      EncryptDeviceHandler::DeviceHandler(header, korva::encryption::kVolumeHandleEvent,
                                          korva::encryption::kVolumeChanged);
      break;
    }
    case devicecontrol::CustomVolumeEvent::kOther:
      break;
  }
}

// A removal of a volume the encrypted-volume handler holds: the handle is closed when the removal is
// asked for or under way (an open handle would veto it), and opened again when it failed.
void OnVolumeRemovalStep(DWORD eventType, PDEV_BROADCAST_HDR header) {
  if (header == nullptr || header->dbch_devicetype != DBT_DEVTYP_HANDLE) return;
  if (eventType == DBT_DEVICEQUERYREMOVE || eventType == DBT_DEVICEREMOVEPENDING) {
    EncryptDeviceHandler::ReleaseVolume(header, korva::encryption::VolumeRelease::kRemoval);
  } else if (eventType == DBT_DEVICEQUERYREMOVEFAILED) {
    EncryptDeviceHandler::ReopenVolume(header, korva::encryption::VolumeReopen::kRemovalFailed);
  }
}

}  // namespace

void RegisterAllDeviceNotification() {
  korva::log::ScopedGuardedVoid(
      __func__,
      [] {
        constexpr const char* kName = "RegisterAllDeviceNotification";
        KLOG_INFO_AS(kName) << "Going to register for device event notifications.";
        DEV_BROADCAST_DEVICEINTERFACE_W filter{};
        filter.dbcc_size = sizeof filter;
        filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
        filter.dbcc_reserved = 0;
        const std::lock_guard<std::mutex> lock(g_slotsMutex);
        for (std::size_t i = 0; i < kDeviceNotificationSlotCount; ++i) {
          if (DeviceNotificationHandles[i] != nullptr) continue;  // registered already
          filter.dbcc_classguid = ToGuid(devicecontrol::DeviceInterfaceClassTable[i]);
          const HDEVNOTIFY notification = korva::CurrentDeviceNotificationCalls().registerNotification(
              ServiceStatusHandle, &filter, DEVICE_NOTIFY_SERVICE_HANDLE);
          if (notification == nullptr) {
            korva::LogLastError(kName, "RegisterDeviceNotification is failed.");
            continue;
          }
          DeviceNotificationHandles[i] = notification;
          KLOG_INFO_AS(kName) << "RegisterDeviceNotification is succeeded to receive device notification.";
        }
      },
      "Exception Occured.");  // the system's own text, misspelling included
}

void UnRegisterAllDeviceNotification() {
  korva::log::ScopedGuardedVoid(
      __func__,
      [] {
        constexpr const char* kName = "UnRegisterAllDeviceNotification";
        KLOG_INFO_AS(kName) << "Going to de-register the device notification.";
        {
          const std::lock_guard<std::mutex> lock(g_slotsMutex);
          for (HDEVNOTIFY& slot : DeviceNotificationHandles) {
            if (slot == nullptr) continue;
            if (korva::CurrentDeviceNotificationCalls().unregisterNotification(slot)) {
              // The capital F is the system's own.
              KLOG_INFO_AS(kName) << "SuccessFully Unregistered the device events.";
              slot = nullptr;
            } else {
              korva::LogLastError(kName, "UnregisterDeviceNotification is failed.");
            }
          }
        }
        EncryptDeviceHandler::UnregisterAllDiskNotification();
      },
      "Exception Occcured.");  // three c's: the system's own text
}

DWORD DeviceEventNotify(DWORD eventType, PDEV_BROADCAST_HDR header) {
  return korva::log::ScopedGuarded(__func__, static_cast<DWORD>(0), [&]() -> DWORD {
    switch (eventType) {
      case DBT_DEVICEARRIVAL:
        return OnArrival(header);
      case DBT_DEVICEREMOVECOMPLETE:
        return OnRemoval(header);
      case DBT_CUSTOMEVENT:
        OnVolumeLockStep(header);
        OnCustomEvent(header);
        return 0;
      default:
        KLOG_INFO_AS("DeviceEventNotify") << "Unknown Event is received from Device Interface.";
        OnVolumeRemovalStep(eventType, header);
        return 0;
    }
  });
}
