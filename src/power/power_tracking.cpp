// Orderly shutdowns, boot times and forced shutdowns, in the registry and a history file.
#include "power/power_tracking.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "power/core/power_rules.h"
#include "settings/agent_parameters.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/registry.h"
#include "shared/agent_environment.h"
#include "shared/held_file.h"
#include "shared/path_links.h"
#include "win/bitness.h"
#include "win/private_folder.h"
#include "win/registry_value.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

using korva::power::PowerEvent;
using korva::win::SetDword;
using korva::win::SetQword;
using korva::win::UniqueRegKey;

using korva::kPowerEventsKeyW;
using korva::kUserPowerEventsPath;

std::uint64_t NowSeconds() {
  FILETIME now{};
  GetSystemTimeAsFileTime(&now);
  const std::uint64_t ticks = (static_cast<std::uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
  return korva::power::UnixSecondsFromFileTime(ticks);
}

// Opens `path` under `root` for writing, creating it when missing; a failure is logged.
bool CreateForWrite(HKEY root, const std::wstring& path, UniqueRegKey& key, const char* function) {
  // User hives are not split into views; the machine's agent key is.
  const REGSAM view = root == HKEY_LOCAL_MACHINE ? korva::win::kAgentRegistryView : 0;
  const LONG code = RegCreateKeyExW(root, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                    KEY_READ | KEY_WRITE | view, nullptr, key.put(), nullptr);
  if (code == ERROR_SUCCESS) return true;
  korva::LogFailedCall(function, static_cast<DWORD>(code), "Unable to create the registry key ", path, ".");
  return false;
}

// `code` is what the typed write of `name` gave; a failure is logged.
bool Written(LONG code, const wchar_t* name, const char* function) {
  if (code == ERROR_SUCCESS) return true;
  korva::LogFailedCall(function, static_cast<DWORD>(code), "Unable to write the registry value ", name, ".");
  return false;
}

// Whether `key` (opened with REG_OPTION_OPEN_LINK) is a registry link rather than a key of its own.
bool IsRegistryLink(HKEY key) {
  DWORD type = REG_NONE;
  return RegQueryValueExW(key, L"SymbolicLinkValue", nullptr, &type, nullptr, nullptr) == ERROR_SUCCESS &&
         type == REG_LINK;
}

// Opens `path` below HKEY_USERS for writing one step at a time, creating the steps that are
// missing, and refuses a step that is a registry link, then checks that the key is where its path
// says. A user hive belongs to its user, who may make a link in it, and through such a link the
// service would create keys and write values wherever the user points it, the machine's keys
// included. Missing steps are created without following a link either; where the system refuses
// that option, a step the user turns into a link between its look and its creation may get an
// empty key created where the link leads, but nothing is written into it.
bool CreateUserKeyForWrite(const std::wstring& path, UniqueRegKey& key, const char* function) {
  UniqueRegKey current;
  std::size_t start = 0;
  while (start < path.size()) {
    const std::size_t end = std::min(path.find(L'\\', start), path.size());
    const std::wstring step = path.substr(start, end - start);
    const HKEY parent = current ? current.get() : HKEY_USERS;
    start = end + 1;
    if (step.empty()) continue;
    UniqueRegKey next;
    LONG code = RegOpenKeyExW(parent, step.c_str(), REG_OPTION_OPEN_LINK, KEY_READ | KEY_WRITE, next.put());
    if (code == ERROR_FILE_NOT_FOUND) {
      // Created without following a link made since the look, where the system takes the option.
      code = RegCreateKeyExW(parent, step.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE | REG_OPTION_OPEN_LINK,
                             KEY_READ | KEY_WRITE, nullptr, next.put(), nullptr);
      if (code == ERROR_INVALID_PARAMETER) {
        KLOG_WARNING_AS(function) << "The registry refuses to create " << korva::win::WideToUtf8(step)
                                  << " without following links; it is created as usual, and checked after.";
        code = RegCreateKeyExW(parent, step.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_READ | KEY_WRITE, nullptr,
                               next.put(), nullptr);
      }
    }
    if (code != ERROR_SUCCESS) {
      korva::LogFailedCall(function, static_cast<DWORD>(code), "Unable to create the registry key ", path, ".");
      return false;
    }
    if (IsRegistryLink(next.get())) {
      KLOG_WARNING_AS(function) << "The registry key " << korva::win::WideToUtf8(path.substr(0, end))
                                << " is a link; nothing is written through it.";
      return false;
    }
    current = std::move(next);
  }
  // A step turned into a link between its look and its creation is caught here: the key must be
  // where its path says, below the user's hive, before anything is written into it.
  const std::optional<std::wstring> where = current ? korva::win::KeyFullName(current.get()) : std::nullopt;
  const std::wstring expected = L"\\REGISTRY\\USER\\" + path;
  if (!where || CompareStringOrdinal(where->c_str(), static_cast<int>(where->size()), expected.c_str(),
                                     static_cast<int>(expected.size()), TRUE) != CSTR_EQUAL) {
    KLOG_WARNING_AS(function) << "The registry key " << korva::win::WideToUtf8(path) << " is not where its path says ("
                              << (where ? korva::win::WideToUtf8(*where) : std::string("its name cannot be read"))
                              << "); nothing is written to it.";
    return false;
  }
  key = std::move(current);
  return true;
}

bool WriteForcedMark(HKEY root, const std::wstring& path, std::uint64_t now, const char* function) {
  UniqueRegKey key;
  const bool opened =
      root == HKEY_USERS ? CreateUserKeyForWrite(path, key, function) : CreateForWrite(root, path, key, function);
  if (!opened) return false;
  const bool flag = Written(SetDword(key.get(), korva::kForcedShutdownValue, 1), korva::kForcedShutdownValue, function);
  const bool time =
      Written(SetQword(key.get(), korva::kForcedShutdownTimeValue, now), korva::kForcedShutdownTimeValue, function);
  return flag && time;
}

// The folder the history goes under: BasePath, or the installation folder when BasePath is not
// usable; empty when neither is a folder of the agent's own.
std::string HistoryBase(const char* function) {
  const korva::AgentFolder base = korva::AgentBaseFolder();
  if (Usable(base)) return base.path;
  const korva::AgentFolder install = korva::AgentInstallFolder();
  KLOG_WARNING_AS(function) << "BasePath is not usable (" << korva::folders::FaultText(base.fault)
                            << "); the power history goes under the installation folder.";
  return install.path;
}

// Lines the history file did not take (another program held it past the retries, or its path was
// refused for the moment): written before the next line, in their order, or at the process's end.
// A run writes a few lines; the bound only keeps a file that never opens from growing the memory.
std::mutex g_historyMutex;
korva::HeldText g_heldHistory{std::size_t{8} * 1024};
constexpr const char* kHistoryWhat = "The power history";
constexpr const char* kHistoryKept = "its entries are kept until it can be written";

std::function<void(korva::PowerHistoryStep)>& HistoryStepHook() {
  static std::function<void(korva::PowerHistoryStep)> hook;
  return hook;
}

void HistoryStepReached(korva::PowerHistoryStep step) {
  if (const auto& hook = HistoryStepHook(); hook) hook(step);
}

bool IsHeld(DWORD error) { return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION; }

// Opens the history file to append, made with the private file list when missing; a link in its
// place is opened itself, never followed. Tries again while another program holds the file.
korva::win::UniqueFileHandle OpenHistoryFile(const std::wstring& path, DWORD& error) {
  korva::win::UniqueFileHandle file;
  error = korva::RetryWhileHeld(
      [&path, &file] {
        file.reset(korva::win::CreatePrivateFile(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | READ_CONTROL,
                                                 FILE_SHARE_READ, OPEN_ALWAYS,
                                                 FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT));
        const DWORD result = file ? ERROR_SUCCESS : GetLastError();
        if (IsHeld(result)) HistoryStepReached(korva::PowerHistoryStep::kFileHeld);
        return result;
      },
      IsHeld);
  return file;
}

// The second walk, once the data folder is there: every folder on the way must be there too (one
// gone since was renamed away, and a link may take its place before the file's open), and the
// agent's; only the file itself may be missing.
bool EveryFolderStepIsTheAgents(const std::string& path, const char* function) {
  const std::wstring wide = korva::win::AnsiToWide(path);
  std::wstring missing;
  const std::wstring step = korva::FirstUnsafeStep(std::wstring_view(wide), korva::LastStep::kJudged, 0, &missing);
  if (step.empty() && (missing.empty() || missing == wide)) return true;
  korva::LogUnsafeStep(function, path, korva::win::WideToAnsi(step.empty() ? missing : step), kHistoryWhat,
                       kHistoryKept);
  return false;
}

// Appends `text` to the history file and gives how many of its bytes went in; every failure is
// logged. The path is walked for links and folders users may change, and walked again once the
// data folder is made or found: a user who may add folders where a step was missing at the first
// walk may have made it since (the base folder, or the data folder as a junction or as a folder of
// that user's holding a second name of another file). The file itself is judged on the handle the
// text goes through.
DWORD AppendToHistoryFile(const std::string& text, const char* function) {
  const std::string base = HistoryBase(function);
  if (base.empty()) {
    KLOG_ERROR_AS(function) << "No folder for the power history: neither BasePath nor AgentInstallDir is usable.";
    return 0;
  }
  const std::string folder = korva::power::DataFolderPath(base);
  const std::string path = korva::power::HistoryFilePath(base);
  if (!korva::NoUnsafeStepOn(function, path, kHistoryWhat, kHistoryKept)) return 0;
  HistoryStepReached(korva::PowerHistoryStep::kPathWalked);
  const std::wstring wideFolder = korva::win::AnsiToWide(folder);
  if (!korva::win::CreatePrivateFolder(wideFolder.c_str())) {
    const DWORD error = GetLastError();
    if (error != ERROR_ALREADY_EXISTS) {
      korva::LogFailedCall(function, error, "Unable to create the data folder ", folder, ".");
      return 0;
    }
  }
  if (!EveryFolderStepIsTheAgents(path, function)) return 0;
  DWORD error = ERROR_SUCCESS;
  const korva::win::UniqueFileHandle file = OpenHistoryFile(korva::win::AnsiToWide(path), error);
  if (!file) {
    korva::LogFailedCall(function, error, "Unable to open the power history ", path, "; ", kHistoryKept, ".");
    return 0;
  }
  if (!korva::OpenFileIsAgentsOwn(file.get())) {
    korva::LogUnsafeStep(function, path, path, kHistoryWhat, kHistoryKept);
    return 0;
  }
  DWORD written = 0;
  if (!WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr)) {
    korva::LogLastError(function, "Unable to write the power history ", path, "; ", kHistoryKept, ".");
  }
  return written;
}

