// Giving the agent's base and installation folders their own access list.
#include "service/agent_folder_access.h"

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <vector>

#include "service/core/agent_folder_rules.h"
#include "settings/agent_parameters.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "shared/core/agent_folders.h"
#include "win/private_folder.h"
#include "win/strings.h"
#include "win/thread_name.h"

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

// Gives the folder at `path` the agent folders' list, or the one without Users, unless it has it
// already; `what` names it in the lines.
FolderAccess ApplyFolderAccess(const std::string& what, const std::wstring& path, Users users) {
  const win::UniqueLocalMemory wanted = FolderSecurityDescriptor(
      users == Users::kNoAccess ? win::kPrivateFolderSecurityDescriptor : service::kAgentFolderSecurityDescriptor);
  if (!wanted) {
    (void)LogLastError(kName, "Building the agent folders' security descriptor failed due to the following error.");
    return FolderAccess::kFailed;
  }
  PSECURITY_DESCRIPTOR current = nullptr;
  const DWORD read =
      GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, kOwnerAndDacl, nullptr, nullptr, nullptr, nullptr, &current);
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
  std::wstring writable = path;
  const DWORD set =
      SetNamedSecurityInfoW(writable.data(), SE_FILE_OBJECT, kOwnerAndDacl | PROTECTED_DACL_SECURITY_INFORMATION,
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

// How far the walk of a private subfolder goes: entries looked at, and levels below it.
constexpr std::size_t kMaxPrivateEntries = 4096;
constexpr int kMaxPrivateDepth = 8;

bool IsAgentAccount(PSID sid) {
  return sid != nullptr && (IsWellKnownSid(sid, WinLocalSystemSid) || IsWellKnownSid(sid, WinBuiltinAdministratorsSid));
}

// Whether SYSTEM or Administrators own the entry and only they are let in (allow entries only: a
// deny entry could shut the agent out of its own file).
bool OnlyAgentAccounts(PSECURITY_DESCRIPTOR descriptor) {
  const PACL dacl = DaclOf(descriptor);
  if (!IsAgentAccount(OwnerOf(descriptor)) || dacl == nullptr) return false;  // a null list lets everyone in
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    void* ace = nullptr;
    if (!GetAce(dacl, i, &ace)) return false;
    const auto* allowed = static_cast<const ACCESS_ALLOWED_ACE*>(ace);
    if (allowed->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || !IsAgentAccount(const_cast<DWORD*>(&allowed->SidStart))) {
      return false;
    }
  }
  return true;
}

