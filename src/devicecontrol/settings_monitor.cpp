// Settings-change watcher: waits for changes under the agent's QVM settings key, lets each burst
// settle, fingerprints what the settings reaction depends on, and calls the reaction the service
// handed it when that has changed (or the key went or came), also since the start-up read them.
#include "devicecontrol/settings_monitor.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "devicecontrol/core/settings_fingerprint.h"
#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "shared/core/policy_paths.h"
#include "shared/service_state.h"
#include "win/bitness.h"
#include "win/thread_name.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace {

constexpr const char* kName = "MonitorSettingsModified";
// Changes closer together than this give one reaction.
constexpr DWORD kSettleMs = 2000;
// How often a settings key that does not exist yet is looked for again.
constexpr DWORD kReopenMs = 5000;
constexpr DWORD kNotifyFilter = REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET;

// The fingerprint looks at this many values at most, this deep, and this much of each value.
constexpr std::size_t kMaxFingerprintValues = 10000;
constexpr int kMaxFingerprintDepth = 8;
constexpr DWORD kMaxFingerprintValueBytes = 1024 * 1024;

enum class Wake { kStop, kChange, kTimeout, kFailed };

namespace dc = korva::devicecontrol;

// The path of `child` below `subkey` (the root itself when `subkey` is empty).
std::string ChildPath(const std::string& subkey, const std::string& child) {
  if (subkey.empty()) return child;
  std::string path = subkey;
  path += '\\';
  path += child;
  return path;
}

// Feeds the values of `key` and of its subkeys (but the agent's own) into `print`, within the
// budget of values and depth, so a key flooded with values costs bounded work.
void AddKeyValues(HKEY key, const std::string& subkey, int depth, std::size_t& budget, dc::Fingerprint& print) {
  DWORD subkeys = 0;
  DWORD longestSubkey = 0;
  DWORD values = 0;
  DWORD longestName = 0;
  DWORD longestData = 0;
  if (RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subkeys, &longestSubkey, nullptr, &values, &longestName,
                       &longestData, nullptr, nullptr) != ERROR_SUCCESS) {
    return;
  }
  std::vector<char> name(longestName + 2);
  std::vector<BYTE> data(std::min(longestData, kMaxFingerprintValueBytes) + 1);
  for (DWORD i = 0; i < values && budget > 0; ++i, --budget) {
    auto nameSize = static_cast<DWORD>(name.size());
    auto dataSize = static_cast<DWORD>(data.size());
    DWORD type = REG_NONE;
    const LONG code = RegEnumValueA(key, i, name.data(), &nameSize, nullptr, &type, data.data(), &dataSize);
    if (code != ERROR_SUCCESS && code != ERROR_MORE_DATA) continue;
    // The length is the system's answer: never past the buffer, whatever it says.
    const std::string_view valueName(name.data(), std::min<std::size_t>(nameSize, name.size()));
    if (dc::IsAgentsOwnSettingsValue(subkey, valueName)) continue;
    print.Add(subkey);
    print.Add(valueName);
    print.Add(static_cast<std::uint64_t>(type));
    // A value larger than the share looked at counts by its size.
    print.Add(code == ERROR_SUCCESS ? std::string_view(reinterpret_cast<const char*>(data.data()), dataSize)
                                    : std::string_view());
    print.Add(static_cast<std::uint64_t>(dataSize));
  }
  if (depth >= kMaxFingerprintDepth) return;
  std::vector<char> child(longestSubkey + 2);
  for (DWORD i = 0; i < subkeys && budget > 0; ++i) {
    auto childSize = static_cast<DWORD>(child.size());
    if (RegEnumKeyExA(key, i, child.data(), &childSize, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) continue;
    const std::string childName(child.data(), childSize);
    korva::win::UniqueRegKey opened;
    if (RegOpenKeyExA(key, childName.c_str(), 0, KEY_READ, opened.put()) != ERROR_SUCCESS) continue;
    AddKeyValues(opened.get(), ChildPath(subkey, childName), depth + 1, budget, print);
  }
}

