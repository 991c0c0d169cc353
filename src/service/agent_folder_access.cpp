// Giving the agent's base and installation folders their own access list.
#include "service/agent_folder_access.h"

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "service/core/agent_folder_rules.h"
#include "settings/agent_parameters.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "shared/core/agent_folders.h"
#include "shared/path_links.h"
#include "win/private_folder.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace korva {
namespace {

constexpr const char* kName = "SecureAgentFolders";
constexpr SECURITY_INFORMATION kOwnerAndDacl = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

std::wstring WithoutTrailingSeparators(std::wstring folder) {
  while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/')) folder.pop_back();
  return folder;
}

bool HasProtectedDacl(PSECURITY_DESCRIPTOR descriptor) {
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  return GetSecurityDescriptorControl(descriptor, &control, &revision) && (control & SE_DACL_PROTECTED) != 0;
}

PSID OwnerOf(PSECURITY_DESCRIPTOR descriptor) {
  PSID owner = nullptr;
  BOOL defaulted = FALSE;
  return GetSecurityDescriptorOwner(descriptor, &owner, &defaulted) ? owner : nullptr;
}

PACL DaclOf(PSECURITY_DESCRIPTOR descriptor) {
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  PACL dacl = nullptr;
  return GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted) && present ? dacl : nullptr;
}

// The agent's list holds "allow" entries only; any other kind of entry differs from it.
bool SameAllowedAce(PACL left, PACL right, DWORD index) {
  void* a = nullptr;
  void* b = nullptr;
  if (!GetAce(left, index, &a) || !GetAce(right, index, &b)) return false;
  const auto* x = static_cast<const ACCESS_ALLOWED_ACE*>(a);
  const auto* y = static_cast<const ACCESS_ALLOWED_ACE*>(b);
  if (x->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || y->Header.AceType != ACCESS_ALLOWED_ACE_TYPE) return false;
  return x->Header.AceFlags == y->Header.AceFlags && x->Mask == y->Mask &&
         EqualSid(const_cast<DWORD*>(&x->SidStart), const_cast<DWORD*>(&y->SidStart));
}

win::UniqueLocalMemory FolderSecurityDescriptor(const wchar_t* sddl) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr)) return {};
  return win::UniqueLocalMemory(descriptor);
}

}  // namespace

win::UniqueLocalMemory AgentFolderSecurityDescriptor() {
  return FolderSecurityDescriptor(service::kAgentFolderSecurityDescriptor);
}

bool HasAgentFolderAccess(PSECURITY_DESCRIPTOR current, PSECURITY_DESCRIPTOR wanted) {
  if (HasProtectedDacl(current) != HasProtectedDacl(wanted)) return false;
  const PSID owner = OwnerOf(current);
  const PSID wantedOwner = OwnerOf(wanted);
  if (owner == nullptr || wantedOwner == nullptr || !EqualSid(owner, wantedOwner)) return false;
  const PACL dacl = DaclOf(current);
  const PACL wantedDacl = DaclOf(wanted);
  if (dacl == nullptr || wantedDacl == nullptr || dacl->AceCount != wantedDacl->AceCount) return false;
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    if (!SameAllowedAce(dacl, wantedDacl, i)) return false;
  }
  return true;
}

