// Orderly shutdowns, boot times and forced shutdowns, in the registry and a history file.
#include "power/power_tracking.h"

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "power/core/power_rules.h"
#include "shared/agent_environment.h"
#include "settings/agent_parameters.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/text_file.h"
#include "win/bitness.h"
#include "win/unique_handle.h"

namespace {

using korva::power::PowerEvent;
using korva::win::UniqueRegKey;

// The agent's keys, in the 32-bit view like every agent key (kAgentRegistryView).
constexpr wchar_t kAgentKeyW[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent";
constexpr wchar_t kPowerEventsKeyW[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\PowerEvents";
// Under a user hive of HKEY_USERS.
constexpr wchar_t kUserPowerEventsPath[] = L"\\Software\\Kestrelix\\Tallowmere\\KorvaAgent\\PowerEvents";

constexpr wchar_t kLastBootUpTimeW[] = L"LastBootUpTime";
constexpr wchar_t kLastShutdownTimeW[] = L"LastShutdownTime";
constexpr wchar_t kForcedShutdownW[] = L"ForcedShutdown";
constexpr wchar_t kForcedShutdownTimeW[] = L"ForcedShutdownTime";

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
  KLOG_ERROR_AS(function) << "Unable to create the registry key " << path << ".";
  printErrorMsgForID(static_cast<DWORD>(code));
  return false;
}

bool SetValue(HKEY key, const wchar_t* name, DWORD type, const void* data, DWORD size, const char* function) {
  const LONG code = RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), size);
  if (code == ERROR_SUCCESS) return true;
  KLOG_ERROR_AS(function) << "Unable to write the registry value " << name << ".";
  printErrorMsgForID(static_cast<DWORD>(code));
  return false;
}

bool SetQword(HKEY key, const wchar_t* name, std::uint64_t value, const char* function) {
  return SetValue(key, name, REG_QWORD, &value, sizeof value, function);
}

bool SetDword(HKEY key, const wchar_t* name, DWORD value, const char* function) {
  return SetValue(key, name, REG_DWORD, &value, sizeof value, function);
}

bool WriteForcedMark(HKEY root, const std::wstring& path, std::uint64_t now, const char* function) {
  UniqueRegKey key;
  if (!CreateForWrite(root, path, key, function)) return false;
  const bool flag = SetDword(key.get(), kForcedShutdownW, 1, function);
  const bool time = SetQword(key.get(), kForcedShutdownTimeW, now, function);
  return flag && time;
}

// The folder the history goes under: BasePath, or the installation folder when BasePath is empty.
std::string HistoryBase(const char* function) {
  char* raw = nullptr;
  const LONG code = BasePath(&raw);
  const std::unique_ptr<char, decltype(&std::free)> owner(raw, &std::free);
  if (code == ERROR_SUCCESS && raw != nullptr && raw[0] != '\0') return raw;
  KLOG_WARNING_AS(function) << "BasePath is not set; the power history goes under the installation folder.";
  return AgentInstallDirGlobal;
}

void AppendHistory(PowerEvent event, std::uint64_t seconds, const char* function) {
  const std::string base = HistoryBase(function);
  if (base.empty()) {
    KLOG_ERROR_AS(function) << "No folder for the power history: BasePath and AgentInstallDir are both empty.";
    return;
  }
  const std::string folder = korva::power::DataFolderPath(base);
  if (!CreateDirectoryA(folder.c_str(), nullptr)) {
    const DWORD error = GetLastError();
    if (error != ERROR_ALREADY_EXISTS) {
      KLOG_ERROR_AS(function) << "Unable to create the data folder " << folder << ".";
      printErrorMsgForID(error);
      return;
    }
  }
  const std::string path = korva::power::HistoryFilePath(base);
  const std::string line = korva::power::HistoryLine(event, seconds);
  if (korva::AppendFormattedText(path.c_str(), "%s", line.c_str()) != 0) {
    KLOG_ERROR_AS(function) << "Unable to add the " << korva::power::EventWord(event) << " entry to " << path << ".";
    return;
  }
  KLOG_INFO_AS(function) << "Power history :" << korva::power::EventWord(event) << " at " << seconds;
}

// An orderly end of the run: its time for the next start's forced-shutdown check, and a history line.
void RecordOrderlyEnd(PowerEvent event, const char* function) {
  const std::uint64_t now = NowSeconds();
  UniqueRegKey key;
  if (CreateForWrite(HKEY_LOCAL_MACHINE, kPowerEventsKeyW, key, function) &&
      SetQword(key.get(), kLastShutdownTimeW, now, function)) {
    KLOG_INFO_AS(function) << "LastShutdownTime :" << now;
  }
  key.reset();
  AppendHistory(event, now, function);
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
      KLOG_ERROR_AS(function) << "Unable to list the user hives.";
      printErrorMsgForID(static_cast<DWORD>(code));
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
  KLOG_SCOPE();
  return korva::log::Guarded(__func__, LONGLONG{0}, []() -> LONGLONG {
    UniqueRegKey key;
    LONG code = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPowerEventsKeyW, 0, KEY_READ | korva::win::kAgentRegistryView, key.put());
    std::uint64_t value = 0;
    DWORD type = REG_NONE;
    DWORD size = sizeof value;
    if (code == ERROR_SUCCESS) {
      code = RegQueryValueExW(key.get(), kLastShutdownTimeW, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
      if (code == ERROR_SUCCESS && (type != REG_QWORD || size != sizeof value)) code = ERROR_UNSUPPORTED_TYPE;
    }
    if (code == ERROR_FILE_NOT_FOUND) {
      KLOG_INFO_AS("GetShutDownTime") << "No shutdown time is recorded.";
      return 0;
    }
    if (code != ERROR_SUCCESS) {
      KLOG_ERROR_AS("GetShutDownTime") << "Unable to read LastShutdownTime.";
      printErrorMsgForID(static_cast<DWORD>(code));
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
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [] { RecordOrderlyEnd(PowerEvent::kShutdown, "UpdatePowerEventStatus"); });
}

void RecordServiceStopTime() {
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [] { RecordOrderlyEnd(PowerEvent::kServiceStop, "RecordServiceStopTime"); });
}

void WriteForceShutdownEntry() {
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [] {
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
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [uptimeMs] {
    constexpr const char* kFunction = "WriteLastBootUpTime";
    const std::uint64_t bootTime = korva::power::BootTimeSeconds(NowSeconds(), uptimeMs);
    UniqueRegKey key;
    if (CreateForWrite(HKEY_LOCAL_MACHINE, kAgentKeyW, key, kFunction) &&
        SetQword(key.get(), kLastBootUpTimeW, bootTime, kFunction)) {
      KLOG_INFO_AS(kFunction) << "LastBootUpTime :" << bootTime;
    }
  });
}
