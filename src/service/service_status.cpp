// Installing, removing and reporting the agent service to the service control manager.
#include "service/service_status.h"

#include <sddl.h>

#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "service/agent_folder_access.h"
#include "service/core/service_status_rules.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "shared/core/agent_folders.h"
#include "shared/service_state.h"
#include "win/services.h"
#include "win/unique_handle.h"

std::atomic<BOOL> RestoreStartTypeFlag{FALSE};

namespace {

using korva::win::UniqueServiceHandle;

constexpr wchar_t kServiceDescription[] =
    L"Tallowmere Korva endpoint agent: device control, file audit and temporary device access on this machine.";

std::wstring QuotedModulePath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD n = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (n < path.size()) {
      path.resize(n);
      break;
    }
    path.resize(path.size() * 2);
  }
  // Quoted, so that a path with blanks cannot be taken for a shorter program plus arguments.
  return L"\"" + path + L"\"";
}

// The manager for installing; a failure is logged under `function`.
UniqueServiceHandle OpenManagerOrLog(DWORD access, const char* function) {
  UniqueServiceHandle manager = korva::win::OpenServiceManager(access);
  if (!manager) korva::LogLastError(function, "OpenSCManager failed due to the following error.");
  return manager;
}

UniqueServiceHandle CreateOrUpdateService(SC_HANDLE manager, const std::wstring& binaryPath) {
  UniqueServiceHandle service(CreateServiceW(manager, kAgentServiceName, kAgentServiceName, SERVICE_ALL_ACCESS,
                                             SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                             binaryPath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  if (service) {
    KLOG_INFO_AS("InstallAgentService") << "Service installed successfully.";
    return service;
  }
  if (GetLastError() != ERROR_SERVICE_EXISTS) {
    korva::LogLastError("InstallAgentService", "CreateService failed due to the following error.");
    return service;
  }
  service = korva::win::OpenServiceOn(manager, kAgentServiceName, SERVICE_ALL_ACCESS);
  if (!service) {
    korva::LogLastError("InstallAgentService", "OpenService failed due to the following error.");
    return service;
  }
  if (!ChangeServiceConfigW(service.get(), SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                            binaryPath.c_str(), nullptr, nullptr, nullptr, L"LocalSystem", L"", kAgentServiceName)) {
    korva::LogLastError("InstallAgentService", "ChangeServiceConfig failed due to the following error.");
    service.reset();
    return service;
  }
  KLOG_INFO_AS("InstallAgentService") << "Service already exists; its configuration is updated.";
  return service;
}

[[nodiscard]] bool SetDescription(SC_HANDLE service) {
  SERVICE_DESCRIPTIONW description{const_cast<LPWSTR>(kServiceDescription)};
  if (ChangeServiceConfig2W(service, SERVICE_CONFIG_DESCRIPTION, &description)) return true;
  korva::LogLastError("InstallAgentService", "Setting the service description failed due to the following error.");
  return false;
}

[[nodiscard]] bool SetRecoveryActions(SC_HANDLE service, const char* function = "InstallAgentService") {
  const korva::service::RecoveryPolicy policy = korva::service::AgentRecoveryPolicy();
  std::vector<SC_ACTION> actions;
  actions.reserve(policy.actions.size());
  for (const korva::service::RecoveryAction& a : policy.actions) {
    actions.push_back(SC_ACTION{a.restart ? SC_ACTION_RESTART : SC_ACTION_NONE, a.delayMs});
  }
  SERVICE_FAILURE_ACTIONSW failure{};
  failure.dwResetPeriod = policy.resetPeriodSeconds;
  failure.cActions = static_cast<DWORD>(actions.size());
  failure.lpsaActions = actions.data();
  if (ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failure)) return true;
  korva::LogLastError(function, "Setting the service recovery actions failed due to the following error.");
  return false;
}

// The recovery actions the service has; none when they cannot be read.
std::optional<korva::service::RecoveryPolicy> ConfiguredRecovery(SC_HANDLE service) {
  DWORD needed = 0;
  QueryServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, nullptr, 0, &needed);
  if (needed < sizeof(SERVICE_FAILURE_ACTIONSW)) return std::nullopt;
  std::vector<BYTE> buffer(needed);
  if (!QueryServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, buffer.data(), needed, &needed))
    return std::nullopt;
  const auto* failure = reinterpret_cast<const SERVICE_FAILURE_ACTIONSW*>(buffer.data());
  korva::service::RecoveryPolicy configured{failure->dwResetPeriod, {}};
  for (DWORD i = 0; i < failure->cActions && failure->lpsaActions != nullptr; ++i) {
    const SC_ACTION& action = failure->lpsaActions[i];
    configured.actions.push_back({action.Type == SC_ACTION_RESTART, action.Delay});
  }
  return configured;
}

// Waits (polling) until the service reports `state`, at most `timeoutMs`.
[[nodiscard]] bool WaitForServiceState(SC_HANDLE service, DWORD state, DWORD timeoutMs) {
  const ULONGLONG deadline = GetTickCount64() + timeoutMs;
  for (;;) {
    SERVICE_STATUS status{};
    if (!QueryServiceStatus(service, &status)) return false;
    if (status.dwCurrentState == state) return true;
    if (GetTickCount64() >= deadline) return false;
    Sleep(100);
  }
}

