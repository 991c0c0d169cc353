// The list of removable drives and its refresh from a scan of the machine's volumes.
#pragma once

#include <string>
#include <vector>

#include "devicecontrol/core/drive_list.h"  // kStartNewDrives, kOnlyListNewDrives

// Rescans the volumes and merges what it finds into the removable drive list; with
// attachNewDrives non-zero (korva::devicecontrol::kStartNewDrives) the new-drive hook runs for
// each drive the list did not hold yet.
void UpdateRemovableDriveEntries(int attachNewDrives);
// True when the disk behind the drive letter sits on the USB bus.
bool IsUsbDevice(wchar_t driveLetter);

namespace korva {

class VolumeProbe;

// What starts a drive new to the list: the file-audit filter's attach and the file-shadow program.
// That is file audit's, above device control, so the service sets it at start-up (service/wiring.h).
// Unset, a new drive is only listed, and the refresh logs that nothing started it.
using NewDriveHook = void (*)(const std::wstring& drivePath);
void SetNewDriveHook(NewDriveHook hook);

// A copy of the removable drive list (the root paths, e.g. "E:\"), taken under its lock so
// that it is never half-merged.
std::vector<std::wstring> RemovableDrives();

// Test hooks: scan through `probe` instead of the system (null: the system again), and empty
// the list.
void SetVolumeProbeForTest(VolumeProbe* probe);
void ResetRemovableDrivesForTest();

}  // namespace korva
