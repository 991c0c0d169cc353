// Asking the service control manager about another service's state.
#include "shared/service_query.h"

#include "settings/log.h"
#include "win/services.h"

DWORD QuerySCMServiceStatus(const wchar_t* serviceName, DWORD* state) {
  return korva::log::ScopedGuarded(__func__, static_cast<DWORD>(ERROR_INVALID_FUNCTION), [&]() -> DWORD {
    const korva::win::UniqueServiceHandle service = korva::win::OpenServiceByName(serviceName, SERVICE_QUERY_STATUS);
    if (!service) return GetLastError();
    SERVICE_STATUS status{};
    if (!QueryServiceStatus(service.get(), &status)) return GetLastError();
    *state = status.dwCurrentState;
    return NO_ERROR;
  });
}
