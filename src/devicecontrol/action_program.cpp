// The action program: started in the service's identity for the logged-on user and waited for.
#include "devicecontrol/action_program.h"

#include <optional>
#include <string>

#include "devicecontrol/core/device_action_text.h"
#include "process/launch_gate.h"
#include "process/launcher.h"
#include "process/sessions.h"
#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "win/bitness.h"
#include "win/strings.h"

namespace {

namespace devicecontrol = korva::devicecontrol;

// The action program may run this long (minutes) before it is terminated.
constexpr DWORD kActionProgramWaitMinutes = 2;
constexpr DWORD kExceptionResult = static_cast<DWORD>(korva::kUnhandledException);

}  // namespace

void ProcessSecureDeviceOperation(int actionCode) { (void)RunSecureDeviceOperation(actionCode); }

bool RunSecureDeviceOperation(int actionCode) {
  constexpr const char* kName = "ProcessSecureDeviceOperation";
  return korva::log::ScopedGuarded(kName, false, [actionCode] {
    const std::wstring userName = GetCurrentlyLoggedOnUser();
    KLOG_INFO_AS(kName) << "Logged-in User Name :" << userName;
    if (ExecuteDeviceApplication(actionCode, userName) != 0) {
      KLOG_ERROR_AS(kName) << "ExecuteDeviceApplication Failed.";
      return false;
    }
    KLOG_INFO_AS(kName) << "Successfully Executed ExecuteDeviceApplication.";
    return true;
  });
}

DWORD ExecuteDeviceApplication(int actionCode, const std::wstring& userName) {
  return korva::log::ScopedGuarded(__func__, kExceptionResult, [&]() -> DWORD {
    constexpr const char* kName = "ExecuteDeviceApplication";
    if (IsWow64ProcessEntry.load() == nullptr) InitiateWow64();
    BOOL wow64 = FALSE;
    if (const IsWow64ProcessFn isWow64 = IsWow64ProcessEntry.load();
        isWow64 == nullptr || !isWow64(GetCurrentProcess(), &wow64)) {
      wow64 = FALSE;
    }
    IsWow64Flag = wow64;
    const wchar_t* name = devicecontrol::ActionProgramName(korva::win::RunsOn64BitWindows(wow64 != FALSE));
    const korva::AgentFolder install = korva::DeviceControlFolder();
    if (!korva::process::FolderAllowsStart(kName, korva::win::WideToAnsi(name), install)) {
      return korva::process::kRefusedPathCode;
    }
    const std::wstring folder = devicecontrol::ActionProgramFolder(korva::win::AnsiToWide(install.path));
    const std::wstring program = folder + name;
    const std::optional<std::wstring> arguments = devicecontrol::ActionProgramArguments(actionCode, userName);
    if (!arguments) {
      KLOG_ERROR_AS(kName) << "The user name cannot be put on a command line; the action program is not started.";
      return static_cast<DWORD>(ERROR_INVALID_NAME);
    }
    const DWORD result =
        ExecuteAppWithArgs(folder.c_str(), program.c_str(), arguments->c_str(), kActionProgramWaitMinutes);
    if (result == 0) {
      KLOG_INFO_AS(kName) << "Successfully executed.";
    } else {
      korva::LogFailedCallInline(kName, result, "Error code :", result, " ");
    }
    return result;
  });
}
