// Sending a user-defined control code to this service through the service control manager.
#pragma once

#include <windows.h>

// Sends `code` (128-255) to "Tallowmere Korva - Agent", where it reaches the control handler like
// any other control. 0, or the Win32 error; a code outside the range is refused with
// ERROR_INVALID_PARAMETER.
[[nodiscard]] DWORD SendControl(DWORD code);
