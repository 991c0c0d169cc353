// Opening services through the local service control manager.
#include "win/services.h"

namespace korva::win {

UniqueServiceHandle OpenServiceManager(DWORD access) noexcept {
  return UniqueServiceHandle(OpenSCManagerW(nullptr, nullptr, access));
}

UniqueServiceHandle OpenServiceOn(SC_HANDLE manager, const wchar_t* name, DWORD access) noexcept {
  return UniqueServiceHandle(OpenServiceW(manager, name, access));
}

UniqueServiceHandle OpenServiceByName(const wchar_t* name, DWORD access, ServiceOpenFailure* failure) noexcept {
  const UniqueServiceHandle manager = OpenServiceManager(SC_MANAGER_CONNECT);
  UniqueServiceHandle service = manager ? OpenServiceOn(manager.get(), name, access) : UniqueServiceHandle();
  if (failure != nullptr) {
    *failure = !manager   ? ServiceOpenFailure::kManager
               : !service ? ServiceOpenFailure::kService
                          : ServiceOpenFailure::kNone;
  }
  return service;  // the manager's handle closes after this, keeping the last error (see UniqueAny)
}

}  // namespace korva::win
