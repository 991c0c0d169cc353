// The removable drive inventory: one scan of all volumes, the merge into the process-wide list,
// and the new-drive hook for drives seen for the first time.
#include "devicecontrol/drive_inventory.h"

#include <windows.h>
#include <winioctl.h>

#include <atomic>
#include <mutex>

#include "devicecontrol/core/drive_list.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/volume_probe.h"

namespace {

constexpr const char* kUpdateName = "UpdateRemovableDriveEntries";

// The removable drive list. Written only by UpdateRemovableDriveEntries; the control handler
// (device events), ServiceMain's start-up, the settings reaction and the filter timer all refresh
// it, so every read and the merge hold the lock.
std::mutex g_driveListMutex;
std::vector<std::wstring> RemovableDriveList;
// One scan and its merge at a time, apart from the list's lock (a slow device holds up no reader):
// two scans that overlapped could merge in the other order, the older view over the newer one (a
// drive just attached would be dropped, and attached again as new at the next scan).
std::mutex g_scanMutex;

std::atomic<korva::VolumeProbe*> g_testProbe{nullptr};
std::atomic<korva::NewDriveHook> g_newDriveHook{nullptr};

korva::VolumeProbe& ActiveProbe() {
  korva::VolumeProbe* probe = g_testProbe.load();
  return probe != nullptr ? *probe : korva::SystemVolumeProbe();
}

// Whether one volume counts as removable storage; its first mount path when it does.
bool IsRemovableStorage(korva::VolumeProbe& probe, const std::wstring& volumeName, std::wstring& drivePath) {
  const std::unique_ptr<korva::ProbedVolume> volume = probe.Open(volumeName);
  if (!volume || !volume->IsHotplugDevice()) return false;
  const std::vector<std::wstring> paths = volume->MountPaths();
  if (paths.empty() || paths.front().empty()) return false;
  const std::wstring& path = paths.front();
  const unsigned type = volume->DriveType(path);
  KLOG_INFO_AS(kUpdateName) << "Volumetype :" << type;
  if (type == DRIVE_REMOVABLE) {
    const std::optional<int> media = volume->MediaType();
    if (!media) {
      KLOG_INFO_AS(kUpdateName) << "Failed to get drive geometry information.";
      return false;
    }
    if (*media != RemovableMedia) {
      // A card reader slot without a card, a floppy drive. No blank after the comma: the system's own.
      KLOG_INFO_AS(kUpdateName) << "MediaType :" << *media << ",driver will not be attached to it";
      return false;
    }
    KLOG_INFO_AS(kUpdateName) << "MediaType :" << *media;
  } else if (type == DRIVE_FIXED) {
    KLOG_INFO_AS(kUpdateName) << "Need to check whether the Fixed drive is connected via USB or not.";
    if (!IsUsbDevice(path.front())) return false;
  } else {
    return false;  // CD-ROM, network share, RAM disk
  }
  drivePath = path;
  return true;
}

std::vector<std::wstring> ScanVolumes(korva::VolumeProbe& probe) {
  std::vector<std::wstring> scan;
  probe.ForEachVolume([&](const std::wstring& volumeName) {
    std::wstring drivePath;
    if (!IsRemovableStorage(probe, volumeName, drivePath)) return;
    KLOG_INFO_AS(kUpdateName) << "Removable Drive :" << drivePath;
    scan.push_back(std::move(drivePath));
  });
  return scan;
}

void LogList(int severity, const char* label, const std::vector<std::wstring>& list) {
  for (std::size_t i = 0; i < list.size(); ++i) {
    KLOG_AT(severity, kUpdateName) << label << i << "] :" << list[i];
  }
}

void StartNewDrive(const std::wstring& drive) {
  const korva::NewDriveHook hook = g_newDriveHook.load();
  if (hook == nullptr) {
    KLOG_ERROR_AS(kUpdateName) << "No new-drive hook is set; nothing is started for Drive :" << drive;
    return;
  }
  hook(drive);
}

}  // namespace

bool IsUsbDevice(wchar_t driveLetter) {
  return korva::log::ScopedGuarded(__func__, false, [&] {
    const korva::BusTypeAnswer answer = ActiveProbe().BusType(driveLetter);
    if (!answer.known) {
      korva::LogFailedCallInline("IsUsbDevice", answer.error, "Failed to define bus type for :");
    }
    const bool usb = answer.known && answer.busType == BusTypeUsb;
    KLOG_INFO_AS("IsUsbDevice") << "isConnectedDeviceUSB :" << usb;
    return usb;
  });
}

void UpdateRemovableDriveEntries(int attachNewDrives) {
  korva::log::ScopedGuardedVoid(__func__, [&] {
    std::unique_lock<std::mutex> scanning(g_scanMutex);
    const std::vector<std::wstring> scan = ScanVolumes(ActiveProbe());
    korva::devicecontrol::DriveListMerge merge;
    {
      const std::lock_guard<std::mutex> lock(g_driveListMutex);
      LogList(korva::log::kInfo, "Global_List[", RemovableDriveList);
      LogList(korva::log::kInfo, "Temp_List[", scan);
      merge = korva::devicecontrol::MergeDriveList(RemovableDriveList, scan);
      RemovableDriveList = merge.list;
    }
    scanning.unlock();
    // The attach calls start programs; they run outside the lock so readers are not held up.
    // The missing blank after the full stop is the system's own, kept deliberately.
    if (merge.listWasEmpty) KLOG_DEBUG_AS(kUpdateName) << "Global list is empty.Going to copy temporary list.";
    for (const std::wstring& drive : merge.added) {
      // A first fill names its drives only when it attaches them; later merges always do.
      if (!merge.listWasEmpty || attachNewDrives != 0) KLOG_INFO_AS(kUpdateName) << "Update for Drive :" << drive;
      if (attachNewDrives != 0) StartNewDrive(drive);
    }
    KLOG_DEBUG_AS(kUpdateName) << "New Global_List :";
    LogList(korva::log::kDebug, "Global_List[", merge.list);
  });
}

namespace korva {

std::vector<std::wstring> RemovableDrives() {
  const std::lock_guard<std::mutex> lock(g_driveListMutex);
  return RemovableDriveList;
}

void SetNewDriveHook(NewDriveHook hook) { g_newDriveHook.store(hook); }

void SetVolumeProbeForTest(VolumeProbe* probe) { g_testProbe.store(probe); }

void ResetRemovableDrivesForTest() {
  const std::lock_guard<std::mutex> lock(g_driveListMutex);
  RemovableDriveList.clear();
}

}  // namespace korva