// Feeds the size and time of a file (or its absence) into `print`.
void AddFileStamp(const std::string& path, dc::Fingerprint& print) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) {
    print.Add(std::uint64_t{0});
    return;
  }
  print.Add((static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow);
  print.Add((static_cast<std::uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
            data.ftLastWriteTime.dwLowDateTime);
}

// What the settings reaction depends on: the settings values but the agent's own (none without
// `key`), the grants' registry periods, and the policy and grant files.
std::uint64_t SettingsFingerprint(HKEY key) {
  dc::Fingerprint print;
  std::size_t budget = kMaxFingerprintValues;
  if (key != nullptr) AddKeyValues(key, std::string(), 0, budget, print);
  // A grant's period changed beside the settings: the grant pass reads it, so a change under the
  // settings that comes with it is no repeat.
  korva::win::UniqueRegKey periods;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, korva::kTemporaryAccessKey, 0, KEY_READ | korva::win::kAgentRegistryView,
                    periods.put()) == ERROR_SUCCESS) {
    print.Add(std::string_view("..\\TemporaryAccess"));
    AddKeyValues(periods.get(), "..\\TemporaryAccess", 1, budget, print);
  }
  const korva::AgentFolder base = korva::AgentBaseFolder();
  print.Add(base.path);
  if (Usable(base)) {
    for (const std::string_view file : {korva::kDeviceControlPolicyFile, korva::kSecureUsbPolicyFile,
                                        korva::kGrantPolicyFile, korva::kPlainGrantPolicyFile}) {
      AddFileStamp(korva::PolicyFilePath(base.path, file), print);
    }
  }
  return print.value();
}

// Waits up to `timeoutMs` for the stop event or `change`.
Wake WaitForStopOr(HANDLE change, DWORD timeoutMs) {
  const HANDLE handles[] = {ServiceStopEvent, change};
  const DWORD count = change != nullptr ? 2 : 1;
  switch (WaitForMultipleObjects(count, handles, FALSE, timeoutMs)) {
    case WAIT_OBJECT_0:
      return Wake::kStop;
    case WAIT_OBJECT_0 + 1:
      return Wake::kChange;
    case WAIT_TIMEOUT:
      return Wake::kTimeout;
    default:
      korva::LogLastError(kName, "Waiting for a settings change failed.");
      return Wake::kFailed;
  }
}

// Opens the settings key for notification, trying again every kReopenMs until it exists; empty
// when the service stops first. `waited` tells whether it had to look again.
korva::win::UniqueRegKey OpenSettingsKey(bool& waited) {
  bool reported = false;
  for (;;) {
    korva::win::UniqueRegKey key;
    const LONG code = RegOpenKeyExA(HKEY_LOCAL_MACHINE, korva::kQvmSettingsKey, 0,
                                    KEY_NOTIFY | KEY_READ | korva::win::kAgentRegistryView, key.put());
    waited = reported;
    if (code == ERROR_SUCCESS) return key;
    if (!reported) {
      KLOG_WARNING_AS(kName) << "Unable to open [" << korva::kQvmSettingsKey << "] with code : " << code
                             << "; looking again every " << kReopenMs / 1000 << " seconds.";
      reported = true;
    }
    if (WaitForStopOr(nullptr, kReopenMs) != Wake::kTimeout) return {};
  }
}

[[nodiscard]] bool Arm(HKEY key, HANDLE change) {
  const LONG code = RegNotifyChangeKeyValue(key, TRUE, kNotifyFilter, change, TRUE);
  if (code != ERROR_SUCCESS) {
    korva::LogFailedCall(kName, static_cast<DWORD>(code), "RegNotifyChangeKeyValue failed with code : ", code);
  }
  return code == ERROR_SUCCESS;
}

enum class Settled { kYes, kStop, kKeyLost };

// After a first change, lets the burst settle: kSettleMs in all, re-arming on each change seen.
// kKeyLost when the key can no longer be watched (deleted, or the re-arm failed): the watcher
// then waits for the key again, as at start-up.
Settled Settle(HKEY key, HANDLE change) {
  const ULONGLONG end = GetTickCount64() + kSettleMs;
  for (;;) {
    if (!Arm(key, change)) return Settled::kKeyLost;
    const ULONGLONG now = GetTickCount64();
    if (now >= end) return Settled::kYes;
    const Wake wake = WaitForStopOr(change, static_cast<DWORD>(end - now));
    if (wake == Wake::kStop || wake == Wake::kFailed) return Settled::kStop;
    if (wake == Wake::kTimeout) return Settled::kYes;  // still armed for the next change
  }
}

