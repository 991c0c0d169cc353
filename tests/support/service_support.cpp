// Helpers for tests that drive the agent service through the service control manager.
#include "support/service_support.h"

#include <vector>

#include "settings/registry.h"
#include "support/test_support.h"

namespace korva::test {

std::wstring ServiceExecutable() { return ProgramFolder() + L"\\korvaAgentService.exe"; }

win::UniqueServiceHandle OpenAgentService(DWORD access) {
  const win::UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager) return win::UniqueServiceHandle();
  return win::UniqueServiceHandle(OpenServiceW(manager.get(), kAgentServiceName, access));
}

void DeleteAgentServiceIfPresent() {
  const win::UniqueServiceHandle service = OpenAgentService(SERVICE_ALL_ACCESS);
  if (!service) return;
  SERVICE_STATUS status{};
  ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
  WaitForServiceState(service.get(), SERVICE_STOPPED, 30000);
  DeleteService(service.get());
}

DWORD WaitForServiceState(SC_HANDLE service, DWORD state, DWORD timeoutMs) {
  SERVICE_STATUS status{};
  const ULONGLONG deadline = GetTickCount64() + timeoutMs;
  while (QueryServiceStatus(service, &status) && status.dwCurrentState != state && GetTickCount64() < deadline) {
    Sleep(20);
  }
  return status.dwCurrentState;
}

DWORD SendControl(SC_HANDLE service, DWORD control) {
  SERVICE_STATUS status{};
  return ControlService(service, control, &status) ? 0 : GetLastError();
}

ServiceConfig QueryAgentServiceConfig() {
  ServiceConfig config;
  const win::UniqueServiceHandle service = OpenAgentService(SERVICE_QUERY_CONFIG);
  if (!service) {
    config.error = GetLastError();
    return config;
  }
  DWORD needed = 0;
  QueryServiceConfigW(service.get(), nullptr, 0, &needed);
  std::vector<BYTE> buffer(needed);
  auto* raw = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (needed == 0 || !QueryServiceConfigW(service.get(), raw, needed, &needed)) return config;
  config.exists = true;
  config.binaryPath = raw->lpBinaryPathName;
  config.startType = raw->dwStartType;
  config.serviceType = raw->dwServiceType;
  config.account = raw->lpServiceStartName != nullptr ? raw->lpServiceStartName : L"";
  return config;
}

bool PrepareCleanAgent(const std::string& agentFolder) {
  DeleteAgentServiceIfPresent();
  CleanAgentRegistry();
  SetLogLevel("LogLevel", 6);
  return writeValue(kAgentKey, "BasePath", REG_SZ, agentFolder) == 0 &&
         writeValue(kAgentKey, "AgentInstallDir", REG_SZ, agentFolder) == 0;
}

void RemoveAgent() {
  DeleteAgentServiceIfPresent();
  CleanAgentRegistry();
}

}  // namespace korva::test
