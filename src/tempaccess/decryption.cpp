// The decryption library interface over "ClientAuthHandler.dll".
#include "tempaccess/decryption.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "settings/core/json_text.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "shared/core/agent_folders.h"
#include "shared/path_links.h"
#include "tempaccess/core/decryption_path.h"
#include "win/dll_search.h"
#include "win/procedure.h"
#include "win/strings.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace {

using DecryptFn = int(__cdecl*)(const char* cipher, char* plain, int capacity);
constexpr const char* kName = "ClientAuthHandlerUtil::aes256Decrypt";
// A first guess at the plain text's size; the library says when it needs more.
constexpr int kFirstCapacity = 4096;

// The longest the caller waits for the library (its loading included). The grant pass runs before
// the service reports RUNNING, so a library that hangs must not hold the start-up.
constexpr DWORD kDefaultTimeLimitMs = 10000;
std::atomic<DWORD> g_timeLimitMs{kDefaultTimeLimitMs};
// Set while a call is inside the library. A call that outlived the limit keeps it set until it
// returns; no second thread is sent into a library that has not come back.
std::atomic<bool> g_callInFlight{false};

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

std::wstring FullPath(const std::wstring& path) {
  const DWORD needed = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
  if (needed == 0) return {};
  std::wstring full(needed, L'\0');
  const DWORD n = GetFullPathNameW(path.c_str(), needed, full.data(), nullptr);
  return n > 0 && n < needed ? full.substr(0, n) : std::wstring();
}

// Whether the normalised library path lies in a usable BasePath or AgentInstallDir: "..\..\bin"
// of an executable in "C:\Agent\bin" would otherwise be "C:\bin", a folder any user may create.
bool InAgentFolder(const std::wstring& library) {
  const korva::AgentFolder folders[] = {korva::AgentBaseFolder(), korva::AgentInstallFolder()};
  return std::any_of(std::begin(folders), std::end(folders), [&library](const korva::AgentFolder& folder) {
    return Usable(folder) && korva::folders::IsWithinFolder(library, FullPath(korva::win::AnsiToWide(folder.path)));
  });
}

// The library's path, derived from the executable's and normalised; empty (logged) when the
// executable's path is not fully qualified on a drive of this machine, or the library's is not in
// one of the agent's folders or is reached through a link or folder a user may change or replace.
std::wstring LibraryPath() {
  const std::wstring executable = ExecutablePath();
  const std::wstring joined = korva::tempaccess::DecryptionLibraryPath(executable);
  if (korva::folders::CheckProgramPath(std::wstring_view(executable)) != korva::folders::FolderFault::kNone) {
    KLOG_ERROR_AS(kName) << "The decryption library path [" << joined << "] is not a full local path; not loaded.";
    return {};
  }
  std::wstring full = FullPath(joined);
  if (korva::folders::CheckProgramPath(std::wstring_view(full)) != korva::folders::FolderFault::kNone ||
      !InAgentFolder(full) || !korva::FirstUnsafeStep(std::wstring_view(full)).empty() ||
      // The libraries it imports come from its folder first.
      !korva::FirstUnsafeStep(std::wstring_view(full).substr(0, full.find_last_of(L'\\'))).empty()) {
    KLOG_ERROR_AS(kName) << "The decryption library path [" << (full.empty() ? joined : full)
                         << "] is not in a folder of the agent's own; not loaded.";
    return {};
  }
  return full;
}

}  // namespace

namespace {

// One call into the library, shared by the caller and the thread that makes it: whichever of the
// two finishes last frees it.
struct DecryptionCall {
  std::wstring path;
  std::string cipher;
  std::string plain;
  bool deciphered = false;
};

// Loads the library, deciphers and frees it; the reason is logged when it fails.
bool DecipherWithLibrary(const std::wstring& path, const std::string& cipher, std::string& plain) {
  // By full path, and the DLLs it imports from its own folder or the system folder only: never
  // from the current directory or a folder on PATH (where the system can narrow the search).
  const korva::win::UniqueLibrary library(korva::win::LoadLibraryWithItsFolderFirst(path.c_str()));
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
}

DWORD WINAPI RunDecryptionCall(void* parameter) {
  const std::unique_ptr<std::shared_ptr<DecryptionCall>> owner(
      static_cast<std::shared_ptr<DecryptionCall>*>(parameter));
  DecryptionCall& call = **owner;
  call.deciphered =
      korva::log::Guarded(kName, false, [&] { return DecipherWithLibrary(call.path, call.cipher, call.plain); });
  g_callInFlight.store(false, std::memory_order_release);
  korva::win::ReleaseUnusedStack();  // Wine keeps an ended thread's stack until another thread ends
  return 0;
}

// Runs the call on a thread of its own and waits for it at most the time limit. A call that does
// not come back in time is left to finish on its own (its library stays loaded: nothing may unload
// code a thread is still running) and counts as failed.
bool DecipherWithinLimit(const std::wstring& path, const std::string& cipher, std::string& plain) {
  if (g_callInFlight.exchange(true, std::memory_order_acq_rel)) {
    KLOG_ERROR_AS(kName) << "The decryption library has not returned from an earlier call; the text is not "
                            "deciphered.";
    return false;
  }
  auto call = std::make_shared<DecryptionCall>();
  call->path = path;
  call->cipher = cipher;
  auto threadShare = std::make_unique<std::shared_ptr<DecryptionCall>>(call);
  const korva::win::UniqueHandle thread(CreateThread(nullptr, 0, RunDecryptionCall, threadShare.get(), 0, nullptr));
  if (!thread) {
    g_callInFlight.store(false, std::memory_order_release);
    korva::LogLastError(kName, "Unable to start the thread that calls the decryption library.");
    return false;
  }
  static_cast<void>(threadShare.release());
  const DWORD limit = g_timeLimitMs.load(std::memory_order_relaxed);
  if (WaitForSingleObject(thread.get(), limit) != WAIT_OBJECT_0) {
    KLOG_ERROR_AS(kName) << "The decryption library did not return within " << limit
                         << " ms; the text is not deciphered.";
    return false;
  }
  if (!call->deciphered) return false;
  plain = std::move(call->plain);
  return true;
}

}  // namespace

bool AgentUtil::ClientAuthHandlerUtil::aes256Decrypt(const std::string& cipher, std::string& plain) {
  return korva::log::ScopedGuarded(kName, false, [&] {
    plain.clear();
    const std::wstring path = LibraryPath();
    if (path.empty()) return false;
    return DecipherWithinLimit(path, cipher, plain);
  });
}

void korva::SetDecryptionTimeLimitForTest(unsigned long milliseconds) {
  g_timeLimitMs.store(milliseconds != 0 ? milliseconds : kDefaultTimeLimitMs, std::memory_order_relaxed);
}

void korva::SetDecryptionExecutablePathForTest(const std::wstring& path) {
  const std::lock_guard<std::mutex> lock(g_pathMutex);
  g_executablePathForTest = path;
}
