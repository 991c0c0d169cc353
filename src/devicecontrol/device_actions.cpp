// The device-control helper programs: the action program, started in the service's identity and
// waited for, and the summary program, started and left to run.
#include "devicecontrol/device_actions.h"

#include <cstddef>
#include <cwchar>
#include <string>
#include <string_view>
#include <vector>

#include "devicecontrol/core/device_action_text.h"
#include "encryption/encrypt_device_handler.h"
#include "process/launcher.h"
#include "process/sessions.h"
#include "settings/agent_parameters.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "win/bitness.h"
#include "win/strings.h"

namespace {

namespace devicecontrol = korva::devicecontrol;

// The action program may run this long (minutes) before it is terminated.
constexpr DWORD kActionProgramWaitMinutes = 2;
// The summary program is not waited for.
constexpr DWORD kSummaryProgramWaitMinutes = 0;
constexpr DWORD kExceptionResult = static_cast<DWORD>(korva::kUnhandledException);

std::string InstallationFolder() {
  return AgentParameters.installDirectory != nullptr ? std::string(AgentParameters.installDirectory) : std::string();
}

// The interface path in a device-interface broadcast, never read past the structure's own size.
std::wstring_view InterfacePathOf(const DEV_BROADCAST_DEVICEINTERFACE_W* header) {
  if (header == nullptr) return {};
  constexpr std::size_t nameOffset = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
  if (header->dbcc_size <= nameOffset) return {};
  const std::size_t capacity = (header->dbcc_size - nameOffset) / sizeof(wchar_t);
  return std::wstring_view(header->dbcc_name, wcsnlen(header->dbcc_name, capacity));
}

// UTF-8 for the summary program; on failure the error is logged and the text stays empty.
std::string InstancePathUtf8(const std::wstring& instancePath) {
  const int measured = WideCharToMultiByte(CP_UTF8, 0, instancePath.c_str(), -1, nullptr, 0, nullptr, nullptr);
  if (measured <= 0) {
    printErrorMsgForID(GetLastError());
    return std::string();
  }
  std::vector<char> buffer(static_cast<std::size_t>(measured) + 1, '\0');
  if (WideCharToMultiByte(CP_UTF8, 0, instancePath.c_str(), -1, buffer.data(), measured, nullptr, nullptr) <= 0) {
    printErrorMsgForID(GetLastError());
    return std::string();
  }
  return std::string(buffer.data());
}

}  // namespace

void ProcessSecureDeviceOperation(int actionCode) {
  korva::log::ScopedGuardedVoid(__func__, [actionCode] {
    constexpr const char* kName = "ProcessSecureDeviceOperation";
    const std::wstring userName = GetCurrentlyLoggedOnUser();
    KLOG_INFO_AS(kName) << "Logged-in User Name :" << userName;
    if (ExecuteDeviceApplication(actionCode, userName) != 0) {
      KLOG_ERROR_AS(kName) << "ExecuteDeviceApplication Failed.";
    } else {
      KLOG_INFO_AS(kName) << "Successfully Executed ExecuteDeviceApplication.";
    }
  });
}

DWORD ExecuteDeviceApplication(int actionCode, const std::wstring& userName) {
  return korva::log::ScopedGuarded(__func__, kExceptionResult, [&]() -> DWORD {
    constexpr const char* kName = "ExecuteDeviceApplication";
    const std::wstring folder = devicecontrol::ActionProgramFolder(korva::win::AnsiToWide(InstallationFolder()));
    if (IsWow64ProcessEntry == nullptr) InitiateWow64();
    BOOL wow64 = FALSE;
    if (IsWow64ProcessEntry == nullptr || !IsWow64ProcessEntry(GetCurrentProcess(), &wow64)) wow64 = FALSE;
    IsWow64Flag = wow64;
    const std::wstring program =
        folder + devicecontrol::ActionProgramName(korva::win::RunsOn64BitWindows(wow64 != FALSE));
    const std::wstring arguments = devicecontrol::ActionProgramArguments(actionCode, userName);
    const DWORD result =
        ExecuteAppWithArgs(folder.c_str(), program.c_str(), arguments.c_str(), kActionProgramWaitMinutes);
    if (result == 0) {
      KLOG_INFO_AS(kName) << "Successfully executed.";
    } else {
      KLOG_ERROR_AS(kName) << "Error code :" << result << " " << GetErrorMsgForID(result);
    }
    return result;
  });
}

DWORD ProcessSecureDeviceOperation(PDEV_BROADCAST_DEVICEINTERFACE_W header, DWORD eventType) {
  return korva::log::ScopedGuarded(__func__, static_cast<DWORD>(0), [&]() -> DWORD {
    constexpr const char* kName = "ProcessSecureDeviceOperation";
    const devicecontrol::InstancePath instance =
        devicecontrol::DeviceInstancePathFromInterfacePath(InterfacePathOf(header));
    if (instance.status == devicecontrol::InstancePathStatus::kNoHash) {
      KLOG_ERROR_AS(kName) << "Unable to find # in device instance path.";
      return 0;
    }
    if (instance.status == devicecontrol::InstancePathStatus::kNoSlash) {
      KLOG_ERROR_AS(kName) << "Unable to find slash in device instance path.";
      return 0;
    }
    int eventKind = devicecontrol::kArrivalEventKind;
    if (eventType != DBT_DEVICEARRIVAL) {
      // The device is gone: its volumes' notifications go with it.
      EncryptDeviceHandler handler;
      handler.UnregisterDiskNotification(instance.path);
      eventKind = devicecontrol::kRemovalEventKind;
    }
    ExecuteDeviceEventAction(devicecontrol::kDeviceInterfaceEventClass, eventKind, instance.path);
    return 0;
  });
}

void ExecuteDeviceEventAction(int eventClass, int eventKind, const std::wstring& instancePath) {
  korva::log::ScopedGuardedVoid(__func__, [&] {
    const std::string folder = devicecontrol::SummaryProgramFolder(InstallationFolder());
    const std::string program = devicecontrol::SummaryProgramPath(folder);
    const std::string arguments =
        devicecontrol::SummaryArguments(eventClass, eventKind, InstancePathUtf8(instancePath));
    const DWORD result =
        ExecuteAppWithArgs(program.c_str(), folder.c_str(), arguments.c_str(), kSummaryProgramWaitMinutes);
    KLOG_INFO_AS("ExecuteDeviceEventAction") << "Error code :" << result;
  });
}
