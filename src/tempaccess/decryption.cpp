// The decryption library interface over "ClientAuthHandler.dll".
#include "tempaccess/decryption.h"

#include <windows.h>

#include <mutex>
#include <string>
#include <vector>

#include "settings/core/json_text.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "tempaccess/core/decryption_path.h"
#include "win/procedure.h"
#include "win/unique_handle.h"

namespace {

using DecryptFn = int(__cdecl*)(const char* cipher, char* plain, int capacity);
constexpr const char* kName = "ClientAuthHandlerUtil::aes256Decrypt";
// A first guess at the plain text's size; the library says when it needs more.
constexpr int kFirstCapacity = 4096;

std::mutex g_pathMutex;
std::wstring g_executablePathForTest;

std::wstring ExecutablePath() {
  {
    const std::lock_guard<std::mutex> lock(g_pathMutex);
    if (!g_executablePathForTest.empty()) return g_executablePathForTest;
  }
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD n = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (n < path.size()) return path.substr(0, n);
    path.resize(path.size() * 2);
  }
}

// The library's full, normalised path.
std::wstring LibraryPath() {
  const std::wstring joined = korva::tempaccess::DecryptionLibraryPath(ExecutablePath());
  const DWORD needed = GetFullPathNameW(joined.c_str(), 0, nullptr, nullptr);
  if (needed == 0) return joined;
  std::wstring full(needed, L'\0');
  const DWORD n = GetFullPathNameW(joined.c_str(), needed, full.data(), nullptr);
  return n > 0 && n < needed ? full.substr(0, n) : joined;
}

}  // namespace

bool AgentUtil::ClientAuthHandlerUtil::aes256Decrypt(const std::string& cipher, std::string& plain) {
  return korva::log::ScopedGuarded(kName, false, [&] {
    plain.clear();
    const std::wstring path = LibraryPath();
    // A full path, and the libraries it needs only from its own folder or the system's: the current
    // directory and PATH, where a user may plant a library, are never searched.
    const korva::win::UniqueLibrary library(
        LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32));
    if (!library) {
      korva::LogLastError(kName, "Unable to load the decryption library [", path, "].");
      return false;
    }
    const auto decrypt = korva::win::LookUpProcedure<DecryptFn>(library.get(), "GetDecryptedStrDll");
    if (decrypt == nullptr) {
      korva::LogLastError(kName, "The decryption library [", path, "] has no GetDecryptedStrDll.");
      return false;
    }
    std::vector<char> buffer(kFirstCapacity, '\0');
    int needed = decrypt(cipher.c_str(), buffer.data(), static_cast<int>(buffer.size()));
    if (needed > static_cast<int>(buffer.size()) &&
        static_cast<unsigned long long>(needed) <= korva::json::kMaxWholeFileBytes) {
      buffer.assign(static_cast<std::size_t>(needed), '\0');
      needed = decrypt(cipher.c_str(), buffer.data(), static_cast<int>(buffer.size()));
    }
    if (needed <= 0 || needed > static_cast<int>(buffer.size())) {
      KLOG_ERROR_AS(kName) << "The decryption library refused the text (result " << needed << ").";
      return false;
    }
    plain.assign(buffer.data(), static_cast<std::size_t>(needed - 1));
    return true;
  });
}

void korva::SetDecryptionExecutablePathForTest(const std::wstring& path) {
  const std::lock_guard<std::mutex> lock(g_pathMutex);
  g_executablePathForTest = path;
}