// Appends the held lines and then `line` (none: the held lines only) to the history file; what it
// does not take stays held. True when nothing is held any more. Called with g_historyMutex held.
bool WriteHistory(const std::string& line, const char* function) {
  const std::size_t heldLines = g_heldHistory.lines();
  const std::size_t dropped = g_heldHistory.dropped();
  g_heldHistory.Hold(line);
  g_heldHistory.Consume(AppendToHistoryFile(g_heldHistory.text(), function));
  if (!g_heldHistory.text().empty()) return false;
  if (heldLines != 0 || dropped != 0) {
    KLOG_INFO_AS(function) << "The " << heldLines
                           << " power-history lines kept while the file could not be written are in it now"
                           << (dropped != 0 ? "; " + std::to_string(dropped) + " more were dropped." : ".");
  }
  g_heldHistory.Clear();
  return true;
}

void AppendHistory(PowerEvent event, std::uint64_t seconds, const char* function) {
  const std::lock_guard<std::mutex> lock(g_historyMutex);
  if (WriteHistory(korva::power::HistoryLine(event, seconds), function)) {
    KLOG_INFO_AS(function) << "Power history :" << korva::power::EventWord(event) << " at " << seconds;
  }
}

// Whether this run (this process) has recorded its orderly end. Held with the registry step that
// writes or removes the time, so the start's removal never takes away an end recorded before it.
std::mutex g_orderlyEndMutex;
bool g_orderlyEndBegun = false;        // its history line is told, and the start's removal is past
bool g_orderlyEndTimeWritten = false;  // "LastShutdownTime" is written: a later caller tries again until it is

