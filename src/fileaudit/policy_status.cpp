// Policy presence checks against the policy folder under the agent's base path.
#include "fileaudit/policy_status.h"

#include <windows.h>

#include <string>
#include <string_view>

#include "settings/log.h"
#include "shared/agent_environment.h"
#include "shared/core/policy_paths.h"
#include "shared/path_links.h"

namespace {

// 1 when the policy file `file` under the base path exists and holds at least one byte.
int PolicyPresent(const char* function, std::string_view file) {
  const korva::AgentFolder base = korva::AgentBaseFolder();
  if (base.fault == korva::folders::FolderFault::kEmpty) {
    KLOG_WARNING_AS(function) << "BasePath is not set; no policy file " << file << " to look for.";
    return 0;
  }
  if (!Usable(base)) {
    KLOG_WARNING_AS(function) << "BasePath \"" << korva::folders::PrintableText(base.text) << "\" is refused ("
                              << korva::folders::FaultText(base.fault) << "); no policy file " << file
                              << " to look for.";
    return 0;
  }
  const std::string path = korva::PolicyFilePath(base.path, file);
  if (!korva::NoUnsafeStepOn(function, path, "Policy file", "it counts as not present")) return 0;
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data) ||
      (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    KLOG_INFO_AS(function) << "Policy file [" << path << "] is not present.";
    return 0;
  }
  if (data.nFileSizeHigh == 0 && data.nFileSizeLow == 0) {
    KLOG_INFO_AS(function) << "Policy file [" << path << "] is empty.";
    return 0;
  }
  KLOG_INFO_AS(function) << "Policy file [" << path << "] is present.";
  return 1;
}

}  // namespace

int CheckDeviceControlPolicyStatus() {
  return korva::log::ScopedGuarded(
      __func__, 0, [] { return PolicyPresent("CheckDeviceControlPolicyStatus", korva::kDeviceControlPolicyFile); });
}

int CheckSecureUSBConfigurationStatus() {
  return korva::log::ScopedGuarded(
      __func__, 0, [] { return PolicyPresent("CheckSecureUSBConfigurationStatus", korva::kSecureUsbPolicyFile); });
}
