// Walking a path's steps for links a user may re-point.
#include "shared/path_links.h"

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include "shared/core/agent_folders.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace korva {
namespace {

// NT SERVICE\TrustedInstaller, which owns Windows' own folders.
constexpr const wchar_t* kTrustedInstallerSid = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

bool IsTrustedInstaller(PSID sid) {
  PSID trusted = nullptr;
  if (!ConvertStringSidToSidW(kTrustedInstallerSid, &trusted)) return false;
  const win::UniqueLocalMemory owned(trusted);
  return EqualSid(sid, trusted) != FALSE;
}

bool IsTrustedOwner(PSID owner) {
  return IsWellKnownSid(owner, WinLocalSystemSid) || IsWellKnownSid(owner, WinBuiltinAdministratorsSid) ||
         IsTrustedInstaller(owner);
}

// Whether the link at `step` itself (not what it points to) is owned by SYSTEM, the
// Administrators or TrustedInstaller.
bool LinkHasTrustedOwner(const std::wstring& step) {
  const win::UniqueFileHandle link(
      CreateFileW(step.c_str(), READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!link) return false;
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetSecurityInfo(link.get(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                      &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  const win::UniqueLocalMemory owned(descriptor);
  return owner != nullptr && IsTrustedOwner(owner);
}

enum class Step { kPlain, kMissing, kForeign };

Step Classify(const std::wstring& step) {
  const DWORD attributes = GetFileAttributesW(step.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    // Missing, or on a drive without media: nothing there to follow. Anything else (access
    // refused to SYSTEM, say) leaves the step unchecked, and so not the agent's.
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_NOT_READY ||
                   error == ERROR_INVALID_DRIVE
               ? Step::kMissing
               : Step::kForeign;
  }
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return Step::kPlain;
  return LinkHasTrustedOwner(step) ? Step::kPlain : Step::kForeign;
}

}  // namespace

std::wstring FirstForeignLink(std::wstring_view path) {
  for (const std::wstring& step : folders::PathSteps(path)) {
    switch (Classify(step)) {
      case Step::kPlain:
        continue;
      case Step::kMissing:
        return {};
      case Step::kForeign:
        return step;
    }
  }
  return {};
}

std::string FirstForeignLink(std::string_view path) { return win::WideToAnsi(FirstForeignLink(win::AnsiToWide(path))); }

}  // namespace korva
