// The device-event summary program, started and left to run, with the device instance path of each
// arrival and removal; counted, so a device that arrives and leaves in a loop cannot start them
// without end (devicecontrol/summary_runs.h).
#include "devicecontrol/summary_program.h"

#include <algorithm>
#include <cstddef>
#include <cwchar>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "devicecontrol/core/device_action_text.h"
#include "devicecontrol/summary_runs.h"
#include "encryption/encrypt_device_handler.h"
#include "process/launch_gate.h"
#include "process/launcher.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "win/strings.h"

namespace {

namespace devicecontrol = korva::devicecontrol;

constexpr const char* kActionName = "ExecuteDeviceEventAction";

// The interface path in a device-interface broadcast, never read past the structure's own size.
std::wstring_view InterfacePathOf(const DEV_BROADCAST_DEVICEINTERFACE_W* header) {
  if (header == nullptr) return {};
  constexpr std::size_t nameOffset = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
  if (header->dbcc_size <= nameOffset) return {};
  const std::size_t capacity = (header->dbcc_size - nameOffset) / sizeof(wchar_t);
  return {header->dbcc_name, wcsnlen(header->dbcc_name, capacity)};
}

// UTF-8 for the summary program; on failure the error is logged and the text stays empty.
std::string InstancePathUtf8(const std::wstring& instancePath) {
  // Up to the first NUL, as the path's C string reads.
  const std::wstring_view upToNul(instancePath.data(), std::min(instancePath.find(L'\0'), instancePath.size()));
  std::optional<std::string> utf8 = korva::win::TryWideToUtf8(upToNul);
  if (!utf8) {
    korva::LogLastError("ExecuteDeviceEventAction");
    return {};
  }
  return std::move(*utf8);
}

}  // namespace

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
      EncryptDeviceHandler::UnregisterDiskNotification(instance.path);
      eventKind = devicecontrol::kRemovalEventKind;
    }
    ExecuteDeviceEventAction(devicecontrol::kDeviceInterfaceEventClass, eventKind, instance.path);
    return 0;
  });
}

void ExecuteDeviceEventAction(int eventClass, int eventKind, const std::wstring& instancePath) {
  korva::log::ScopedGuardedVoid(__func__, [&] {
    const korva::AgentFolder install = korva::DeviceControlFolder();
    if (!korva::process::FolderAllowsStart(kActionName, devicecontrol::kSummaryProgram, install)) return;
    const std::string folder = devicecontrol::SummaryProgramFolder(install.path);
    const std::string program = devicecontrol::SummaryProgramPath(folder);
    std::string device = InstancePathUtf8(instancePath);
    const std::optional<std::string> arguments = devicecontrol::SummaryArguments(eventClass, eventKind, device);
    if (!arguments) {
      KLOG_ERROR_AS(kActionName) << "The device instance path cannot be put on a command line; "
                                 << devicecontrol::kSummaryProgram << " is not started.";
      return;
    }
    devicecontrol::StartOrQueueSummary(devicecontrol::SummaryStart{program, folder, *arguments, std::move(device)});
  });
}