// One entry inside a private subfolder, opened itself (a link is not followed). An entry a user made
// before the folder was private may keep an owner or a protected list of its own that lets the user
// open it by its full path: it gets the folder's list. A link, or a file that has other names that
// may lie outside the agent's folders, is left as it is and logged (false). `isFolder` tells the
// walk whether to go into it.
bool SecurePrivateEntry(const std::wstring& path, PSECURITY_DESCRIPTOR wanted, bool& isFolder) {
  isFolder = false;
  const std::string what = "[" + win::WideToAnsi(path) + "]";
  const win::UniqueFileHandle entry(
      CreateFileW(path.c_str(), READ_CONTROL | WRITE_DAC | WRITE_OWNER | FILE_READ_ATTRIBUTES,
                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                  FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  BY_HANDLE_FILE_INFORMATION info{};
  if (!entry || !GetFileInformationByHandle(entry.get(), &info)) {
    (void)LogLastError(kName, "Opening ", what, " in a private agent folder failed due to the following error.");
    return false;
  }
  const bool folder = (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 || (!folder && info.nNumberOfLinks > 1)) {
    KLOG_ERROR_AS(kName) << what << " in a private agent folder is a link or has other names; its access rules "
                         << "are left as they are.";
    return false;
  }
  isFolder = folder;
  PSECURITY_DESCRIPTOR current = nullptr;
  const DWORD read =
      GetSecurityInfo(entry.get(), SE_FILE_OBJECT, kOwnerAndDacl, nullptr, nullptr, nullptr, nullptr, &current);
  const win::UniqueLocalMemory currentOwner(current);
  if (read == ERROR_SUCCESS && OnlyAgentAccounts(current)) return true;
  const DWORD set = SetSecurityInfo(entry.get(), SE_FILE_OBJECT, kOwnerAndDacl | PROTECTED_DACL_SECURITY_INFORMATION,
                                    OwnerOf(wanted), nullptr, DaclOf(wanted), nullptr);
  if (set != ERROR_SUCCESS) {
    (void)LogFailedCall(kName, set, "Setting the access rules of ", what,
                        " in a private agent folder failed due to the following error.");
    return false;
  }
  KLOG_INFO_AS(kName) << "Access rules of " << what << " in a private agent folder applied; users have no access.";
  return true;
}

// Gives every entry below the private subfolder `path` the folder's list where users could open it;
// `seen` counts the entries across the walk. False when any entry was left as it was.
bool SecurePrivateContents(const std::wstring& path, PSECURITY_DESCRIPTOR wanted, int depth, std::size_t& seen) {
  WIN32_FIND_DATAW found{};
  const win::UniqueFindFile find(
      FindFirstFileExW((path + L"\\*").c_str(), FindExInfoBasic, &found, FindExSearchNameMatch, nullptr, 0));
  if (!find) return true;  // empty, or gone since
  bool ok = true;
  do {
    const std::wstring name = found.cFileName;
    if (name == L"." || name == L"..") continue;
    if (++seen > kMaxPrivateEntries) {
      KLOG_WARNING_AS(kName) << "More than " << kMaxPrivateEntries << " entries in the private agent folders; the "
                             << "rest keep their access rules.";
      return false;
    }
    bool isFolder = false;
    ok = SecurePrivateEntry(path + L"\\" + name, wanted, isFolder) && ok;
    if (isFolder && depth < kMaxPrivateDepth)
      ok = SecurePrivateContents(path + L"\\" + name, wanted, depth + 1, seen) && ok;
  } while (FindNextFileW(find.get(), &found));
  return ok;
}

// The logs and data subfolders of `folder` that exist get the list without Users; those that have
// it are added to `secured`. A link in their place is not followed: its target is not the agent's
// to change.
bool SecurePrivateSubfolders(const std::string& folder, const std::wstring& path, std::vector<std::wstring>& secured) {
  bool ok = true;
  for (const wchar_t* name : service::kAgentPrivateSubfolders) {
    const std::wstring sub = path + L"\\" + name;
    const std::string what =
        "[" + folder + (folder.empty() || folder.back() == '\\' ? "" : "\\") + win::WideToAnsi(name) + "]";
    const DWORD attributes = GetFileAttributesW(sub.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) continue;  // not made yet: the agent makes it private
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      KLOG_ERROR_AS(kName) << "The agent folder " << what
                           << " is a link or a file, not a folder; its access rules are left as they are.";
      ok = false;
      continue;
    }
    if (ApplyFolderAccess(what, sub, Users::kNoAccess) == FolderAccess::kFailed) {
      ok = false;
      continue;
    }
    secured.push_back(sub);
  }
  return ok;
}

// The walk of the private subfolders' contents, on a thread of its own: opening an entry that a
// user still holds with an opportunistic lock waits until the user lets go, and the start-up must
// not wait for that.
DWORD WINAPI SecurePrivateContentsThread(LPVOID parameter) {
  const std::unique_ptr<std::vector<std::wstring>> folders(static_cast<std::vector<std::wstring>*>(parameter));
  win::NameCurrentThread(L"SecurePrivateContents");
  log::GuardedVoid(kName, [&folders] {
    const win::UniqueLocalMemory wanted = FolderSecurityDescriptor(win::kPrivateFolderSecurityDescriptor);
    if (!wanted) return;
    std::size_t seen = 0;
    for (const std::wstring& folder : *folders) (void)SecurePrivateContents(folder, wanted.get(), 1, seen);
  });
  return 0;
}

void SecurePrivateContentsInBackground(std::vector<std::wstring> folders, unsigned long waitMs) {
  if (folders.empty()) return;
  auto owned = std::make_unique<std::vector<std::wstring>>(std::move(folders));
  const win::UniqueHandle thread(CreateThread(nullptr, 0, SecurePrivateContentsThread, owned.get(), 0, nullptr));
  if (!thread) {
    (void)LogLastError(kName, "Starting the walk of the private agent folders failed due to the following error.");
    return;
  }
  (void)owned.release();  // the thread owns the list now
  if (waitMs != 0 && WaitForSingleObject(thread.get(), waitMs) != WAIT_OBJECT_0) {
    KLOG_WARNING_AS(kName) << "The walk of the private agent folders is still running; it is not waited for.";
  }
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

}  // namespace

FolderAccess SecureAgentFolder(const char* valueName, const std::string& folder, const std::string& otherFolder,
                               std::vector<std::wstring>* securedSubfolders) {
  if (folders::CheckAgentFolder(std::string_view(folder)) != folders::FolderFault::kNone) {
    KLOG_ERROR_AS(kName) << "The agent folder " << valueName << " [" << folders::PrintableText(folder)
                         << "] is not a full local folder; its access rules are left as they are.";
    return FolderAccess::kSkipped;
  }
  const std::wstring path = WithoutTrailingSeparators(win::AnsiToWide(folder));
  const Users users = InPrivateSubfolderOf(folder, otherFolder) ? Users::kNoAccess : Users::kReadAndExecute;
  const FolderAccess access = ApplyFolderAccess(std::string(valueName) + " [" + folder + "]", path, users);
  if (access == FolderAccess::kFailed) return access;
  std::vector<std::wstring> secured;
  const bool ok = SecurePrivateSubfolders(folder, path, secured);
  if (securedSubfolders != nullptr) securedSubfolders->insert(securedSubfolders->end(), secured.begin(), secured.end());
  return ok ? access : FolderAccess::kFailed;
}

bool SecureAgentFolders(unsigned long contentsWaitMs) {
  return log::ScopedGuarded(kName, false, [contentsWaitMs] {
    const std::string base = BasePathText();
    const std::string install = AgentInstallDirGlobal;
    std::vector<std::wstring> secured;
    const bool baseOk = SecureAgentFolder("BasePath", base, install, &secured) != FolderAccess::kFailed;
    const bool installOk = SecureAgentFolder("AgentInstallDir", install, base, &secured) != FolderAccess::kFailed;
    SecurePrivateContentsInBackground(std::move(secured), contentsWaitMs);
    return baseOk && installOk;
  });
}

}  // namespace korva