// An orderly end of the run: its time for the next start's forced-shutdown check, and a history
// line. A run ends once: the shutdown notification and the stop's own record may both get here; the
// second writes the time again when the first could not, so the next start does not take an orderly
// end for a forced one. The history line is told once.
void RecordOrderlyEnd(PowerEvent event, const char* function) {
  const std::uint64_t now = NowSeconds();
  bool historyDue = false;
  {
    const std::lock_guard<std::mutex> lock(g_orderlyEndMutex);
    if (g_orderlyEndBegun && g_orderlyEndTimeWritten) {
      KLOG_INFO_AS(function) << "The end of this run is recorded already.";
      return;
    }
    historyDue = !g_orderlyEndBegun;
    g_orderlyEndBegun = true;
    UniqueRegKey key;
    if (CreateForWrite(HKEY_LOCAL_MACHINE, kPowerEventsKeyW, key, function) &&
        Written(SetQword(key.get(), korva::kLastShutdownTimeValue, now), korva::kLastShutdownTimeValue, function)) {
      g_orderlyEndTimeWritten = true;
      KLOG_INFO_AS(function) << "LastShutdownTime :" << now;
    }
  }
  if (historyDue) AppendHistory(event, now, function);
}

LONG ReadAgentQword(const wchar_t* path, const wchar_t* name, ULONGLONG& value) {
  UniqueRegKey key;
  const LONG code = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ | korva::win::kAgentRegistryView, key.put());
  return code == ERROR_SUCCESS ? korva::win::QueryQword(key.get(), name, value) : code;
}

