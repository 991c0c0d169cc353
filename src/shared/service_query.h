// Asking the service control manager about another service's state.
#pragma once

#include <windows.h>

// 0 and the current state, or the Win32 error (1060 when the service does not exist).
[[nodiscard]] DWORD QuerySCMServiceStatus(const wchar_t* serviceName, DWORD* state);
