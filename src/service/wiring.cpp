// The hooks through which a subsystem reaches work that belongs to one above it, set by the service.
#include "service/wiring.h"

#include "devicecontrol/action_program.h"
#include "devicecontrol/drive_inventory.h"
#include "encryption/encrypt_device_handler.h"
#include "fileaudit/filter_attach.h"

namespace {

bool BlockUnprotectedVolume() { return RunSecureDeviceOperation(korva::devicecontrol::kBlockVolumeAction); }

}  // namespace

void korva::WireSubsystems() {
  SetNewDriveHook(&fileaudit::StartAuditOnNewDrive);
  SetVolumeBlocker(&BlockUnprotectedVolume);
}
