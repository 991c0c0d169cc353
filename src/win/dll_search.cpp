// Narrowing the DLL search of the process to the system folder.
#include "win/dll_search.h"

#include "win/procedure.h"

namespace korva::win {

DWORD LimitDllSearchToSystemFolder() noexcept {
  using SetDefaultDllDirectoriesFn = BOOL(WINAPI*)(DWORD);
  // kernel32 is mapped into every process: looking it up loads nothing.
  const auto setDefault =
      LookUpProcedure<SetDefaultDllDirectoriesFn>(GetModuleHandleW(L"kernel32.dll"), "SetDefaultDllDirectories");
  if (setDefault == nullptr) return ERROR_PROC_NOT_FOUND;
  return setDefault(LOAD_LIBRARY_SEARCH_SYSTEM32) ? ERROR_SUCCESS : GetLastError();
}

}  // namespace korva::win
