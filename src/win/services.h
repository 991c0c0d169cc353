// Opening services through the local service control manager: the one place that calls
// OpenSCManagerW and OpenServiceW.
#pragma once

#include <windows.h>

#include "win/unique_handle.h"

namespace korva::win {

// Which call failed when a service could not be opened.
enum class ServiceOpenFailure { kNone, kManager, kService };

// A connection to the local service control manager with `access`; empty on failure, with the
// error in GetLastError().
[[nodiscard]] UniqueServiceHandle OpenServiceManager(DWORD access) noexcept;
// `name` opened with `access` through `manager`; empty on failure, with the error in GetLastError().
[[nodiscard]] UniqueServiceHandle OpenServiceOn(SC_HANDLE manager, const wchar_t* name, DWORD access) noexcept;
// `name` opened with `access` through a connection of its own (SC_MANAGER_CONNECT), which is closed
// before this returns. Empty on failure: `failure` (when given) says which call failed, and
// GetLastError() still holds that call's error.
[[nodiscard]] UniqueServiceHandle OpenServiceByName(const wchar_t* name, DWORD access,
                                                    ServiceOpenFailure* failure = nullptr) noexcept;

}  // namespace korva::win
