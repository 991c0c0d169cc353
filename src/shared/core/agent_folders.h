// The rule every folder the agent starts a program from, loads a library from or writes a file in
// must pass: a local, absolute, fully qualified folder ("X:\..."), never a drive's root, a network
// or device path, a relative one, or one that walks up with "..". A user may create folders in a
// drive's root and under relative or unresolved paths, so anything else is "not available".
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/core/log_format.h"

namespace korva::folders {

enum class FolderFault {
  kNone,                 // usable
  kEmpty,                // nothing there: the value is missing or was never set
  kHasNul,               // a NUL inside the text: what Windows reads would be only a part of it
  kTooLong,              // longer than any path the agent opens
  kNetworkOrDevice,      // "\\server\share", "\\?\..." or "\\.\..."
  kNotFullyQualified,    // relative, or rooted without a drive ("\bin"), or "X:" without a backslash
  kDriveRoot,            // "X:\" itself
  kDotSegment,           // a "." or ".." step (or one of dots and blanks, which Windows trims to it)
  kTrailingBlankOrDot,   // a step ending in a blank or a dot, which Windows trims from a path's last step only
  kBadCharacter,         // a control character or one of < > : " | ? * past the drive's colon
  kOutsideAgentFolders,  // not BasePath or AgentInstallDir, nor inside one of them
  kUnsafeStep,           // a step of it is a link or folder a user may change or replace (shared/path_links.h)
  kParentMissing,        // a folder above it does not exist: made by the agent, it would take the list it
                         // inherits, which may let users replace it
};

// Longer texts are refused outright; Windows' own limit for a path is 32,767 characters.
inline constexpr std::size_t kMaxFolderChars = 32767;

FolderFault CheckAgentFolder(std::string_view folder) noexcept;
FolderFault CheckAgentFolder(std::wstring_view folder) noexcept;

// A program's full path: its folder passes CheckAgentFolder and its file name is a plain name.
FolderFault CheckProgramPath(std::string_view path) noexcept;
FolderFault CheckProgramPath(std::wstring_view path) noexcept;

// Whether `path` lies inside `folder` (the folder itself does not count): compared without regard
// to ASCII case, '/' read as '\\', the folder's trailing separators ignored. Both are taken as
// they are: normalise them first.
bool IsWithinFolder(std::wstring_view path, std::wstring_view folder) noexcept;
bool IsWithinFolder(std::string_view path, std::string_view folder) noexcept;
// IsWithinFolder, or the same folder (trailing separators aside).
bool IsSameOrWithinFolder(std::string_view path, std::string_view folder) noexcept;

// The folders of Windows itself, as a machine names them.
struct WindowsFolders {
  std::vector<std::string> roots;     // these, and the folders above them: ProgramData, Program Files, ...
  std::vector<std::string> subtrees;  // these and everything inside them: the Windows folder, ProgramData\Microsoft
  std::string users;                  // its own subfolders are the users' profiles (Default and Public too)
};
// Whether `folder` (a canonical path: long names, single separators) belongs to Windows rather than
// to an application. Empty entries are ignored. The agent never gives such a folder its own access
// list, whatever a damaged BasePath or AgentInstallDir names: the list would replace the one
// Windows and every other program rely on, down the whole tree.
bool IsWindowsOwnFolder(std::string_view folder, const WindowsFolders& windows) noexcept;

// What is known of the disks behind a drive: the bus (a STORAGE_BUS_TYPE) its volume reports, and
// the bus of each disk its extents lie on. Nothing where the query failed; no disks where the volume
// has none the system can name (a container a driver presents as a volume) or they could not be read.
using DiskBuses = std::vector<std::optional<unsigned>>;
struct DriveBuses {
  std::optional<unsigned> volume;
  std::optional<DiskBuses> disks;
  bool server = false;  // the machine runs a server edition of Windows
};

// Why a drive is not taken to lie on disks no user can bring; kNone when it is.
enum class DriveDoubt { kNone, kUserBus, kUnreadableBus, kContainer, kWorkstationSpace };

// Whether a drive lies on disks no user can bring. A user can bring a disk on USB, FireWire, an SD or
// MMC card, or one mounted from a file; such a disk may report itself fixed and carry whatever owners
// and lists its maker wrote, Administrators' included. The disks under the volume are judged when they
// are known, every one of them (a spanned or mirrored volume has several, and its own query may fail):
// a virtual disk there hangs off a storage adapter an administrator attached (a network block disk).
// A volume with no disk under it is judged by its own bus, where virtual is the volume of an encrypted
// container a user mounted. A storage space reports its own bus whatever disks its pool lies on, and
// Windows assembles a pool from the disks that carry it as soon as they are plugged in, USB ones
// included: it is the machine's own on a server edition only, where storage spaces are the server's
// storage (not on the multi-session edition of Windows Enterprise, a workstation many users share). Whatever cannot be
// read is refused.
DriveDoubt DoubtAboutDrive(const DriveBuses& buses) noexcept;

// Why a drive is refused, as a log line's ending.
const char* DoubtText(DriveDoubt doubt) noexcept;

// Whether a drive letter's device (its target in the system's namespace) is a volume of the system's
// own disk stack, a basic one ("\Device\HarddiskVolume3") or a dynamic one
// ("\Device\HarddiskDmVolumes\<group>\Volume1"): only such a volume's extents name real disks.
bool IsDiskStackVolume(std::wstring_view device) noexcept;

// Where the steps a path is opened through end: each folder below the drive's root, then the path
// itself; "C:\A\\b\" gives 4 and 7 ("C:\A", "C:\A\\b", which Windows opens as "C:\A\b"). Only for a
// path that starts "X:\" (one that passed the rule above); empty for any other.
std::vector<std::size_t> PathStepEnds(std::wstring_view path);

// Why a folder is refused, as a log line's ending: "the folder is empty", ...
const char* FaultText(FolderFault fault) noexcept;

// A refused folder's text as a log line or event may show it (settings/core/log_format.h).
using logformat::PrintableText;

}  // namespace korva::folders
