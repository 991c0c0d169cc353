// The DLL search as the entry point leaves it: a DLL named without a path comes from the system folder only.
#include <windows.h>

#include <gtest/gtest.h>

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
}

}  // namespace
}  // namespace korva::test
