// Walking a path's steps for links and folders a user may change or replace.
#include "shared/path_links.h"

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <atomic>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "settings/log.h"
#include "shared/core/agent_folders.h"
#include "shared/volume_probe.h"
#include "win/procedure.h"
#include "win/reparse_points.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace korva {
namespace {

// NT SERVICE\TrustedInstaller, which owns Windows' own folders.
constexpr const wchar_t* kTrustedInstallerSid = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";
// How long a step found sound is taken as sound.
constexpr ULONGLONG kSoundForMs = 30000;
// More remembered steps than any run of the agent uses: past it, the memory starts again.
constexpr std::size_t kMaxSoundSteps = 512;

// What a walk reads once is never freed: the log's retries walk paths on a thread that outlives the
// static objects' destruction at the process's end.
bool IsTrustedInstaller(PSID sid) {
  static const PSID trusted = [] {
    PSID made = nullptr;
    return ConvertStringSidToSidW(kTrustedInstallerSid, &made) ? made : nullptr;
  }();
  return trusted != nullptr && EqualSid(sid, trusted) != FALSE;
}

bool IsWindowsOwn(PSID sid) {
  return IsWellKnownSid(sid, WinLocalSystemSid) || IsWellKnownSid(sid, WinBuiltinAdministratorsSid) ||
         IsTrustedInstaller(sid);
}

// The account this process runs as (SYSTEM for the service); null when it cannot be read.
PSID OwnAccount() {
  static const std::vector<BYTE>* const user = [] {
    auto* const buffer = new std::vector<BYTE>;
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return buffer;
    const win::UniqueHandle owned(token);
    DWORD size = 0;
    (void)GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    buffer->resize(size);
    if (size == 0 || !GetTokenInformation(token, TokenUser, buffer->data(), size, &size)) buffer->clear();
    return buffer;
  }();
  return user->empty() ? nullptr : reinterpret_cast<const TOKEN_USER*>(user->data())->User.Sid;
}

// What lets a user replace a step or what it leads to: changing its list or owner, deleting what
// it holds; for a folder on the way also deleting or renaming it; at the path's end also writing,
// adding to it or changing its attributes.
ACCESS_MASK DangerousRights(StepFacts facts) {
  ACCESS_MASK rights = WRITE_DAC | WRITE_OWNER | GENERIC_ALL | FILE_DELETE_CHILD;
  if (!facts.root) rights |= DELETE;
  if (facts.last) rights |= GENERIC_WRITE | FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_ATTRIBUTES;
  return rights;
}

bool ListKeepsOthersOut(PACL dacl, PSID ownAccount, StepFacts facts) {
  if (dacl == nullptr) return false;  // no list: everyone may do anything
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    void* entry = nullptr;
    if (!GetAce(dacl, i, &entry)) return false;
    const auto* header = static_cast<const ACE_HEADER*>(entry);
    if ((header->AceFlags & INHERIT_ONLY_ACE) != 0) continue;  // for what is made inside, not for the step
    if (header->AceType == ACCESS_DENIED_ACE_TYPE) continue;
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE) return false;  // a kind the agent does not read
    const auto* allowed = static_cast<const ACCESS_ALLOWED_ACE*>(entry);
    PSID sid = const_cast<DWORD*>(&allowed->SidStart);
    const bool trusted = IsWindowsOwn(sid) || IsWellKnownSid(sid, WinCreatorOwnerRightsSid) ||
                         (ownAccount != nullptr && EqualSid(sid, ownAccount));
    if (!trusted && (allowed->Mask & DangerousRights(facts)) != 0) return false;
  }
  return true;
}

}  // namespace

bool StepIsKeptFromUsers(PSECURITY_DESCRIPTOR descriptor, PSID ownAccount, StepFacts facts) {
  PSID owner = nullptr;
  BOOL defaulted = FALSE;
  if (!GetSecurityDescriptorOwner(descriptor, &owner, &defaulted) || owner == nullptr) return false;
  if (!IsWindowsOwn(owner) && (ownAccount == nullptr || !EqualSid(owner, ownAccount))) return false;
  if (!facts.judgeList) return true;
  BOOL present = FALSE;
  PACL dacl = nullptr;
  if (!GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted)) return false;
  return ListKeepsOthersOut(present ? dacl : nullptr, ownAccount, facts);
}

