// Asking the service control manager about another service's state.
#pragma once

#include <windows.h>

#include "win/unique_handle.h"

namespace korva {
// `name` opened with `access` through a connection of its own to the service control manager;
// empty on failure, with the Win32 error in `error`.
win::UniqueServiceHandle OpenServiceByName(const wchar_t* name, DWORD access, DWORD& error);
}  // namespace korva

// 0 and the current state, or the Win32 error (1060 when the service does not exist).
[[nodiscard]] DWORD QuerySCMServiceStatus(const wchar_t* serviceName, DWORD* state);