// Whether the opened key has been deleted. Not every system signals a watched key's deletion, so
// the watcher also looks every kReopenMs.
bool KeyDeleted(HKEY key) {
  DWORD values = 0;
  const LONG code = RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr,
                                     nullptr, nullptr, nullptr);
  return code == ERROR_KEY_DELETED;
}

// Watches the opened key until the service stops (false) or the key is lost (true). With
// `appeared`, the key has just come (back), which is a change of its own: what it holds now may
// differ from what was last applied. So are settings that differ from `baseline` (when given): what
// the start-up applied. Either is reacted to once the key is armed, so a write meanwhile is not
// missed.
bool WatchKey(HKEY key, HANDLE change, bool appeared, const std::uint64_t* baseline,
              korva::SettingsReaction& reaction) {
  if (!Arm(key, change)) return true;
  std::uint64_t reactedTo = SettingsFingerprint(key);
  if (!appeared && baseline != nullptr && *baseline != reactedTo) {
    KLOG_INFO_AS(kName) << "The settings changed since the service's start-up read them.";
    appeared = true;
  }
  if (appeared) reaction.React();
  for (;;) {
    const Wake wake = WaitForStopOr(change, kReopenMs);
    if (wake == Wake::kStop || wake == Wake::kFailed) return false;
    if (wake == Wake::kTimeout) {
      if (!KeyDeleted(key)) continue;
      reaction.React();  // its values went with it
      return true;
    }
    const Settled settled = Settle(key, change);
    if (settled == Settled::kStop) return false;
    // A change that ends with the key gone is reacted to as well: its values are gone with it.
    if (settled == Settled::kKeyLost) {
      reaction.React();
      return true;
    }
    const std::uint64_t now = SettingsFingerprint(key);
    if (now == reactedTo) {
      KLOG_DEBUG_AS(kName) << "Nothing the settings reaction depends on has changed; no reaction.";
      continue;
    }
    reactedTo = now;
    reaction.React();
  }
}

void WatchSettings(const korva::SettingsWatch& watch) {
  const korva::win::UniqueHandle change(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  if (!change) {
    korva::LogLastError(kName, "Unable to create the settings change event.");
    return;
  }
  const std::uint64_t startBaseline = watch.startBaseline.value_or(0);
  const std::uint64_t* baseline = watch.startBaseline ? &startBaseline : nullptr;
  for (bool returning = false;; returning = true) {
    bool waited = false;
    const korva::win::UniqueRegKey key = OpenSettingsKey(waited);
    if (!key) return;
    KLOG_INFO_AS(kName) << "Watching [" << korva::kQvmSettingsKey << "] for changes.";
    // A key it had to wait for appeared after the start-up read the settings without it.
    if (!WatchKey(key.get(), change.get(), returning || waited, baseline, *watch.reaction)) return;
    baseline = nullptr;  // only the first look compares with the start-up's: a key back is a change
    KLOG_WARNING_AS(kName) << "[" << korva::kQvmSettingsKey << "] can no longer be watched; waiting for it again.";
    // Not at once: a key that opens but cannot be watched must not turn this into a busy loop.
    if (WaitForStopOr(nullptr, kReopenMs) != Wake::kTimeout) return;
  }
}

}  // namespace

std::uint64_t korva::SettingsFingerprintNow() {
  korva::win::UniqueRegKey key;
  const LONG code = RegOpenKeyExA(HKEY_LOCAL_MACHINE, korva::kQvmSettingsKey, 0,
                                  KEY_READ | korva::win::kAgentRegistryView, key.put());
  return SettingsFingerprint(code == ERROR_SUCCESS ? key.get() : nullptr);
}

DWORD WINAPI MonitorSettingsModified(LPVOID parameter) {
  korva::win::NameCurrentThread(L"MonitorSettingsModified");
  korva::win::ReleaseUnusedStack();
  korva::log::ScopedGuardedVoid(kName, [parameter] {
    const auto* const watch = static_cast<const korva::SettingsWatch*>(parameter);
    if (watch == nullptr || watch->reaction == nullptr) {
      KLOG_ERROR_AS(kName) << "No settings reaction was given; the settings are not watched.";
      return;
    }
    WatchSettings(*watch);
  });
  return 0;
}
