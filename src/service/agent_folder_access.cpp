// Giving the agent's base and installation folders their own access list.
#include "service/agent_folder_access.h"

#include <aclapi.h>
#include <sddl.h>
#include <winternl.h>

#include <algorithm>
#include <iterator>

#include "service/core/agent_folder_rules.h"
#include "settings/agent_parameters.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "shared/core/agent_folders.h"
#include "win/private_folder.h"
#include "win/procedure.h"
#include "win/strings.h"

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

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Where a folder is: a full path (an agent folder, opened as named: an administrator may have made
// it a link), or an entry of a folder already open (a private subfolder, opened itself even when it
// is a link, and found from that handle rather than by its full path, so no folder on the way to it
// can be swapped for a link).
struct FolderPlace {
  HANDLE parent;  // null: `name` is a full path
  std::wstring name;
};

// Opens an entry of `parent` through NtCreateFile; null with the error as the last one.
win::UniqueFileHandle OpenEntry(HANDLE parent, const std::wstring& name, DWORD access, ULONG options) {
  using NtCreateFileFn = decltype(&NtCreateFile);
  using RtlNtStatusToDosErrorFn = decltype(&RtlNtStatusToDosError);
  const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  const auto create = win::LookUpProcedure<NtCreateFileFn>(ntdll, "NtCreateFile");
  const auto toError = win::LookUpProcedure<RtlNtStatusToDosErrorFn>(ntdll, "RtlNtStatusToDosError");
  if (create == nullptr || toError == nullptr) {
    SetLastError(ERROR_PROC_NOT_FOUND);
    return {};
  }
  std::wstring text = name;
  const auto bytes = static_cast<USHORT>(text.size() * sizeof(wchar_t));
  UNICODE_STRING unicode{bytes, bytes, text.data()};
  OBJECT_ATTRIBUTES attributes{};
  InitializeObjectAttributes(&attributes, &unicode, OBJ_CASE_INSENSITIVE, parent, nullptr);
  IO_STATUS_BLOCK io{};
  HANDLE entry = nullptr;
  const NTSTATUS status = create(
      &entry, access, &attributes, &io, nullptr, 0, kShareAll, FILE_OPEN,
      options | FILE_OPEN_REPARSE_POINT | FILE_OPEN_FOR_BACKUP_INTENT | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  if (status < 0) {
    SetLastError(toError(status));
    return {};
  }
  return win::UniqueFileHandle(entry);
}

// Opens the folder at `place` with `access` besides its attributes. Without more (`access` 0) the
// open never breaks an opportunistic lock a user holds on a file in a subfolder's place, so it never
// waits for the user; with more, a subfolder opens only as a folder.
win::UniqueFileHandle OpenFolder(const FolderPlace& place, DWORD access) {
  access |= FILE_READ_ATTRIBUTES | SYNCHRONIZE;
  if (place.parent != nullptr) {
    return OpenEntry(place.parent, place.name, access,
                     access == (FILE_READ_ATTRIBUTES | SYNCHRONIZE) ? 0 : FILE_DIRECTORY_FILE);
  }
  return win::UniqueFileHandle(
      CreateFileW(place.name.c_str(), access, kShareAll, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

// Whether the two handles are open on the same file or folder.
bool SameObject(HANDLE one, HANDLE other) {
  BY_HANDLE_FILE_INFORMATION a{};
  BY_HANDLE_FILE_INFORMATION b{};
  return GetFileInformationByHandle(one, &a) && GetFileInformationByHandle(other, &b) &&
         a.dwVolumeSerialNumber == b.dwVolumeSerialNumber && a.nFileIndexHigh == b.nFileIndexHigh &&
         a.nFileIndexLow == b.nFileIndexLow;
}

FolderAccess ReadFailed(const std::string& what, DWORD error) {
  (void)LogFailedCall(kName, error, "Reading the access rules of the agent folder ", what,
                      " failed due to the following error.");
  return FolderAccess::kFailed;
}

FolderAccess SetFailed(const std::string& what, DWORD error) {
  (void)LogFailedCall(kName, error, "Setting the access rules of the agent folder ", what,
                      " failed due to the following error.");
  return FolderAccess::kFailed;
}

FolderAccess Changed(const std::string& what) {
  KLOG_ERROR_AS(kName) << "The agent folder " << what
                       << " changed while its access rules were applied; they are left as they are.";
  return FolderAccess::kFailed;
}

// Gives the folder at `place`, which `looked` is open on, the agent folders' list, or the one
// without Users, unless it has it already; `what` names it in the lines. The list is read through
// one handle and set through another, with the right to change it only when it has to change;
// each must be open on the folder looked at.
FolderAccess ApplyFolderAccess(const std::string& what, const FolderPlace& place, HANDLE looked, Users users) {
  const win::UniqueLocalMemory wanted = FolderSecurityDescriptor(
      users == Users::kNoAccess ? win::kPrivateFolderSecurityDescriptor : service::kAgentFolderSecurityDescriptor);
  if (!wanted) {
    (void)LogLastError(kName, "Building the agent folders' security descriptor failed due to the following error.");
    return FolderAccess::kFailed;
  }
  const win::UniqueFileHandle reader = OpenFolder(place, READ_CONTROL);
  if (!reader) return ReadFailed(what, GetLastError());
  if (!SameObject(looked, reader.get())) return Changed(what);
  PSECURITY_DESCRIPTOR current = nullptr;
  const DWORD read =
      GetSecurityInfo(reader.get(), SE_FILE_OBJECT, kOwnerAndDacl, nullptr, nullptr, nullptr, nullptr, &current);
  const win::UniqueLocalMemory currentOwner(current);
  if (read != ERROR_SUCCESS) return ReadFailed(what, read);
  if (HasAgentFolderAccess(current, wanted.get())) {
    KLOG_DEBUG_AS(kName) << "The agent folder " << what << " has its access rules already.";
    return FolderAccess::kAlreadySet;
  }
  // SetSecurityInfo reads the list it replaces too.
  const win::UniqueFileHandle writer = OpenFolder(place, READ_CONTROL | WRITE_DAC | WRITE_OWNER);
  if (!writer) return SetFailed(what, GetLastError());
  if (!SameObject(looked, writer.get())) return Changed(what);
  // Protected: the parent's entries are dropped; the folder's own ones reach what it holds.
  const DWORD set = SetSecurityInfo(writer.get(), SE_FILE_OBJECT, kOwnerAndDacl | PROTECTED_DACL_SECURITY_INFORMATION,
                                    OwnerOf(wanted.get()), nullptr, DaclOf(wanted.get()), nullptr);
  if (set != ERROR_SUCCESS) return SetFailed(what, set);
  KLOG_INFO_AS(kName) << "Access rules of the agent folder " << what << " applied"
                      << (users == Users::kNoAccess ? "; users have no access." : ".");
  return FolderAccess::kApplied;
}

// The logs and data subfolders of the folder open as `folder` (`text` in the lines) that exist get
// the list without Users. A link or a file in their place is left as it is: a link's target is not
// the agent's to change, and a file is never opened for more than its attributes, so a user's
// opportunistic lock on it cannot hold the start-up.
bool SecurePrivateSubfolders(const std::string& text, HANDLE folder) {
  bool ok = true;
  for (const wchar_t* name : service::kAgentPrivateSubfolders) {
    const std::string what =
        "[" + text + (text.empty() || text.back() == '\\' ? "" : "\\") + win::WideToAnsi(name) + "]";
    const FolderPlace place{folder, name};
    const win::UniqueFileHandle sub = OpenFolder(place, 0);
    if (!sub) {
      const DWORD error = GetLastError();
      if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) continue;  // the agent makes it private
      (void)ReadFailed(what, error);
      ok = false;
      continue;
    }
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(sub.get(), &info)) {
      (void)ReadFailed(what, GetLastError());
      ok = false;
      continue;
    }
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ||
        (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      KLOG_ERROR_AS(kName) << "The agent folder " << what
                           << " is a link or a file, not a folder; its access rules are left as they are.";
      ok = false;
      continue;
    }
    ok = ApplyFolderAccess(what, place, sub.get(), Users::kNoAccess) != FolderAccess::kFailed && ok;
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

}  // namespace

FolderAccess SecureAgentFolder(const char* valueName, const std::string& folder, const std::string& otherFolder) {
  if (folders::CheckAgentFolder(std::string_view(folder)) != folders::FolderFault::kNone) {
    KLOG_ERROR_AS(kName) << "The agent folder " << valueName << " [" << folders::PrintableText(folder)
                         << "] is not a full local folder; its access rules are left as they are.";
    return FolderAccess::kSkipped;
  }
  const std::wstring path = WithoutTrailingSeparators(win::AnsiToWide(folder));
  const Users users = InPrivateSubfolderOf(folder, otherFolder) ? Users::kNoAccess : Users::kReadAndExecute;
  const std::string what = std::string(valueName) + " [" + folder + "]";
  const FolderPlace place{nullptr, path};
  const win::UniqueFileHandle opened = OpenFolder(place, 0);
  if (!opened) return ReadFailed(what, GetLastError());
  const FolderAccess access = ApplyFolderAccess(what, place, opened.get(), users);
  if (access == FolderAccess::kFailed) return access;
  return SecurePrivateSubfolders(folder, opened.get()) ? access : FolderAccess::kFailed;
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

}  // namespace korva
