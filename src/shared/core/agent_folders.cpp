// The folder rule for the agent's programs, libraries and files.
#include "shared/core/agent_folders.h"

#include <algorithm>

namespace korva::folders {

namespace {

template <typename Char>
bool IsSeparator(Char c) noexcept {
  return c == Char('\\') || c == Char('/');
}

template <typename Char>
bool IsDriveLetter(Char c) noexcept {
  return (c >= Char('A') && c <= Char('Z')) || (c >= Char('a') && c <= Char('z'));
}

template <typename Char>
bool IsBadCharacter(Char c) noexcept {
  if (c >= Char(0) && c < Char(0x20)) return true;
  switch (c) {
    case Char('<'):
    case Char('>'):
    case Char(':'):
    case Char('"'):
    case Char('|'):
    case Char('?'):
    case Char('*'):
      return true;
    default:
      return false;
  }
}

// True for a step Windows trims to "." or "..": dots and blanks only, at least one dot.
template <typename Char>
bool IsDotStep(std::basic_string_view<Char> step) noexcept {
  bool dot = false;
  for (const Char c : step) {
    if (c == Char('.')) {
      dot = true;
    } else if (c != Char(' ')) {
      return false;
    }
  }
  return dot;
}

// Checks the steps after "X:\": plain names only. Empty steps (doubled separators) are harmless:
// the agent's own paths glue "bin" onto a folder that already ends in a backslash.
template <typename Char>
FolderFault CheckSteps(std::basic_string_view<Char> rest) noexcept {
  bool named = false;
  std::size_t start = 0;
  while (start <= rest.size()) {
    std::size_t end = start;
    while (end < rest.size() && !IsSeparator(rest[end])) ++end;
    const std::basic_string_view<Char> step = rest.substr(start, end - start);
    if (!step.empty()) {
      if (IsDotStep(step)) return FolderFault::kDotSegment;
      // "C:\Korva \bin" goes through "Korva ", while "C:\Korva " is "C:\Korva": two folders.
      if (step.back() == Char(' ') || step.back() == Char('.')) return FolderFault::kTrailingBlankOrDot;
      for (const Char c : step) {
        if (IsBadCharacter(c)) return FolderFault::kBadCharacter;
      }
      named = true;
    }
    start = end + 1;
  }
  return named ? FolderFault::kNone : FolderFault::kDriveRoot;
}

template <typename Char>
FolderFault CheckFolder(std::basic_string_view<Char> folder) noexcept {
  if (folder.empty()) return FolderFault::kEmpty;
  for (const Char c : folder) {
    if (c == Char(0)) return FolderFault::kHasNul;
  }
  if (folder.size() > kMaxFolderChars) return FolderFault::kTooLong;
  if (folder.size() >= 2 && IsSeparator(folder[0]) && IsSeparator(folder[1])) return FolderFault::kNetworkOrDevice;
  if (folder.size() < 3 || !IsDriveLetter(folder[0]) || folder[1] != Char(':') || folder[2] != Char('\\')) {
    return FolderFault::kNotFullyQualified;
  }
  return CheckSteps(folder.substr(3));
}

template <typename Char>
FolderFault CheckProgram(std::basic_string_view<Char> path) noexcept {
  std::size_t cut = path.size();
  while (cut > 0 && !IsSeparator(path[cut - 1])) --cut;
  if (cut == 0) return path.empty() ? FolderFault::kEmpty : FolderFault::kNotFullyQualified;
  const std::basic_string_view<Char> name = path.substr(cut);
  if (name.empty()) return FolderFault::kNotFullyQualified;  // a folder, not a program
  const FolderFault folder = CheckFolder(path.substr(0, cut));
  if (folder != FolderFault::kNone) return folder;
  if (IsDotStep(name)) return FolderFault::kDotSegment;
  if (name.back() == Char(' ') || name.back() == Char('.')) return FolderFault::kTrailingBlankOrDot;
  for (const Char c : name) {
    if (IsBadCharacter(c)) return FolderFault::kBadCharacter;
  }
  return FolderFault::kNone;
}

template <typename Char>
Char AsciiLower(Char c) noexcept {
  return c >= Char('A') && c <= Char('Z') ? static_cast<Char>(c - Char('A') + Char('a')) : c;
}

// Whether the first folder.size() characters of `path` name `folder`.
template <typename Char>
bool SamePrefix(std::basic_string_view<Char> path, std::basic_string_view<Char> folder) noexcept {
  for (std::size_t i = 0; i < folder.size(); ++i) {
    if (IsSeparator(path[i]) && IsSeparator(folder[i])) continue;
    if (AsciiLower(path[i]) != AsciiLower(folder[i])) return false;
  }
  return true;
}

template <typename Char>
bool Within(std::basic_string_view<Char> path, std::basic_string_view<Char> folder) noexcept {
  while (!folder.empty() && IsSeparator(folder.back())) folder.remove_suffix(1);
  if (folder.empty() || path.size() <= folder.size() + 1 || !IsSeparator(path[folder.size()])) return false;
  return SamePrefix(path, folder);
}

}  // namespace

bool IsWithinFolder(std::wstring_view path, std::wstring_view folder) noexcept { return Within(path, folder); }
bool IsWithinFolder(std::string_view path, std::string_view folder) noexcept { return Within(path, folder); }

bool IsSameOrWithinFolder(std::string_view path, std::string_view folder) noexcept {
  while (!path.empty() && IsSeparator(path.back())) path.remove_suffix(1);
  while (!folder.empty() && IsSeparator(folder.back())) folder.remove_suffix(1);
  return Within(path, folder) || (!folder.empty() && path.size() == folder.size() && SamePrefix(path, folder));
}

bool IsWindowsOwnFolder(std::string_view folder, const WindowsFolders& windows) noexcept {
  const std::string_view candidate = folder;
  // A folder of Windows, or one above it.
  const bool aboveOne = std::any_of(windows.roots.begin(), windows.roots.end(), [candidate](const std::string& own) {
    return !own.empty() && IsSameOrWithinFolder(own, candidate);
  });
  // Inside a tree that is Windows' throughout.
  const bool insideOne = std::any_of(
      windows.subtrees.begin(), windows.subtrees.end(),
      [candidate](const std::string& tree) { return !tree.empty() && IsSameOrWithinFolder(candidate, tree); });
  if (aboveOne || insideOne || windows.users.empty() || !IsWithinFolder(candidate, windows.users)) {
    return aboveOne || insideOne;
  }
  // A profile: a folder right below the users' folder.
  std::string_view rest = candidate.substr(windows.users.size());
  while (!rest.empty() && (rest.front() == '\\' || rest.front() == '/')) rest.remove_prefix(1);
  while (!rest.empty() && (rest.back() == '\\' || rest.back() == '/')) rest.remove_suffix(1);
  return rest.find_first_of("\\/") == std::string_view::npos;
}

FolderFault CheckAgentFolder(std::string_view folder) noexcept { return CheckFolder(folder); }
FolderFault CheckAgentFolder(std::wstring_view folder) noexcept { return CheckFolder(folder); }
FolderFault CheckProgramPath(std::string_view path) noexcept { return CheckProgram(path); }
FolderFault CheckProgramPath(std::wstring_view path) noexcept { return CheckProgram(path); }

namespace {

// BusType1394, BusTypeUsb, BusTypeSd, BusTypeMmc, BusTypeFileBackedVirtual; BusTypeVirtual and
// BusTypeSpaces apart.
constexpr unsigned kUserDiskBuses[] = {0x4, 0x7, 0xC, 0xD, 0xF};
constexpr unsigned kBusTypeVirtual = 0xE;
constexpr unsigned kBusTypeSpaces = 0x10;

bool IsUserDiskBus(unsigned busType) noexcept {
  return std::any_of(std::begin(kUserDiskBuses), std::end(kUserDiskBuses),
                     [busType](unsigned bus) { return bus == busType; });
}

}  // namespace

DriveDoubt DoubtAboutDrive(const DriveBuses& buses) noexcept {
  const auto doubtAboutBus = [&buses](const std::optional<unsigned>& bus) {
    if (!bus) return DriveDoubt::kUnreadableBus;
    if (IsUserDiskBus(*bus)) return DriveDoubt::kUserBus;
    if (*bus == kBusTypeSpaces && !buses.server) return DriveDoubt::kWorkstationSpace;
    return DriveDoubt::kNone;
  };
  if (buses.disks && !buses.disks->empty()) {
    for (const std::optional<unsigned>& bus : *buses.disks) {
      const DriveDoubt doubt = doubtAboutBus(bus);
      if (doubt != DriveDoubt::kNone) return doubt;
    }
    return DriveDoubt::kNone;
  }
  if (buses.volume && *buses.volume == kBusTypeVirtual) return DriveDoubt::kContainer;
  return doubtAboutBus(buses.volume);
}

const char* DoubtText(DriveDoubt doubt) noexcept {
  switch (doubt) {
    case DriveDoubt::kNone:
      return "it lies on disks of the machine's own";
    case DriveDoubt::kUserBus:
      return "a disk under it is on a bus a user can bring a disk on (USB, FireWire, a card, a disk image)";
    case DriveDoubt::kUnreadableBus:
      return "the bus of a disk under it cannot be read";
    case DriveDoubt::kContainer:
      return "it is a virtual volume with no disk under it (an encrypted container)";
    case DriveDoubt::kWorkstationSpace:
      return "it is a storage space, whose pool a user may bring, on a workstation";
  }
  return "it cannot be judged";
}

namespace {

bool StartsWithNoCase(std::wstring_view text, std::wstring_view prefix) noexcept {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(),
                    [](wchar_t a, wchar_t b) { return AsciiLower(a) == AsciiLower(b); });
}

// "<prefix><digits>" and nothing more, the prefix in any case.
bool IsNumbered(std::wstring_view text, std::wstring_view prefix) noexcept {
  if (text.size() <= prefix.size() || !StartsWithNoCase(text, prefix)) return false;
  text.remove_prefix(prefix.size());
  return std::all_of(text.begin(), text.end(), [](wchar_t c) { return c >= L'0' && c <= L'9'; });
}

}  // namespace