namespace {

// What one read of a step's security found it sound for; a role it failed is read again when asked.
using Role = unsigned;
constexpr Role kAsRoot = 1;
constexpr Role kOnTheWay = 2;
constexpr Role kAsEnd = 4;
constexpr Role kAsEndAboutToBeListed = 8;

Role RoleOf(StepFacts facts) {
  if (facts.root) return kAsRoot;
  if (!facts.last) return kOnTheWay;
  return facts.judgeList ? kAsEnd : kAsEndAboutToBeListed;
}

// Which file or folder a step is, by its index on its volume (a step on another volume would be
// reached through a mount point, a link, which no walk passes): a verdict holds for that object only.
// A user who makes a folder of their own under the name of one an administrator removed gets a
// folder the agent never judged. 0 for a root, remembered by name, as no user can replace one.
using Identity = ULONGLONG;

struct Sound {
  ULONGLONG until = 0;
  Role roles = 0;
  Identity identity = 0;
};

// Never destroyed: the log's retries walk paths on a thread that outlives the process's static objects.
struct SoundSteps {
  std::mutex mutex;
  std::unordered_map<std::wstring, Sound> steps;
};

SoundSteps& Remembered() {
  static auto* const remembered = new SoundSteps;
  return *remembered;
}

bool RememberedSound(const std::wstring& step, Role role, Identity identity) {
  SoundSteps& remembered = Remembered();
  const std::lock_guard<std::mutex> lock(remembered.mutex);
  const auto found = remembered.steps.find(step);
  return found != remembered.steps.end() && GetTickCount64() < found->second.until &&
         (found->second.roles & role) != 0 && found->second.identity == identity;
}

void RememberSound(const std::wstring& step, Role roles, Identity identity) {
  // The end about to be listed is judged by its owner alone: users who may rename it could put a
  // folder of their own in its place, so that verdict is kept only for a step sound on the way too.
  if ((roles & kOnTheWay) == 0) roles &= ~kAsEndAboutToBeListed;
  SoundSteps& remembered = Remembered();
  const std::lock_guard<std::mutex> lock(remembered.mutex);
  if (roles == 0) {
    remembered.steps.erase(step);  // read again and found sound for nothing: an older verdict no longer holds
    return;
  }
  if (remembered.steps.size() >= kMaxSoundSteps) remembered.steps.clear();
  remembered.steps[step] = Sound{GetTickCount64() + kSoundForMs, roles, identity};
}

// How many times a walk has read a step's security (see StepSecurityReadsForTest).
std::atomic<std::size_t> g_securityReads{0};

// The roles the security of the step open behind `handle` (with READ_CONTROL) makes it sound for,
// from one read (a root is judged as a root only); none when it cannot be read.
Role SoundRoles(HANDLE handle, bool root) {
  g_securityReads.fetch_add(1, std::memory_order_relaxed);
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetSecurityInfo(handle, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr, nullptr,
                      nullptr, nullptr, &descriptor) != ERROR_SUCCESS) {
    return 0;
  }
  const win::UniqueLocalMemory owned(descriptor);
  const PSID account = OwnAccount();
  if (root) return StepIsKeptFromUsers(descriptor, account, StepFacts{true, false, true}) ? kAsRoot : 0U;
  Role roles = 0;
  for (const StepFacts facts :
       {StepFacts{false, false, true}, StepFacts{false, true, true}, StepFacts{false, true, false}}) {
    if (StepIsKeptFromUsers(descriptor, account, facts)) roles |= RoleOf(facts);
  }
  return roles;
}

// The index of the file or folder open behind `handle` on its volume (FileInternalInformation): one
// cheap query, where GetFileInformationByHandle also reads the volume's details. 0 when it cannot
// be read.
Identity FileIndexOf(HANDLE handle) {
  struct IoStatus {
    union {
      LONG status;
      void* pointer;
    };
    ULONG_PTR information;
  };
  using NtQueryInformationFileFn = LONG(NTAPI*)(HANDLE, IoStatus*, void*, ULONG, int);
  constexpr int kFileInternalInformation = 6;
  static const auto query =
      win::LookUpProcedure<NtQueryInformationFileFn>(GetModuleHandleW(L"ntdll.dll"), "NtQueryInformationFile");
  LARGE_INTEGER index{};
  IoStatus io{};
  if (query == nullptr || query(handle, &io, &index, sizeof index, kFileInternalInformation) < 0) return 0;
  return static_cast<Identity>(index.QuadPart);
}

