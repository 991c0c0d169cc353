// The hooks through which a subsystem reaches work that belongs to one above it, set by the service.
#include "service/wiring.h"

#include "devicecontrol/action_program.h"
#include "devicecontrol/drive_inventory.h"
#include "encryption/encrypt_device_handler.h"
#include "fileaudit/filter_attach.h"
#include "settings/agent_parameters.h"
#include "settings/log.h"
#include "shared/core/agent_folders.h"
#include "shared/path_links.h"

namespace {

bool BlockUnprotectedVolume() { return RunSecureDeviceOperation(korva::devicecontrol::kBlockVolumeAction); }

// The settings file names the agent's folders and is read as SYSTEM: only a full local path whose
// every step, the file included, no user may change or replace. Otherwise a user could hand the
// service settings of their own, or a pipe or share that takes the service's identity.
bool SettingsFileIsTheAgents(const std::string& path) {
  constexpr const char* kFunction = "LoadGlobalVariablesJSON";
  if (korva::folders::CheckProgramPath(std::string_view(path)) != korva::folders::FolderFault::kNone) {
    KLOG_ERROR_AS(kFunction) << "The settings file [" << korva::folders::PrintableText(path)
                             << "] is not a full local path; not read.";
    return false;
  }
  return korva::NoUnsafeStepOn(kFunction, path, "The settings file", "not read");
}

}  // namespace

void korva::WireSubsystems() {
  SetNewDriveHook(&fileaudit::StartAuditOnNewDrive);
  SetVolumeBlocker(&BlockUnprotectedVolume);
  SetSettingsFileJudge(&SettingsFileIsTheAgents);
}