namespace {

enum class Users { kReadAndExecute, kNoAccess };

constexpr DWORD kLongest = 32768;  // a long path's characters, the terminator included

std::function<void(const std::wstring&)>& BeforeFolderOpens() {
  static std::function<void(const std::wstring&)> step;
  return step;
}

// The path Windows names the folder open behind `handle` by: long names, single separators, no
// "\\?\" prefix. Empty, its error the last one, when it cannot be read.
std::wstring FinalPathOf(HANDLE handle) {
  std::wstring path(kLongest, L'\0');
  const DWORD length = GetFinalPathNameByHandleW(handle, path.data(), kLongest, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
  if (length == 0) return {};
  if (length >= kLongest) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return {};
  }
  path.resize(length);
  constexpr std::wstring_view kLocalPrefix = L"\\\\?\\";
  if (path.compare(0, kLocalPrefix.size(), kLocalPrefix) == 0) path.erase(0, kLocalPrefix.size());
  return path;
}

// `path` made full (a doubled separator or a "." step differs from the final path only in its text);
// `path` itself when that fails.
std::wstring FullPath(const std::wstring& path) {
  std::wstring full(kLongest, L'\0');
  const DWORD length = GetFullPathNameW(path.c_str(), kLongest, full.data(), nullptr);
  if (length == 0 || length >= kLongest) return path;
  full.resize(length);
  return full;
}

// The full path `full` with its 8.3 names made long; `full` itself when a step cannot be listed.
std::wstring LongPath(const std::wstring& full) {
  std::wstring longer(kLongest, L'\0');
  const DWORD longLength = GetLongPathNameW(full.c_str(), longer.data(), kLongest);
  if (longLength == 0 || longLength >= kLongest) return full;
  longer.resize(longLength);
  return longer;
}

// `path` as Windows resolves it by name: full, with long names; its full path when a step cannot be
// listed.
std::wstring LongFullPath(const std::wstring& path) { return LongPath(FullPath(path)); }

bool SamePath(const std::wstring& left, const std::wstring& right) {
  return CompareStringOrdinal(left.c_str(), static_cast<int>(left.size()), right.c_str(),
                              static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}

// Whether `path` names the folder Windows calls `finalPath`. Its 8.3 names are made long only when
// its full path differs: that lists each step, which costs more than the open itself under Wine, and
// a full path equal to the final one names the folder already.
bool NamesFolder(const std::wstring& path, const std::wstring& finalPath) {
  const std::wstring full = FullPath(path);
  return SamePath(full, finalPath) || SamePath(LongPath(full), finalPath);
}

// The folder at `path` itself, opened once: its list is judged, read and set through this handle,
// never by name again, so a folder a user swaps for a link after a check by name cannot send the
// list to what the link leads to. Held with the right to list it and without delete sharing (only
// data rights take part in sharing), it cannot be renamed meanwhile.
struct OpenedFolder {
  win::UniqueFileHandle handle;
  DWORD error = ERROR_SUCCESS;       // why it was not opened, or could not be judged
  DWORD writeError = ERROR_SUCCESS;  // why its list may not be set through the handle
  bool plain = false;                // a folder, neither a link nor a file, and the one `path` names
  std::wstring finalPath;            // as FinalPathOf names it
};

OpenedFolder OpenFolder(const std::wstring& path) {
  OpenedFolder opened;
  constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
  // The link itself, never what it leads to.
  constexpr DWORD kFlags = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT;
  constexpr DWORD kJudge = FILE_LIST_DIRECTORY | READ_CONTROL | FILE_READ_ATTRIBUTES;
  opened.handle.reset(
      CreateFileW(path.c_str(), kJudge | WRITE_DAC | WRITE_OWNER, kShare, nullptr, OPEN_EXISTING, kFlags, nullptr));
  if (!opened.handle && GetLastError() == ERROR_SHARING_VIOLATION) {
    // Someone holds the folder with no sharing: without the right to list it the open takes no part
    // in sharing, and the list is still judged and set on the one handle (a rename meanwhile is
    // caught by the final path's check).
    opened.handle.reset(CreateFileW(path.c_str(), (kJudge & ~FILE_LIST_DIRECTORY) | WRITE_DAC | WRITE_OWNER, kShare,
                                    nullptr, OPEN_EXISTING, kFlags, nullptr));
  }
  if (!opened.handle) {
    opened.writeError = GetLastError();
    // A folder the agent may read but not re-list (one of Windows' own, say) is still judged and
    // read, so it gets the same lines as ever; only setting its list then fails.
    if (opened.writeError != ERROR_ACCESS_DENIED) {
      opened.error = opened.writeError;
      return opened;
    }
    opened.handle.reset(CreateFileW(path.c_str(), kJudge, kShare, nullptr, OPEN_EXISTING, kFlags, nullptr));
    if (!opened.handle) {
      opened.error = GetLastError();
      return opened;
    }
  }
  FILE_ATTRIBUTE_TAG_INFO tag{};
  if (!GetFileInformationByHandleEx(opened.handle.get(), FileAttributeTagInfo, &tag, sizeof tag)) {
    opened.error = GetLastError();
    opened.handle.reset();
    return opened;
  }
  opened.finalPath = FinalPathOf(opened.handle.get());
  if (opened.finalPath.empty()) {
    opened.error = GetLastError();
    opened.handle.reset();
    return opened;
  }
  // Where an open follows a link despite the flag (Wine follows the host's symbolic links), what it
  // reached lies elsewhere than `path` names.
  opened.plain = (tag.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
                 (tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0 && NamesFolder(path, opened.finalPath);
  return opened;
}

// Opens the folder at `path` as OpenFolder does, after the test's step, if any.
OpenedFolder OpenFolderToSecure(const std::wstring& path) {
  if (BeforeFolderOpens()) BeforeFolderOpens()(path);
  return OpenFolder(path);
}

// Gives the folder open in `folder` the agent folders' list, or the one without Users, unless it
// has it already; `what` names it in the lines.
FolderAccess ApplyFolderAccess(const std::string& what, const OpenedFolder& folder, Users users) {
  const win::UniqueLocalMemory wanted = FolderSecurityDescriptor(
      users == Users::kNoAccess ? win::kPrivateFolderSecurityDescriptor : service::kAgentFolderSecurityDescriptor);
  if (!wanted) {
    (void)LogLastError(kName, "Building the agent folders' security descriptor failed due to the following error.");
    return FolderAccess::kFailed;
  }
  PSECURITY_DESCRIPTOR current = nullptr;
  const DWORD read =
      GetSecurityInfo(folder.handle.get(), SE_FILE_OBJECT, kOwnerAndDacl, nullptr, nullptr, nullptr, nullptr, &current);
  const win::UniqueLocalMemory currentOwner(current);
  if (read != ERROR_SUCCESS) {
    (void)LogFailedCall(kName, read, "Reading the access rules of the agent folder ", what,
                        " failed due to the following error.");
    return FolderAccess::kFailed;
  }
  if (HasAgentFolderAccess(current, wanted.get())) {
    KLOG_DEBUG_AS(kName) << "The agent folder " << what << " has its access rules already.";
    return FolderAccess::kAlreadySet;
  }
  // Protected: the parent's entries are dropped; the folder's own ones reach what it holds.
  const DWORD set =
      folder.writeError != ERROR_SUCCESS
          ? folder.writeError
          : SetSecurityInfo(folder.handle.get(), SE_FILE_OBJECT, kOwnerAndDacl | PROTECTED_DACL_SECURITY_INFORMATION,
                            OwnerOf(wanted.get()), nullptr, DaclOf(wanted.get()), nullptr);
  if (set != ERROR_SUCCESS) {
    (void)LogFailedCall(kName, set, "Setting the access rules of the agent folder ", what,
                        " failed due to the following error.");
    return FolderAccess::kFailed;
  }
  KLOG_INFO_AS(kName) << "Access rules of the agent folder " << what << " applied"
                      << (users == Users::kNoAccess ? "; users have no access." : ".");
  return FolderAccess::kApplied;
}

// The logs and data subfolders of `folder` that exist get the list without Users. A link in their
// place is not followed: its target is not the agent's to change.
bool SecurePrivateSubfolders(const std::string& folder, const std::wstring& path) {
  bool ok = true;
  for (const wchar_t* name : service::kAgentPrivateSubfolders) {
    const std::wstring sub = path + L"\\" + name;
    const std::string what =
        "[" + folder + (folder.empty() || folder.back() == '\\' ? "" : "\\") + win::WideToAnsi(name) + "]";
    const OpenedFolder opened = OpenFolderToSecure(sub);
    if (opened.error == ERROR_FILE_NOT_FOUND || opened.error == ERROR_PATH_NOT_FOUND) {
      continue;  // not made yet: the agent makes it private
    }
    if (!opened.handle) {
      (void)LogFailedCall(kName, opened.error, "Reading the access rules of the agent folder ", what,
                          " failed due to the following error.");
      ok = false;
      continue;
    }
    if (!opened.plain) {
      KLOG_ERROR_AS(kName) << "The agent folder " << what
                           << " is a link or a file, not a folder; its access rules are left as they are.";
      ok = false;
      continue;
    }
    ok = ApplyFolderAccess(what, opened, Users::kNoAccess) != FolderAccess::kFailed && ok;
  }
  return ok;
}

// Whether `folder` is one of the logs and data subfolders of `other`, or lies inside one: it then
// keeps their list, or each start would take it from the other folder's step and give it back.
bool InPrivateSubfolderOf(const std::string& folder, const std::string& other) {
  if (other.empty() || folders::CheckAgentFolder(std::string_view(other)) != folders::FolderFault::kNone) return false;
  const std::string parent = win::WideToAnsi(WithoutTrailingSeparators(win::AnsiToWide(other)));
  return std::any_of(std::begin(service::kAgentPrivateSubfolders), std::end(service::kAgentPrivateSubfolders),
                     [&](const wchar_t* name) {
                       return folders::IsSameOrWithinFolder(folder, parent + "\\" + win::WideToAnsi(name));
                     });
}

// The value of a system environment variable as the ANSI code page names it; empty when unset.
std::string EnvironmentFolder(const wchar_t* name) {
  wchar_t value[MAX_PATH] = {};
  const DWORD length = GetEnvironmentVariableW(name, value, MAX_PATH);
  return length == 0 || length >= MAX_PATH ? std::string() : win::WideToAnsi(std::wstring(value, length));
}

std::string WindowsDirectory() {
  wchar_t path[MAX_PATH] = {};
  const UINT length = GetSystemWindowsDirectoryW(path, MAX_PATH);
  return length == 0 || length >= MAX_PATH ? std::string() : win::WideToAnsi(std::wstring(path, length));
}

// Windows' own folders as this machine names them (the system's names are long names already, so
// nothing is opened for them). The system's environment names most; where a value is missing, the
// folder Windows gives it by default on the Windows folder's drive stands in.
folders::WindowsFolders WindowsOwnFolders() {
  const std::string windows = WindowsDirectory();
  const std::string drive = windows.size() >= 2 ? windows.substr(0, 2) : std::string("C:");
  const auto named = [&](const wchar_t* name, const char* fallback) {
    const std::string value = EnvironmentFolder(name);
    return value.empty() ? drive + fallback : value;
  };
  folders::WindowsFolders found;
  const std::string programData = named(L"ProgramData", "\\ProgramData");
  const std::string publicProfile = named(L"PUBLIC", "\\Users\\Public");
  found.roots = {programData,
                 named(L"ALLUSERSPROFILE", "\\ProgramData"),
                 named(L"ProgramFiles", "\\Program Files"),
                 named(L"ProgramFiles(x86)", "\\Program Files (x86)"),
                 named(L"ProgramW6432", "\\Program Files"),
                 named(L"CommonProgramFiles", "\\Program Files\\Common Files"),
                 named(L"CommonProgramFiles(x86)", "\\Program Files (x86)\\Common Files"),
                 named(L"CommonProgramW6432", "\\Program Files\\Common Files"),
                 publicProfile};
  // Where Windows keeps the profiles: a relocated public profile does not move them.
  found.users = drive + "\\Users";
  found.roots.push_back(found.users);
  found.subtrees = {windows.empty() ? drive + "\\Windows" : windows, programData + "\\Microsoft"};
  return found;
}

}  // namespace

FolderAccess SecureAgentFolder(const char* valueName, const std::string& folder, const std::string& otherFolder) {
  if (folders::CheckAgentFolder(std::string_view(folder)) != folders::FolderFault::kNone) {
    KLOG_ERROR_AS(kName) << "The agent folder " << valueName << " [" << folders::PrintableText(folder)
                         << "] is not a full local folder; its access rules are left as they are.";
    return FolderAccess::kSkipped;
  }
  const std::wstring path = WithoutTrailingSeparators(win::AnsiToWide(folder));
  const std::string named = "The agent folder " + std::string(valueName);
  constexpr const char* kLeftAlone = "its access rules are left as they are";
  // The access rules would land on whatever the link points to, a folder the agent does not own.
  // Its own list is about to be set, so only its owner is judged, and every folder above it. First:
  // nothing is opened through a link before it is refused.
  if (!NoUnsafeStepOn(kName, folder, named.c_str(), kLeftAlone, LastStep::kListAboutToBeSet)) {
    return FolderAccess::kFailed;
  }
  const auto windowsOwn = [&] {
    KLOG_ERROR_AS(kName)
        << "The agent folder " << valueName << " [" << folders::PrintableText(folder)
        << "] is a folder of Windows itself, or lies above one; its access rules are left as they are.";
    return FolderAccess::kSkipped;
  };
  // The folder was judged by name, and a user who may rename it could have put another in its
  // place since: from here on it is judged again, read and set on this one handle.
  const OpenedFolder opened = OpenFolderToSecure(path);
  const std::string what = std::string(valueName) + " [" + folder + "]";
  if (!opened.handle) {
    // Not there to be given a list: only its text can name a folder of Windows.
    if (folders::IsWindowsOwnFolder(win::WideToAnsi(LongFullPath(path)), WindowsOwnFolders())) return windowsOwn();
    (void)LogFailedCall(kName, opened.error, "Reading the access rules of the agent folder ", what,
                        " failed due to the following error.");
    return FolderAccess::kFailed;
  }
  if (!opened.plain) {
    KLOG_ERROR_AS(kName) << named << " [" << folders::PrintableText(folder) << "] is a link or a file, not a folder; "
                         << kLeftAlone << ".";
    return FolderAccess::kFailed;
  }
  if (!OpenFileIsKeptFromUsers(opened.handle.get(), LastStep::kListAboutToBeSet)) {
    LogUnsafeStep(kName, folder, win::WideToAnsi(path), named.c_str(), kLeftAlone);
    return FolderAccess::kFailed;
  }
  // As Windows names it (an 8.3 name or a doubled separator would slip past a comparison of text).
  if (folders::IsWindowsOwnFolder(win::WideToAnsi(opened.finalPath), WindowsOwnFolders())) return windowsOwn();
  const Users users = InPrivateSubfolderOf(folder, otherFolder) ? Users::kNoAccess : Users::kReadAndExecute;
  const FolderAccess access = ApplyFolderAccess(what, opened, users);
  if (access == FolderAccess::kFailed) return access;
  return SecurePrivateSubfolders(folder, path) ? access : FolderAccess::kFailed;
}

bool SecureAgentFolders() {
  return log::ScopedGuarded(kName, false, [] {
    const std::string base = BasePathText();
    const std::string install = AgentInstallDirGlobal;
    const bool baseOk = SecureAgentFolder("BasePath", base, install) != FolderAccess::kFailed;
    const bool installOk = SecureAgentFolder("AgentInstallDir", install, base) != FolderAccess::kFailed;
    return baseOk && installOk;
  });
}

void SetBeforeAgentFolderOpensForTest(std::function<void(const std::wstring&)> step) {
  BeforeFolderOpens() = std::move(step);
}

}  // namespace korva