// `step` opened for its security and its identity, the link itself when it is one.
win::UniqueFileHandle OpenStep(const wchar_t* step) {
  return win::UniqueFileHandle(
      CreateFileW(step, READ_CONTROL | FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                  nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

}  // namespace

bool OpenFileIsKeptFromUsers(HANDLE file, LastStep last) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr, nullptr,
                      nullptr, nullptr, &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  const win::UniqueLocalMemory owned(descriptor);
  return StepIsKeptFromUsers(descriptor, OwnAccount(), StepFacts{false, true, last != LastStep::kListAboutToBeSet});
}

bool OpenFileIsAgentsOwn(HANDLE file, FileUse use) {
  BY_HANDLE_FILE_INFORMATION facts{};
  if (!GetFileInformationByHandle(file, &facts) || facts.nNumberOfLinks != 1) return false;
  const bool reparse = (facts.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  if (reparse && (use == FileUse::kWritten || win::OpenReparsePointRedirects(file))) return false;
  return OpenFileIsKeptFromUsers(file);
}

namespace {

std::atomic<VolumeProbe*> g_rootProbeForTest{nullptr};

// The letter of the drive Windows runs from; 0 when it cannot be had.
wchar_t SystemDriveLetter() {
  static const wchar_t letter = [] {
    wchar_t folder[MAX_PATH] = {};
    const UINT n = GetSystemWindowsDirectoryW(folder, MAX_PATH);
    return n >= 3 && n < MAX_PATH && folder[1] == L':' ? folder[0] : L'\0';
  }();
  return letter;
}

// The drives' doubts already told. Never destroyed: a walk may run on a thread that outlives static
// destruction.
struct DriveDoubtsTold {
  std::mutex mutex;
  std::set<std::pair<wchar_t, folders::DriveDoubt>> doubts;  // 26 letters by 4 doubts at most
};

DriveDoubtsTold* Told() {
  static auto* const told = new DriveDoubtsTold;
  return told;
}

// Names why a drive's folders are not trusted, once per drive and reason: every path on it is then
// refused with a line of its own, which cannot say why. Before the log is open (the start-up judges
// the log's own folder first) nothing is noted, so the line comes with the first refusal it can reach.
void TellDoubtOnce(wchar_t letter, folders::DriveDoubt doubt) {
  if (!log::Enabled(log::kWarning)) return;
  DriveDoubtsTold* const told = Told();
  try {
    const std::lock_guard lock(told->mutex);
    if (!told->doubts.emplace(letter, doubt).second) return;
  } catch (...) {  // no memory for the note: the line goes out all the same
  }
  KLOG_WARNING_AS("FirstUnsafeStep") << "The drive " << static_cast<char>(letter) << ":\\ is not trusted to keep the "
                                     << "agent's folders from users: " << folders::DoubtText(doubt) << ".";
}

// A drive whose folders keep access lists: a fixed one with a file system that stores them, on
// disks no user can bring (see DoubtAboutDrive). A stick a user plugs in carries whatever
// owners and lists that user wrote, or none; a USB disk, a card or a volume a user mounts from a
// container file may report itself fixed. The drive Windows runs from is the machine's own whatever
// its bus (eMMC, a boot from a disk image).
bool RootKeepsLists(const wchar_t* root) {
  if (GetDriveTypeW(root) != DRIVE_FIXED) return false;
  DWORD flags = 0;
  if (!GetVolumeInformationW(root, nullptr, 0, nullptr, nullptr, &flags, nullptr, 0) ||
      (flags & FILE_PERSISTENT_ACLS) == 0) {
    return false;
  }
  const auto upper = [](wchar_t c) { return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c; };
  if (upper(root[0]) == upper(SystemDriveLetter())) return true;
  VolumeProbe* probe = g_rootProbeForTest.load();
  const folders::DriveDoubt doubt =
      folders::DoubtAboutDrive((probe != nullptr ? *probe : SystemVolumeProbe()).BusesOfDrive(root[0]));
  if (doubt != folders::DriveDoubt::kNone) TellDoubtOnce(upper(root[0]), doubt);
  return doubt == folders::DriveDoubt::kNone;
}

enum class Step { kSound, kMissing, kUnsafe };

// `step` is the path up to its first NUL; a root is "X:\".
// Whether the step is there and no link is read anew at every walk, on a handle whose object is
// the one judged: its security's verdict is remembered for that object only. An empty folder users
// may write to can be made a mount point by them in a moment, even one whose security no user may
// change; a folder removed and made again by someone else is another folder.
Step JudgeStep(const wchar_t* step, const std::wstring& key, Role role) {
  // By name first: a link some systems open as what it leads to, however it is asked for.
  const DWORD attributes = GetFileAttributesW(step);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    // Missing: nothing there to follow. Anything else (access refused to SYSTEM, say) leaves the
    // step unchecked, and so not the agent's.
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? Step::kMissing : Step::kUnsafe;
  }
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && win::ReparsePointRedirects(step)) return Step::kUnsafe;
  // Then on the object itself, which may have been replaced since.
  const win::UniqueFileHandle handle = OpenStep(step);
  if (!handle) return Step::kUnsafe;
  if (win::OpenReparsePointRedirects(handle.get())) return Step::kUnsafe;
  // An object without an index (it cannot be read, or its file system gives none) is read anew
  // each time, and forgets what was remembered under its name.
  const Identity identity = FileIndexOf(handle.get());
  if (identity == 0) {
    RememberSound(key, 0, 0);
    return (SoundRoles(handle.get(), false) & role) != 0 ? Step::kSound : Step::kUnsafe;
  }
  if (RememberedSound(key, role, identity)) return Step::kSound;
  const Role roles = SoundRoles(handle.get(), false);
  RememberSound(key, roles, identity);
  return (roles & role) != 0 ? Step::kSound : Step::kUnsafe;
}

Step JudgeRoot(const wchar_t* root, const std::wstring& key) {
  if (RememberedSound(key, kAsRoot, 0)) return Step::kSound;
  if (!RootKeepsLists(root)) return Step::kUnsafe;
  const win::UniqueFileHandle handle = OpenStep(root);
  const Role roles = handle ? SoundRoles(handle.get(), true) : 0U;
  RememberSound(key, roles, 0);
  return (roles & kAsRoot) != 0 ? Step::kSound : Step::kUnsafe;
}

Step Classify(const wchar_t* step, StepFacts facts) {
  const std::wstring key = step;
  return facts.root ? JudgeRoot(step, key) : JudgeStep(step, key, RoleOf(facts));
}

}  // namespace

