// Walking a path's steps for links a user may re-point.
#include "shared/path_links.h"

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include "settings/log.h"
#include "shared/core/agent_folders.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace korva {
namespace {

// NT SERVICE\TrustedInstaller, which owns Windows' own folders.
constexpr const wchar_t* kTrustedInstallerSid = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

bool IsTrustedInstaller(PSID sid) {
  static const win::UniqueLocalMemory trusted = [] {
    PSID made = nullptr;
    return win::UniqueLocalMemory(ConvertStringSidToSidW(kTrustedInstallerSid, &made) ? made : nullptr);
  }();
  return trusted && EqualSid(sid, trusted.get()) != FALSE;
}

bool IsTrustedOwner(PSID owner) {
  return IsWellKnownSid(owner, WinLocalSystemSid) || IsWellKnownSid(owner, WinBuiltinAdministratorsSid) ||
         IsTrustedInstaller(owner);
}

// Whether the link at `step` itself (not what it points to) is owned by SYSTEM, the
// Administrators or TrustedInstaller.
bool LinkHasTrustedOwner(const wchar_t* step) {
  const win::UniqueFileHandle link(
      CreateFileW(step, READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                  FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
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

// `step` is the path up to its first NUL.
Step Classify(const wchar_t* step) {
  const DWORD attributes = GetFileAttributesW(step);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    // Missing: nothing there to follow. Anything else (access refused to SYSTEM, a drive without
    // its media, which a stick a user plugs in may fill) leaves the step unchecked, and so not the
    // agent's.
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? Step::kMissing : Step::kForeign;
  }
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return Step::kPlain;
  return LinkHasTrustedOwner(step) ? Step::kPlain : Step::kForeign;
}

}  // namespace

std::wstring FirstForeignLink(std::wstring_view path) {
  // One buffer for every step, each cut off in place: a path of thousands of steps costs its length.
  std::wstring step(path);
  for (const std::size_t end : folders::PathStepEnds(path)) {
    const wchar_t cut = step[end];
    step[end] = L'\0';
    const Step kind = Classify(step.c_str());
    step[end] = cut;
    if (kind == Step::kMissing) return {};
    if (kind == Step::kForeign) return std::wstring(path.substr(0, end));
  }
  return {};
}

std::string FirstForeignLink(std::string_view path) { return win::WideToAnsi(FirstForeignLink(win::AnsiToWide(path))); }

bool NoForeignLinkOn(const char* function, const std::string& path, const char* what, const char* consequence) {
  const std::string link = FirstForeignLink(std::string_view(path));
  if (link.empty()) return true;
  KLOG_ERROR_AS(function) << what << " [" << folders::PrintableText(path) << "] is reached through the link ["
                          << folders::PrintableText(link)
                          << "], which is not owned by SYSTEM, the Administrators group or TrustedInstaller; "
                          << consequence << ".";
  return false;
}

}  // namespace korva