std::mutex g_statusMutex;
DWORD g_lastCheckPoint = 0;
// The state the manager last accepted from this process; 0 before the first report.
DWORD g_lastReported = 0;

}  // namespace

bool InstallAgentService() {
  return korva::log::ScopedGuarded(__func__, false, [] {
    // First, as an installer that cannot set a folder's access list leaves it to this step: the
    // executable's own folder may be one of them.
    const bool folders = korva::SecureAgentFolders();
    // The service runs this file as LocalSystem at every boot: never from a folder a user could
    // change or replace (a copy run from a user's Downloads folder, or through a link).
    const korva::AgentFolder folder = korva::ExecutableFolder();
    if (!Usable(folder)) {
      const std::string refusal = "The service is not installed from " + std::string(folder.name) + " \"" +
                                  korva::folders::PrintableText(folder.text) +
                                  "\": " + korva::folders::FaultText(folder.fault) + ".";
      KLOG_ERROR_AS("InstallAgentService") << refusal;
      // The installer's exit code says nothing of it: whoever runs it sees this, on a line of its
      // own after the unterminated "Going to install" line.
      (void)std::fflush(stdout);
      (void)std::fprintf(stderr, "\n%s\n", refusal.c_str());
      return false;
    }
    const UniqueServiceHandle manager = OpenManagerOrLog(SC_MANAGER_ALL_ACCESS, "InstallAgentService");
    if (!manager) return false;
    const UniqueServiceHandle service = CreateOrUpdateService(manager.get(), QuotedModulePath());
    if (!service) return false;
    const bool described = SetDescription(service.get());
    const bool recovers = SetRecoveryActions(service.get());
    const bool secured = UpdateServiceAccess();
    return described && recovers && secured && folders;
  });
}

bool UnInstallAgentService() {
  return korva::log::ScopedGuarded(__func__, false, [] {
    korva::win::ServiceOpenFailure failure = korva::win::ServiceOpenFailure::kNone;
    const UniqueServiceHandle service =
        korva::win::OpenServiceByName(kAgentServiceName, SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE, &failure);
    if (!service) {
      korva::LogLastError("UnInstallAgentService", failure == korva::win::ServiceOpenFailure::kManager
                                                       ? "OpenSCManager failed due to the following error."
                                                       : "OpenService failed due to the following error.");
      return false;
    }
    SERVICE_STATUS status{};
    if (QueryServiceStatus(service.get(), &status) && status.dwCurrentState != SERVICE_STOPPED) {
      KLOG_INFO_AS("UnInstallAgentService") << "Stopping the service before removing it.";
      if (!ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) {
        korva::LogLastError("UnInstallAgentService", "ControlService(STOP) failed due to the following error.");
      }
      if (!WaitForServiceState(service.get(), SERVICE_STOPPED, korva::kUninstallStopWaitMs)) {
        KLOG_ERROR_AS("UnInstallAgentService") << "The service did not stop in time; it is removed anyway.";
      }
    }
    if (!DeleteService(service.get())) {
      korva::LogLastError("UnInstallAgentService", "DeleteService failed due to the following error.");
      return false;
    }
    KLOG_INFO_AS("UnInstallAgentService") << "Service uninstalled successfully.";
    return true;
  });
}

namespace {

// Sets the service's DACL through a handle opened with WRITE_DAC (null when the opening failed, its
// error still the last one); failures are logged under UpdateServiceAccess.
[[nodiscard]] bool ApplyServiceAccess(SC_HANDLE service) {
  if (service == nullptr) {
    korva::LogLastError("UpdateServiceAccess", "OpenService failed due to the following error.");
    return false;
  }
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(korva::service::kServiceSecurityDescriptor, SDDL_REVISION_1,
                                                            &descriptor, nullptr)) {
    korva::LogLastError("UpdateServiceAccess",
                        "Building the service security descriptor failed due to the following error.");
    return false;
  }
  const korva::win::UniqueLocalMemory owner(descriptor);
  if (!SetServiceObjectSecurity(service, DACL_SECURITY_INFORMATION, descriptor)) {
    korva::LogLastError("UpdateServiceAccess", "SetServiceObjectSecurity failed due to the following error.");
    return false;
  }
  KLOG_INFO_AS("UpdateServiceAccess") << "Service access rules updated.";
  return true;
}

// The most QueryServiceConfigW gives: one call to the service control manager, not one to size the
// buffer and one to fill it.
constexpr DWORD kServiceConfigBytes = 8 * 1024;

