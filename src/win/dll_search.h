// The process's DLL search: a DLL named without a path is looked for in the system folder only.
#pragma once

#include <windows.h>

namespace korva::win {

// SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32), looked up at run time (Windows 7 has it
// only with KB2533623). From then on a DLL loaded by bare name, the delay-loaded system DLLs
// included, comes from the system folder only: never from the executable's folder, the current
// directory or a folder on PATH. Returns 0, or the error (ERROR_PROC_NOT_FOUND: the system lacks
// the call, and the search stays the system's default).
[[nodiscard]] DWORD LimitDllSearchToSystemFolder() noexcept;

}  // namespace korva::win
