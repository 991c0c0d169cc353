// The file-shadow program: started for each drive new to the removable drive list and each drive
// the filter was newly started on, and told through the audit settings when a user logs on.
#include "fileaudit/file_shadow.h"

#include <windows.h>

#include <optional>
#include <string>

#include "fileaudit/core/filter_commands.h"
#include "process/launch_gate.h"
#include "process/launcher.h"
#include "process/sessions.h"
#include "settings/log.h"
#include "settings/registry.h"
#include "shared/agent_environment.h"
#include "win/bitness.h"
#include "win/registry_value.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

constexpr const char* kAuditSettingsKey = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings\\AuditSettings";
constexpr const wchar_t* kAuditSettingsKeyW =
    L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings\\AuditSettings";

// The user's name as the session list has it, written wide: a name outside the code page would come
// out of a narrow write with question marks.
LONG WriteLoggedOnUser(const std::wstring& user) {
  korva::win::UniqueRegKey key;
  LONG code = RegCreateKeyExW(HKEY_LOCAL_MACHINE, kAuditSettingsKeyW, 0, nullptr, 0,
                              KEY_SET_VALUE | korva::win::kAgentRegistryView, nullptr, key.put(), nullptr);
  if (code == ERROR_SUCCESS) code = korva::win::SetString(key.get(), L"LoggedOnUser", user);
  return code;
}

}  // namespace

void UpdateRegistryForDeviceControlPolicy(DWORD sessionId) {
  korva::log::ScopedGuardedVoid(__func__, [sessionId] {
    // The user of the session that logged on, not the console's: a remote logon has its own.
    const std::wstring user = GetSessionUserName(sessionId, "UpdateRegistryForDeviceControlPolicy");
    const LONG userCode = WriteLoggedOnUser(user);
    const LONG modifiedCode = writeValue(kAuditSettingsKey, "IsSettingsModified", REG_SZ, "1");
    KLOG_INFO_AS("UpdateRegistryForDeviceControlPolicy")
        << "LoggedOnUser :" << user << " (write code " << userCode << "), IsSettingsModified :1 (write code "
        << modifiedCode << ")";
  });
}

void ExecuteFileShadowApplication(const std::wstring& drivePath) {
  korva::log::ScopedGuardedVoid(
      __func__,
      [&] {
        constexpr const char* kName = "ExecuteFileShadowApplication";
        const korva::AgentFolder install = korva::DeviceControlFolder();
        if (!korva::process::FolderAllowsStart(kName, korva::fileaudit::kFileShadowProgram, install)) return;
        const std::string folder = korva::fileaudit::BinFolder(install.path);
        const std::optional<std::string> narrowDrive = korva::win::WideToAnsiExact(drivePath);
        const std::optional<std::string> command =
            narrowDrive ? korva::fileaudit::FileShadowCommandLine(folder, *narrowDrive) : std::nullopt;
        if (!command) {
          KLOG_ERROR_AS(kName) << "The drive cannot be put on a command line; korvaFileShadow.exe is not started.";
          return;
        }
        KLOG_INFO_AS(kName) << "Command to execute [" << *command << "] at path [" << folder << "]";
        korva::win::UniqueMallocText<char> remarks;
        const DWORD result = executeFile(folder.c_str(), command->c_str(), remarks.put(), korva::process::kNoWait);
        KLOG_INFO_AS("ExecuteFileShadowApplication")
            << "Return Value [" << result << "] with Remarks :" << (remarks ? remarks.get() : "");
      },
      "Exception Caught.");
}
