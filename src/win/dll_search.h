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

// Loads the DLL at the full path `path`, the DLLs it imports looked for in its own folder and then
// the system folder only. Where the system lacks that narrowed search (Windows 7 without
// KB2533623, which rejects its flags with ERROR_INVALID_PARAMETER), its imports are looked for in
// its own folder first and then in the system's default order, as for every DLL of the process
// there. Null, its error the last one, when it cannot be loaded.
[[nodiscard]] HMODULE LoadLibraryWithItsFolderFirst(const wchar_t* path) noexcept;

}  // namespace korva::win
