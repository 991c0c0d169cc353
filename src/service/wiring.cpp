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
// service settings of their own, or a pipe or share that takes the service's identity. A step
// missing before the read ends the walk (the read then fails as for a missing file); after it,
// every step must be there: a user who may add folders or files where one was missing could have
// made it in between. The file read is judged on the handle that held it as well: a walk by name
// judges a hard link by its target's security, and remembers a step it found sound for a while.
bool SettingsFileIsTheAgents(const std::string& path, HANDLE held) {
  constexpr const char* kFunction = "LoadGlobalVariablesJSON";
  constexpr const char* kWhat = "The settings file";
  const bool read = held != nullptr;
  const char* const consequence = read ? "not used" : "not read";
  if (korva::folders::CheckProgramPath(std::string_view(path)) != korva::folders::FolderFault::kNone) {
    KLOG_ERROR_AS(kFunction) << kWhat << " [" << korva::folders::PrintableText(path) << "] is not a full local path; "
                             << consequence << ".";
    return false;
  }
  std::wstring missing;
  const std::wstring step =
      korva::FirstUnsafeStep(std::wstring_view(korva::win::AnsiToWide(path)), korva::LastStep::kJudged, 0, &missing);
  if (!step.empty() || (read && !missing.empty())) {
    korva::LogUnsafeStep(kFunction, path, korva::win::WideToAnsi(step.empty() ? missing : step), kWhat, consequence);
    return false;
  }
  if (read && (GetFileType(held) != FILE_TYPE_DISK || !korva::OpenFileIsAgentsOwn(held))) {
    korva::LogUnsafeStep(kFunction, path, path, kWhat, consequence);
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