// The subkeys of HKEY_USERS that are loaded user profiles.
std::vector<std::wstring> LoadedUserHives(const char* function) {
  std::vector<std::wstring> hives;
  for (DWORD index = 0;; ++index) {
    wchar_t name[256];  // a key name has at most 255 characters
    DWORD length = 256;
    const LONG code = RegEnumKeyExW(HKEY_USERS, index, name, &length, nullptr, nullptr, nullptr, nullptr);
    if (code == ERROR_NO_MORE_ITEMS) break;
    if (code != ERROR_SUCCESS) {
      korva::LogFailedCall(function, static_cast<DWORD>(code), "Unable to list the user hives.");
      break;
    }
    std::wstring hive(name, length);
    if (korva::power::IsUserHiveName(hive)) hives.push_back(std::move(hive));
  }
  return hives;
}

}  // namespace

LONGLONG korva::CurrentTimeInSeconds() {
  // Whole seconds of a 64-bit FILETIME never exceed the signed range.
  return static_cast<LONGLONG>(NowSeconds());
}

LONGLONG GetShutDownTime() {
  return korva::log::ScopedGuarded(__func__, LONGLONG{0}, []() -> LONGLONG {
    ULONGLONG value = 0;
    const LONG code = ReadAgentQword(kPowerEventsKeyW, korva::kLastShutdownTimeValue, value);
    if (code == ERROR_FILE_NOT_FOUND) {
      KLOG_INFO_AS("GetShutDownTime") << "No shutdown time is recorded.";
      return 0;
    }
    if (code != ERROR_SUCCESS) {
      korva::LogFailedCall("GetShutDownTime", static_cast<DWORD>(code), "Unable to read LastShutdownTime.");
      return 0;
    }
    if (value > static_cast<std::uint64_t>(std::numeric_limits<LONGLONG>::max())) {
      KLOG_ERROR_AS("GetShutDownTime") << "LastShutdownTime is out of range :"
                                       << static_cast<unsigned long long>(value);
      return 0;
    }
    return static_cast<LONGLONG>(value);
  });
}

void UpdatePowerEventStatus() {
  korva::log::ScopedGuardedVoid(__func__, [] { RecordOrderlyEnd(PowerEvent::kShutdown, "UpdatePowerEventStatus"); });
}

void RecordServiceStopTime() {
  korva::log::ScopedGuardedVoid(__func__, [] { RecordOrderlyEnd(PowerEvent::kServiceStop, "RecordServiceStopTime"); });
}

