// What the device routines decide before starting a helper: the device instance path of an
// interface path, the helpers' folders and paths, and their argument texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korva::devicecontrol {

// Event classes and kinds understood by the summary program.
inline constexpr int kDeviceInterfaceEventClass = 1;
inline constexpr int kEnumerationEventClass = 9;
inline constexpr int kArrivalEventKind = 0;
inline constexpr int kRemovalEventKind = 1;
inline constexpr int kEnumerationEventKind = 2;
// The path an enumeration names: it concerns no one device.
inline constexpr wchar_t kEnumerationInstancePath[] = L"Unknown";

enum class InstancePathStatus { kFound, kNoHash, kNoSlash };

struct InstancePath {
  InstancePathStatus status = InstancePathStatus::kNoHash;
  std::wstring path;  // set only with kFound
};

// "\\?\USB#VID_0781&PID_5567#4c530001#{a5dcbf10-...}" gives "USB\VID_0781&PID_5567\4C530001":
// the four-character prefix skipped, the text cut at its last '#' (the interface class GUID goes),
// the remaining '#' turned into '\' and the whole upper-cased. Device instance IDs are ASCII, so
// only a-z change case (as in the C locale). kNoHash when no '#' follows the prefix, kNoSlash
// when what remains is empty or holds no '\'.
InstancePath DeviceInstancePathFromInterfacePath(std::wstring_view interfacePath);

// The action program's code that blocks the unprotected removable volume for the logged-on user.
inline constexpr int kBlockVolumeAction = 7;
// 0 asks for the default action, 1.
int EffectiveActionCode(int actionCode) noexcept;
// "-c <code>", and for codes 2, 3 and 7 " -n <user>". The name is deliberately not quoted (a name
// with a blank reaches the program as two words): the system's own command line. Nothing for a
// name holding a quote or a NUL, which no account name may hold and which would add arguments of
// its own.
std::optional<std::wstring> ActionProgramArguments(int actionCode, std::wstring_view userName);
inline constexpr char kSummaryProgram[] = "korvaDevCtrlSummary.exe";
// The action program for the machine's bitness: devctrlaction64.exe on 64-bit Windows.
const wchar_t* ActionProgramName(bool on64BitWindows) noexcept;
// <installation folder>\bin\ (the folder already ends in a backslash; the doubled one is harmless).
std::wstring ActionProgramFolder(std::wstring_view installationFolder);

// <installation folder>bin: glued on without a separator, unlike ActionProgramFolder; the
// asymmetry is deliberate (the installation folder ends in a backslash).
std::string SummaryProgramFolder(std::string_view installationFolder);
// <folder>\korvaDevCtrlSummary.exe
std::string SummaryProgramPath(std::string_view folder);
// "-s ET_ENUM|ET_COL <class> <kind> "<path>"": class 9 alone is an enumeration. The path is UTF-8,
// quoted by the C runtime's rules so the program reads back exactly it; nothing when it holds a NUL.
std::optional<std::string> SummaryArguments(int eventClass, int eventKind, std::string_view instancePathUtf8);

// The summary program is left to run, one per event; a device that arrives and leaves in a loop
// would start them without end. At most this many hold a place at once; the next ones wait their
// turn in the order of their events, up to kMaxWaitingSummaries.
inline constexpr std::size_t kMaxRunningSummaries = 8;
inline constexpr std::size_t kMaxWaitingSummaries = 64;
// A summary program still running after this long gives up its place (it is left to run), so one
// that hangs cannot hold back every later event's summary; at most kMaxOverdueSummaries such runs
// are let go at once, so no more than 64 summary programs live together.
inline constexpr std::uint64_t kSummaryPlaceMs = 60000;
inline constexpr std::size_t kMaxOverdueSummaries = 56;
// A summary program still running this long after its start has hung: it is ended, so summaries
// that hang for good cannot stop every later one.
inline constexpr std::uint64_t kSummaryEndMs = 600000;

enum class SummaryTurn { kStartNow, kWait, kMakeRoom };
// A new event's summary: started at once while fewer than kMaxRunningSummaries places are taken
// and none waits before it; else it waits, once room is made when kMaxWaitingSummaries wait.
SummaryTurn TurnOfNewSummary(std::size_t placesTaken, std::size_t waiting) noexcept;
// Whether a started summary program gives up its place: it ended, or it ran kSummaryPlaceMs while
// fewer than kMaxOverdueSummaries others that did are still running.
bool SummaryGivesUpPlace(bool ended, std::uint64_t ranMs, std::size_t overdueRunning) noexcept;
// Which summary goes when the queue is full: the oldest of the device with the most summaries
// waiting, the new one counted (on a tie, the device that has waited longest). `waiting` names each
// waiting summary's device (SummaryDeviceKey) in the queue's order; the result is its index, or
// waiting.size() for the new one.
std::size_t WaitingSummaryToDrop(const std::vector<std::string_view>& waiting, std::string_view newDevice);
// The device a summary concerns, for WaitingSummaryToDrop: its instance path without the last step
// and without an interface's or a collection's part ("USB\VID_0781&PID_5567" of
// "USB\VID_0781&PID_5567&MI_00\4C530001"), so a device that comes back under a new serial number
// each time, or shows many interfaces, still counts as one; a path without '\' is its own key.
std::string_view SummaryDeviceKey(std::string_view instancePath) noexcept;

}  // namespace korva::devicecontrol
