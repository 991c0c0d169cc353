// Loading the start-up's late system DLLs on a thread of their own, ahead of their first use.
#include "win/dll_preload.h"

#include <windows.h>

#include <string>

#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace korva::win {
namespace {

constexpr const wchar_t* kPreloadedDlls[] = {L"user32.dll", L"ole32.dll"};

// The modules stay loaded for the life of the process, as statically imported ones would.
DWORD WINAPI PreloadDlls(LPVOID /*parameter*/) {
  wchar_t folder[MAX_PATH];
  const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return 1;
  for (const wchar_t* dll : kPreloadedDlls) {
    const std::wstring path = std::wstring(folder, length) + L"\\" + dll;
    (void)LoadLibraryW(path.c_str());  // only a head start: the first real call loads what failed here
  }
  // Wine keeps an ended thread's stack until another thread ends.
  ReleaseUnusedStack();
  return 0;
}

}  // namespace

void StartDllPreload() { const UniqueHandle thread(CreateThread(nullptr, 0, PreloadDlls, nullptr, 0, nullptr)); }

}  // namespace korva::win