std::wstring FirstUnsafeStep(std::wstring_view path, LastStep last, std::size_t judgedFrom, std::wstring* missing) {
  if (missing != nullptr) missing->clear();
  const std::vector<std::size_t> ends = folders::PathStepEnds(path);
  if (ends.empty()) return {};
  if (judgedFrom == 0) {
    StepFacts root;
    root.root = true;
    const std::wstring drive{path[0], L':', L'\\'};
    if (Classify(drive.c_str(), root) != Step::kSound) return drive;
  }
  // One buffer for every step, each cut off in place.
  std::wstring step(path);
  for (std::size_t i = 0; i < ends.size(); ++i) {
    const std::size_t end = ends[i];
    if (end <= judgedFrom) continue;
    StepFacts facts;
    facts.last = i + 1 == ends.size();
    facts.judgeList = !facts.last || last != LastStep::kListAboutToBeSet;
    const wchar_t cut = step[end];
    step[end] = L'\0';
    const Step kind = Classify(step.c_str(), facts);
    step[end] = cut;
    if (kind == Step::kMissing) {
      if (missing != nullptr) missing->assign(path.substr(0, end));
      return {};
    }
    if (kind == Step::kUnsafe) return std::wstring(path.substr(0, end));
  }
  return {};
}

std::string FirstUnsafeStep(std::string_view path, LastStep last, std::size_t judgedFrom) {
  return win::WideToAnsi(FirstUnsafeStep(std::wstring_view(win::AnsiToWide(path)), last, judgedFrom));
}

bool NoUnsafeStepOn(const char* function, const std::string& path, const char* what, const char* consequence,
                    LastStep last) {
  const std::string step = FirstUnsafeStep(std::string_view(path), last);
  if (step.empty()) return true;
  LogUnsafeStep(function, path, step, what, consequence);
  return false;
}

void LogUnsafeStep(const char* function, const std::string& path, const std::string& step, const char* what,
                   const char* consequence) {
  KLOG_ERROR_AS(function) << what << " [" << folders::PrintableText(path) << "] is reached through ["
                          << folders::PrintableText(step)
                          << "], a link or folder that users may change or replace, or that cannot be checked; "
                          << consequence << ".";
}

void ForgetSoundStepsForTest() {
  {
    SoundSteps& remembered = Remembered();
    const std::lock_guard<std::mutex> lock(remembered.mutex);
    remembered.steps.clear();
  }
  const std::lock_guard<std::mutex> lock(Told()->mutex);
  Told()->doubts.clear();
}

std::size_t StepSecurityReadsForTest() { return g_securityReads.load(); }

void SetRootProbeForTest(VolumeProbe* probe) { g_rootProbeForTest.store(probe); }

}  // namespace korva
