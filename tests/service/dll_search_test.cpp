// The DLL search as the entry point leaves it: a DLL named without a path comes from the system folder only.
#include <windows.h>

#include <gtest/gtest.h>

#include <sstream>

#include "support/test_support.h"
#include "win/dll_search.h"
#include "win/strings.h"

namespace korva::test {
namespace {

std::wstring FolderOf(HMODULE module) {
  wchar_t path[MAX_PATH];
  const std::wstring file(path, GetModuleFileNameW(module, path, MAX_PATH));
  return file.substr(0, file.find_last_of(L'\\'));
}

// The narrowing holds for the rest of this process, as it does for the service's.
TEST(DllSearch, ABareNameIsLookedForInTheSystemFolderOnly) {
  const TempDir planted;
  const std::wstring copy = planted.File(L"korvaPlanted.dll");
  ASSERT_TRUE(CopyFileW((ProgramFolder() + L"\\ClientAuthHandler.dll").c_str(), copy.c_str(), FALSE));
  ASSERT_TRUE(win::UniqueLibrary(LoadLibraryW(copy.c_str())));  // a loadable DLL: only the search can miss it
  const SearchedFolder searched(planted.path());
  EXPECT_EQ(win::LimitDllSearchToSystemFolder(), DWORD{ERROR_SUCCESS});
  const win::UniqueLibrary bare(LoadLibraryW(L"korvaPlanted.dll"));
  const DWORD error = GetLastError();
  EXPECT_FALSE(bare) << win::WideToUtf8(FolderOf(bare.get()));
  EXPECT_EQ(error, DWORD{ERROR_MOD_NOT_FOUND});

  // Each delay-loaded DLL, named as the delay-load helper names it, is found, in the system folder
  // (SysWOW64 for a 32-bit program on 64-bit Windows).
  wchar_t system[MAX_PATH], wow64[MAX_PATH];
  const std::wstring folders[] = {std::wstring(system, GetSystemDirectoryW(system, MAX_PATH)),
                                  std::wstring(wow64, GetSystemWow64DirectoryW(wow64, MAX_PATH))};
  std::istringstream names(KORVA_DELAY_LOADED_DLLS);
  int count = 0;
  for (std::string name; std::getline(names, name, ','); ++count) {
    SCOPED_TRACE(name);
    const HMODULE module = LoadLibraryA(name.c_str());
    ASSERT_NE(module, nullptr) << GetLastError();
    const std::wstring folder = FolderOf(module);
    EXPECT_TRUE(_wcsicmp(folder.c_str(), folders[0].c_str()) == 0 || _wcsicmp(folder.c_str(), folders[1].c_str()) == 0)
        << win::WideToUtf8(folder);
  }
  EXPECT_GT(count, 0);
}

}  // namespace
}  // namespace korva::test
