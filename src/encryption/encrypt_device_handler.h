// The encrypted-volume handler: keeps a volume-handle notification per removable volume so that
// lock, unlock and protection changes reach the service, and blocks a removable volume that is not
// protected while encrypted-volume monitoring is on.
#pragma once

#include <windows.h>
#include <dbt.h>

#include <cstddef>
#include <string>

#include "encryption/core/volume_rules.h"  // korva::encryption::VolumeEventKind, VolumeEventSubKind

// No state of its own: the volumes and their notifications are process-wide, and the methods take
// turns on that table (never while the block action runs).
class EncryptDeviceHandler {
 public:
  // `kind` is a korva::encryption::VolumeEventKind, `subKind` a VolumeEventSubKind (which custom
  // event a kVolumeHandleEvent is). Registration happens before the call returns; the checks are
  // queued for the handler's worker thread.
  static void DeviceHandler(PDEV_BROADCAST_HDR header, int kind, int subKind);
  // Asks the volume-encryption provider for the volume's protection and runs the volume blocker
  // once for an unprotected one (again after a block that failed). A question that runs past a
  // minute is logged as a stall of the checks, and its query cancelled (the volume is asked again).
  // `key` is the volume as the handler knows it: its GUID name (tests: "E:" and the like).
  static void CheckAndBlock(const std::wstring& key);
  // Drops the notifications of the volumes that belong to the device with this instance path, and
  // of those no longer there (a device went).
  static void UnregisterDiskNotification(const std::wstring& instancePath);
  // A removal, lock or dismount (`why`) of the volume whose notification `header` came through is
  // under way: its handle is closed so the agent does not veto it (the notification stays, to hear
  // how it ends).
  static void ReleaseVolume(PDEV_BROADCAST_HDR header, korva::encryption::VolumeRelease why);
  // What it was closed for failed or is over (`why`): a closed volume is opened again under a new
  // notification, which replaces the old one once it is registered (until then the old one still
  // hears the volume's events). A volume closed for a removal stays closed until that removal fails.
  static void ReopenVolume(PDEV_BROADCAST_HDR header, korva::encryption::VolumeReopen why);
  // Ends the worker (a check under way gets 5 s) and cancels every volume notification, each
  // drive's from a copy of its list: the table keeps its entries and their notifications
  // (deliberately; one already cancelled is never cancelled twice).
  static void UnregisterAllDiskNotification();
};

namespace korva {
// What blocks an unprotected volume: device control's action program, for the logged-on user (it
// is not told which volume); true when the block was done. Device control sits above this handler,
// so the service sets it at start-up (service/wiring.h). Unset, nothing is blocked and the check
// logs so. A block that fails leaves the volume unblocked: it is checked again a minute later, until
// three such checks in a row have failed, then every ten minutes while monitoring is on, and at the
// volume's next event.
using VolumeBlocker = bool (*)();
void SetVolumeBlocker(VolumeBlocker blocker);
// Volumes with a live notification.
std::size_t RegisteredVolumeNotificationCount();
// Waits until no volume check is queued or under way; false when `timeoutMs` passed first.
[[nodiscard]] bool WaitForVolumeChecks(unsigned long timeoutMs);
// Whether the handler holds the volume open (known by its GUID name; tests: "E:" and the like).
bool VolumeHandleOpen(const std::wstring& volume);
// Forgets every volume without cancelling anything (tests only).
void ResetEncryptedVolumesForTest();
// Whether an arrival has the table looked at again 2 s and 10 s later for volumes mounted since
// (on by default; tests whose table stands still turn it off).
void SetLateVolumeLooksForTest(bool on);
// The time before a failed block is tried again, and after three in a row; 0 restores the minute and
// the ten minutes (tests only).
void SetBlockRetryDelayForTest(unsigned long delayMs, unsigned long slowDelayMs = 0);
// What cancels the call a thread has under way (CoCancelCall, which Wine lacks).
using CallCanceller = HRESULT (*)(DWORD threadId);
// How long a check's question to the provider runs before it counts as stalled, and what cancels it
// then; 0 and null restore the minute and CoCancelCall (tests only).
void SetCheckStallForTest(unsigned long limitMs, CallCanceller cancel);
}  // namespace korva
