// Lock, retry count and unhandled-failure mark shared with the on-demand program: reads, resets
// and the decision whether the on-demand module must be blocked.
#include "ondemand/module_lock.h"

#include "ondemand/core/lock_rules.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "win/bitness.h"
#include "win/registry_value.h"
#include "win/unique_handle.h"

namespace {

using korva::win::UniqueRegKey;

using korva::kLockStateKeyW;
constexpr wchar_t kLockValue[] = L"ondemandlock";
constexpr wchar_t kRetryValue[] = L"ondemandlockretry";
constexpr wchar_t kUnhandledValue[] = L"ondemandUnhandlelock";
// The on-demand program shares these values, so the service opens them for both reading and writing.
constexpr REGSAM kAccess = KEY_READ | KEY_WRITE | korva::win::kAgentRegistryView;

[[nodiscard]] LONG OpenLockKey(UniqueRegKey& key) {
  return RegOpenKeyExW(HKEY_LOCAL_MACHINE, kLockStateKeyW, 0, kAccess, key.put());
}

[[nodiscard]] LONG CreateLockKey(UniqueRegKey& key) {
  return RegCreateKeyExW(HKEY_LOCAL_MACHINE, kLockStateKeyW, 0, nullptr, REG_OPTION_NON_VOLATILE, kAccess, nullptr,
                         key.put(), nullptr);
}

// Reads one DWORD from an open lock key. Anything but a 4-byte REG_DWORD is a failed read: a
// string "1" would otherwise be taken for the number 49.
[[nodiscard]] LONG QueryLockValue(HKEY key, const wchar_t* name, DWORD* out, const char* function) {
  DWORD data = 0;
  const LONG code = korva::win::QueryDword(key, name, data);
  if (code != ERROR_SUCCESS) {
    // The system's own wording, kept deliberately also for a read.
    korva::LogFailedCall(function, static_cast<DWORD>(code), "Cannot add new NUMERIC value for the key");
    return code;
  }
  *out = data;
  return ERROR_SUCCESS;
}

[[nodiscard]] LONG ReadLockValue(const wchar_t* name, DWORD* out, bool createKey, const char* function) {
  if (out == nullptr) return ERROR_INVALID_PARAMETER;
  UniqueRegKey key;
  const LONG opened = createKey ? CreateLockKey(key) : OpenLockKey(key);
  if (opened != ERROR_SUCCESS) {
    KLOG_ERROR_AS(function) << "Unable to open registry.";
    return opened;
  }
  return QueryLockValue(key.get(), name, out, function);
}

void WriteZero(HKEY key, const wchar_t* name, const char* function) {
  const LONG code = korva::win::SetDword(key, name, 0);
  if (code != ERROR_SUCCESS) {
    korva::LogFailedCall(function, static_cast<DWORD>(code), "Cannot add new NUMERIC value for the key");
  }
}

}  // namespace

LONG GetModuleRetriesCount(DWORD* count) {
  return korva::log::ScopedGuarded(__func__, static_cast<LONG>(ERROR_INVALID_FUNCTION),
                                   [&] { return ReadLockValue(kRetryValue, count, false, "GetModuleRetriesCount"); });
}

LONG GetModuleLocked(DWORD* value) {
  return korva::log::ScopedGuarded(__func__, static_cast<LONG>(ERROR_INVALID_FUNCTION),
                                   [&] { return ReadLockValue(kLockValue, value, false, "GetModuleLocked"); });
}

LONG GetUnHandledExceptionLock(DWORD* value) {
  return korva::log::ScopedGuarded(__func__, static_cast<LONG>(ERROR_INVALID_FUNCTION), [&] {
    return ReadLockValue(kUnhandledValue, value, true, "GetUnHandledExceptionLock");
  });
}

int IsModuleLocked() {
  return korva::log::ScopedGuarded(__func__, 0, [] {
    DWORD value = 0;
    (void)GetModuleLocked(&value);  // a failed read leaves 0: unlocked
    return korva::ondemand::IsLockSet(value) ? 1 : 0;
  });
}

int IsModuleRetriesCompleted() {
  return korva::log::ScopedGuarded(__func__, 1, [] {
    KLOG_INFO_AS("IsModuleRetriesCompleted") << "Checking whether Retries are COMPLETED!!";
    DWORD count = 0;
    if (GetModuleRetriesCount(&count) != ERROR_SUCCESS) {
      KLOG_ERROR_AS("IsModuleRetriesCompleted") << "Problem while getting RetryCount. Returning retries completed!!";
      return 1;
    }
    KLOG_INFO_AS("IsModuleRetriesCompleted") << "Retry Count =" << static_cast<unsigned long>(count);
    if (!korva::ondemand::AreRetriesCompleted(true, count)) {
      KLOG_INFO_AS("IsModuleRetriesCompleted") << "RETRIES are NOT COMPLETED for ONDEMAND!!";
      return 0;
    }
    // The misspelt word is the system's own.
    KLOG_INFO_AS("IsModuleRetriesCompleted") << "RETRIES are COMPLETED for ONDMENAD !!";
    return 1;
  });
}

int CheckModuleLocked() {
  return korva::log::ScopedGuarded(__func__, 0, [] {
    const bool locked = IsModuleLocked() != 0;
    if (!locked) {
      // Error level, not info, deliberately: the system logs this line so.
      KLOG_ERROR_AS("CheckModuleLocked") << "ModuleLock : False.";
      return 0;
    }
    KLOG_INFO_AS("CheckModuleLocked") << "ModuleLock : True.";
    if (!korva::ondemand::MustBlockModule(locked, IsModuleRetriesCompleted() != 0)) return 0;
    KLOG_INFO_AS("CheckModuleLocked") << "IsModuleRetriesCompleted : Retry count completed need to Block the Module.";
    return 1;
  });
}

void UpdateModuleLockStatus() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    UpdateUnHandledExceptionLock();
    UniqueRegKey key;
    LONG code = OpenLockKey(key);
    if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) {
      code = CreateLockKey(key);
      if (code != ERROR_SUCCESS) {
        korva::LogFailedCall("UpdateModuleLockStatus", static_cast<DWORD>(code), "Unable to create the lock key.");
        return;
      }
    } else if (code != ERROR_SUCCESS) {
      korva::LogFailedCall("UpdateModuleLockStatus", static_cast<DWORD>(code), "Unable to open registry.");
      return;
    }
    // Both are written even when the first write fails.
    WriteZero(key.get(), kLockValue, "UpdateModuleLockStatus");
    WriteZero(key.get(), kRetryValue, "UpdateModuleLockStatus");
  });
}

void UpdateUnHandledExceptionLock() {
  korva::log::ScopedGuardedVoid(__func__, [] {
    UniqueRegKey key;
    if (CreateLockKey(key) != ERROR_SUCCESS) {
      KLOG_ERROR_AS("UpdateUnHandledExceptionLock") << "Unable to open registry.";
      return;
    }
    WriteZero(key.get(), kUnhandledValue, "UpdateUnHandledExceptionLock");
  });
}

void ResetModuleLockStatus() {
  korva::log::ScopedGuardedVoid(__func__, [] { UpdateModuleLockStatus(); });
}
