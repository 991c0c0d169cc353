// Narrowing the DLL search of the process to the system folder.
#include "win/dll_search.h"

#include "win/procedure.h"

namespace korva::win {
namespace {

// The call that narrows the process's search, looked up at run time: its presence tells that
// LoadLibraryExW takes the LOAD_LIBRARY_SEARCH_* flags too (they came with it).
template <typename Fn>
Fn Kernel32Procedure(const char* name) noexcept {
  // kernel32 is mapped into every process: looking it up loads nothing.
  return LookUpProcedure<Fn>(GetModuleHandleW(L"kernel32.dll"), name);
}

}  // namespace

DWORD LimitDllSearchToSystemFolder() noexcept {
  using SetDefaultDllDirectoriesFn = BOOL(WINAPI*)(DWORD);
  const auto setDefault = Kernel32Procedure<SetDefaultDllDirectoriesFn>("SetDefaultDllDirectories");
  if (setDefault == nullptr) return ERROR_PROC_NOT_FOUND;
  return setDefault(LOAD_LIBRARY_SEARCH_SYSTEM32) ? ERROR_SUCCESS : GetLastError();
}

HMODULE LoadLibraryWithItsFolderFirst(const wchar_t* path) noexcept {
  using AddDllDirectoryFn = void*(WINAPI*)(const wchar_t*);
  if (Kernel32Procedure<AddDllDirectoryFn>("AddDllDirectory") != nullptr) {
    return LoadLibraryExW(path, nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
  }
  return LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

}  // namespace korva::win