bool IsDiskStackVolume(std::wstring_view device) noexcept {
  if (IsNumbered(device, L"\\Device\\HarddiskVolume")) return true;
  constexpr std::wstring_view kDynamic = L"\\Device\\HarddiskDmVolumes\\";
  if (!StartsWithNoCase(device, kDynamic)) return false;
  // "<group>\Volume<digits>": the disk group's folder, then the volume.
  const std::wstring_view rest = device.substr(kDynamic.size());
  const std::size_t split = rest.find(L'\\');
  return split != 0 && split != std::wstring_view::npos && IsNumbered(rest.substr(split + 1), L"Volume");
}

std::vector<std::size_t> PathStepEnds(std::wstring_view path) {
  std::vector<std::size_t> ends;
  if (path.size() < 3 || !IsDriveLetter(path[0]) || path[1] != L':' || !IsSeparator(path[2])) return ends;
  for (std::size_t i = 3; i < path.size(); ++i) {
    if (!IsSeparator(path[i]) && (i + 1 == path.size() || IsSeparator(path[i + 1]))) ends.push_back(i + 1);
  }
  return ends;
}

const char* FaultText(FolderFault fault) noexcept {
  switch (fault) {
    case FolderFault::kNone:
      return "the folder is usable";
    case FolderFault::kEmpty:
      return "the folder is empty or unknown";
    case FolderFault::kHasNul:
      return "the folder holds a NUL character";
    case FolderFault::kTooLong:
      return "the folder is too long";
    case FolderFault::kNetworkOrDevice:
      return "the folder is a network or device path";
    case FolderFault::kNotFullyQualified:
      return "the folder is not a local, fully qualified path (drive letter, colon, backslash)";
    case FolderFault::kDriveRoot:
      return "the folder is a drive's root";
    case FolderFault::kDotSegment:
      return "the folder holds a \".\" or \"..\" step";
    case FolderFault::kTrailingBlankOrDot:
      return "the folder holds a step that ends in a blank or a dot, which Windows reads as two different "
             "folders";
    case FolderFault::kBadCharacter:
      return "the folder holds a character no Windows path may hold";
    case FolderFault::kOutsideAgentFolders:
      return "the folder is neither BasePath nor AgentInstallDir, nor inside either";
    case FolderFault::kUnsafeStep:
      return "the folder is reached through a link or folder that users may change or replace, or that cannot be "
             "checked";
    case FolderFault::kParentMissing:
      return "a folder above it does not exist, and the agent does not make one with the access list it would "
             "inherit";
  }
  return "the folder is refused";
}

}  // namespace korva::folders