// Sets RestoreStartTypeFlag from the configuration read through `service` (SERVICE_QUERY_CONFIG).
void RecordStartType(SC_HANDLE service) {
  if (service == nullptr) return;
  std::vector<BYTE> buffer(kServiceConfigBytes);
  DWORD needed = 0;
  bool read = QueryServiceConfigW(service, reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                                  static_cast<DWORD>(buffer.size()), &needed) != FALSE;
  if (!read && GetLastError() == ERROR_INSUFFICIENT_BUFFER && needed > buffer.size()) {
    buffer.resize(needed);
    read =
        QueryServiceConfigW(service, reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()), needed, &needed) != FALSE;
  }
  if (!read) {
    korva::LogLastError("UpdateRestoreStartTypeFlag", "QueryServiceConfig failed due to the following error.");
    return;
  }
  const auto* config = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (config->dwStartType != SERVICE_AUTO_START) {
    RestoreStartTypeFlag.store(TRUE);
    KLOG_INFO_AS("UpdateRestoreStartTypeFlag")
        << "Service start type is " << static_cast<unsigned long>(config->dwStartType)
        << "; it is restored to automatic at shutdown.";
  }
}

}  // namespace

bool UpdateServiceAccess() {
  return korva::log::ScopedGuarded(__func__, false, [] {
    const UniqueServiceHandle service = korva::win::OpenServiceByName(kAgentServiceName, READ_CONTROL | WRITE_DAC);
    return ApplyServiceAccess(service.get());
  });
}

bool ChangeServiceStatus(DWORD state) {
  return korva::log::ScopedGuarded(__func__, false, [state] {
    const std::lock_guard<std::mutex> lock(g_statusMutex);
    if (!korva::service::MayReportAfter(g_lastReported, state)) {
      KLOG_WARNING_AS("ChangeServiceStatus")
          << "The service is stopping; status " << static_cast<unsigned long>(state) << " is not reported.";
      return false;
    }
    const korva::service::StatusReport report = korva::service::StatusReportFor(state, g_lastCheckPoint);
    g_lastCheckPoint = report.checkPoint;
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = report.controlsAccepted;
    status.dwWin32ExitCode = NO_ERROR;
    status.dwCheckPoint = report.checkPoint;
    status.dwWaitHint = report.waitHint;
    if (!SetServiceStatus(ServiceStatusHandle, &status)) {
      korva::LogLastError("ChangeServiceStatus", "SetServiceStatus failed due to the following error.");
      return false;
    }
    g_lastReported = state;
    KLOG_DEBUG_AS("ChangeServiceStatus") << "Service status reported :" << static_cast<unsigned long>(state);
    return true;
  });
}

bool ChangeServiceStartupTypeToAuto(const wchar_t* serviceName) {
  return korva::log::ScopedGuarded(__func__, false, [serviceName] {
    const UniqueServiceHandle service = korva::win::OpenServiceByName(serviceName, SERVICE_CHANGE_CONFIG);
    if (!service) {
      korva::LogLastError("ChangeServiceStartupTypeToAuto", "OpenService failed due to the following error.");
      return false;
    }
    if (!ChangeServiceConfigW(service.get(), SERVICE_NO_CHANGE, SERVICE_AUTO_START, SERVICE_NO_CHANGE, nullptr, nullptr,
                              nullptr, nullptr, nullptr, nullptr, nullptr)) {
      korva::LogLastError("ChangeServiceStartupTypeToAuto", "ChangeServiceConfig failed due to the following error.");
      return false;
    }
    KLOG_INFO_AS("ChangeServiceStartupTypeToAuto") << "Service start type set to automatic.";
    return true;
  });
}

namespace korva {

void UpdateServiceAccessAndStartType() {
  // One connection to the service control manager for both: each costs a round trip to it.
  UniqueServiceHandle service;
  (void)log::ScopedGuarded("UpdateServiceAccess", false, [&service] {
    service = korva::win::OpenServiceByName(kAgentServiceName, READ_CONTROL | WRITE_DAC | SERVICE_QUERY_CONFIG);
    return ApplyServiceAccess(service.get());
  });
  KLOG_SCOPE_AS("UpdateRestoreStartTypeFlag");
  log::GuardedVoid("UpdateRestoreStartTypeFlag", [&service] { RecordStartType(service.get()); });
}

void EnsureRecoveryActions() {
  KLOG_SCOPE_AS("EnsureRecoveryActions");
  log::GuardedVoid("EnsureRecoveryActions", [] {
    const UniqueServiceHandle service =
        korva::win::OpenServiceByName(kAgentServiceName, SERVICE_QUERY_CONFIG | SERVICE_CHANGE_CONFIG);
    if (!service) {
      korva::LogLastError("EnsureRecoveryActions", "OpenService failed due to the following error.");
      return;
    }
    const std::optional<service::RecoveryPolicy> configured = ConfiguredRecovery(service.get());
    if (configured && service::SameRecovery(service::AgentRecoveryPolicy(), *configured)) return;
    if (!SetRecoveryActions(service.get(), "EnsureRecoveryActions")) return;
    if (configured) {
      KLOG_INFO_AS("EnsureRecoveryActions")
          << "The service had other recovery actions (an installer that cannot set them); they are set now.";
    } else {
      KLOG_INFO_AS("EnsureRecoveryActions") << "The service's recovery actions could not be read; they are set.";
    }
  });
}

}  // namespace korva
