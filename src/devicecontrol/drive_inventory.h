// The list of removable drives and its refresh from a scan of the machine's volumes.
#pragma once

#include <string>
#include <vector>

// Rescans the volumes and merges what it finds into the removable drive list; with
// attachNewDrives non-zero the file-audit filter and the file-shadow program are started for
// each drive the list did not hold yet.
void UpdateRemovableDriveEntries(int attachNewDrives);
// True when the disk behind the drive letter sits on the USB bus.
bool IsUsbDevice(wchar_t driveLetter);

namespace korva {

class VolumeProbe;

// A copy of the removable drive list (the root paths, e.g. "E:\"), taken under its lock so
// that it is never half-merged.
std::vector<std::wstring> RemovableDrives();

// Test hooks: scan through `probe` instead of the system (null: the system again), and empty
// the list.
void SetVolumeProbeForTest(VolumeProbe* probe);
void ResetRemovableDrivesForTest();

}  // namespace korva