void ForgetPreviousOrderlyEnd() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    constexpr const char* kFunction = "ForgetPreviousOrderlyEnd";
    const std::lock_guard<std::mutex> lock(g_orderlyEndMutex);
    if (g_orderlyEndBegun) return;  // this run's own end: it already stopped
    UniqueRegKey key;
    LONG code = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPowerEventsKeyW, 0, KEY_SET_VALUE | korva::win::kAgentRegistryView,
                              key.put());
    if (code == ERROR_SUCCESS) code = RegDeleteValueW(key.get(), korva::kLastShutdownTimeValue);
    if (code == ERROR_FILE_NOT_FOUND) return;  // none recorded
    if (code != ERROR_SUCCESS) {
      korva::LogFailedCall(kFunction, static_cast<DWORD>(code), "Unable to remove LastShutdownTime.");
      return;
    }
    KLOG_INFO_AS(kFunction) << "LastShutdownTime is removed; only an orderly end of this run counts at the next start.";
  });
}

void korva::ResetOrderlyEndForTest() {
  {
    const std::lock_guard<std::mutex> lock(g_orderlyEndMutex);
    g_orderlyEndBegun = false;
    g_orderlyEndTimeWritten = false;
  }
  const std::lock_guard<std::mutex> lock(g_historyMutex);
  g_heldHistory.Clear();
}

void korva::SetPowerHistoryStepForTest(std::function<void(PowerHistoryStep)> step) {
  HistoryStepHook() = std::move(step);
}

bool korva::FlushPowerHistory() noexcept {
  return log::Guarded("FlushPowerHistory", false, [] {
    const std::lock_guard<std::mutex> lock(g_historyMutex);
    if (g_heldHistory.empty() || WriteHistory(std::string(), "FlushPowerHistory")) return true;
    KLOG_ERROR_AS("FlushPowerHistory") << g_heldHistory.lines() + g_heldHistory.dropped()
                                       << " power-history lines could not be written before the process ended.";
    return false;
  });
}

void WriteForceShutdownEntry() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    constexpr const char* kFunction = "WriteForceShutdownEntry";
    const std::uint64_t now = NowSeconds();
    if (WriteForcedMark(HKEY_LOCAL_MACHINE, kPowerEventsKeyW, now, kFunction)) {
      KLOG_INFO_AS(kFunction) << "Forced shutdown marked for the machine at " << now;
    }
    for (const std::wstring& hive : LoadedUserHives(kFunction)) {
      if (WriteForcedMark(HKEY_USERS, hive + kUserPowerEventsPath, now, kFunction)) {
        KLOG_INFO_AS(kFunction) << "Forced shutdown marked for the user hive " << hive;
      }
    }
    AppendHistory(PowerEvent::kForcedShutdown, now, kFunction);
  });
}

void WriteLastBootUpTime(ULONGLONG uptimeMs) {
  korva::log::ScopedGuardedVoid(__func__, [uptimeMs] {
    constexpr const char* kFunction = "WriteLastBootUpTime";
    const std::uint64_t bootTime = korva::power::BootTimeSeconds(NowSeconds(), uptimeMs);
    UniqueRegKey key;
    if (CreateForWrite(HKEY_LOCAL_MACHINE, korva::kAgentRegistryKeyW, key, kFunction) &&
        Written(SetQword(key.get(), korva::kLastBootUpTimeValue, bootTime), korva::kLastBootUpTimeValue, kFunction)) {
      KLOG_INFO_AS(kFunction) << "LastBootUpTime :" << bootTime;
    }
  });
}

LONGLONG ReadLastBootUpTime() {
  // Through the agent's registry reader, like every other read of the agent key at start-up.
  LONGLONG value = 0;
  DWORD size = sizeof value;
  DWORD type = REG_QWORD;
  Endpoint_Manager::RegistryKeyHandle key;
  const LONG code = Endpoint_Manager::CRegistryUtil::RegistryQueryValue(key, korva::kAgentRegistryKey, "LastBootUpTime",
                                                                        &type, reinterpret_cast<BYTE*>(&value), &size,
                                                                        korva::registry::kAgentView);
  return code == ERROR_SUCCESS && korva::win::IsQwordValue(type, size) ? value : 0;
}
