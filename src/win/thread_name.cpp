// Names of the agent's own threads.
#include "win/thread_name.h"

#include <windows.h>

#include "win/procedure.h"

namespace korva::win {

void NameCurrentThread(const wchar_t* name) noexcept {
  using SetThreadDescriptionFn = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  // kernel32 is loaded in every process: no library is loaded here.
  const auto setDescription =
      LookUpProcedure<SetThreadDescriptionFn>(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription");
  if (setDescription != nullptr) (void)setDescription(GetCurrentThread(), name);
}

}  // namespace korva::win
