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
#include "win/strings.h"

namespace {

bool BlockUnprotectedVolume() { return RunSecureDeviceOperation(korva::devicecontrol::kBlockVolumeAction); }

// The settings file names the agent's folders and is read as SYSTEM: only a full local path whose
// every step, the file included, no user may change or replace. Otherwise a user could hand the
// service settings of their own, or a pipe or share that takes the service's identity. Before the
// file is opened every folder on the way must be there: one a user may make where a folder was
// missing could be a link to anywhere, a share among them, which the open would follow. Only the
// file itself may be missing (the open then fails as for a missing file). Once open, through a
// handle that opens a link in the file's place as itself, the file is judged on that handle: a walk
// by name would judge a hard link by its target's security, and a file a user put there after the
// walk would not be judged at all.
bool SettingsFileIsTheAgents(const std::string& path, HANDLE held) {
  constexpr const char* kFunction = "LoadGlobalVariablesJSON";
  constexpr const char* kWhat = "The settings file";
  if (held != nullptr) {
    if (GetFileType(held) == FILE_TYPE_DISK && korva::OpenFileIsAgentsOwn(held, korva::FileUse::kRead)) return true;
    korva::LogUnsafeStep(kFunction, path, path, kWhat, "not used");
    return false;
  }
  if (korva::folders::CheckProgramPath(std::string_view(path)) != korva::folders::FolderFault::kNone) {
    KLOG_ERROR_AS(kFunction) << kWhat << " [" << korva::folders::PrintableText(path)
                             << "] is not a full local path; not read.";
    return false;
  }
  const std::wstring wide = korva::win::AnsiToWide(path);
  std::wstring missing;
  const std::wstring step = korva::FirstUnsafeStep(std::wstring_view(wide), korva::LastStep::kJudged, 0, &missing);
  if (!step.empty() || (!missing.empty() && missing != wide)) {
    korva::LogUnsafeStep(kFunction, path, korva::win::WideToAnsi(step.empty() ? missing : step), kWhat, "not read");
    return false;
  }
  return true;
}

}  // namespace

void korva::WireSubsystems() {
  SetNewDriveHook(&fileaudit::StartAuditOnNewDrive);
  SetVolumeBlocker(&BlockUnprotectedVolume);
  SetSettingsFileJudge(&SettingsFileIsTheAgents);
}
