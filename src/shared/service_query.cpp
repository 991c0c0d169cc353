// Asking the service control manager about another service's state.
#include "shared/service_query.h"

#include "settings/log.h"

namespace korva {
win::UniqueServiceHandle OpenServiceByName(const wchar_t* name, DWORD access, DWORD& error) {
  const win::UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  win::UniqueServiceHandle service(manager ? OpenServiceW(manager.get(), name, access) : nullptr);
  error = service ? ERROR_SUCCESS : GetLastError();  // before the manager's handle is closed
  return service;
}
}  // namespace korva

DWORD QuerySCMServiceStatus(const wchar_t* serviceName, DWORD* state) {
  return korva::log::ScopedGuarded(__func__, static_cast<DWORD>(ERROR_INVALID_FUNCTION), [&]() -> DWORD {
    DWORD error = ERROR_SUCCESS;
    const korva::win::UniqueServiceHandle service = korva::OpenServiceByName(serviceName, SERVICE_QUERY_STATUS, error);
    if (!service) return error;
    SERVICE_STATUS status{};
    if (!QueryServiceStatus(service.get(), &status)) return GetLastError();
    *state = status.dwCurrentState;
    return NO_ERROR;
  });
}
