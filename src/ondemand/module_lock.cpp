// Lock, retry count and unhandled-failure mark shared with the on-demand program: reads, resets
// and the decision whether the on-demand module must be blocked.
#include "ondemand/module_lock.h"

#include "ondemand/core/lock_rules.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "win/bitness.h"
#include "win/unique_handle.h"

namespace {

using korva::win::UniqueRegKey;

// The same key as kLockStateKey, in the 32-bit view like every agent key.
constexpr wchar_t kLockStateKeyW[] = L"SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\LockState";
constexpr wchar_t kLockValue[] = L"ondemandlock";
constexpr wchar_t kRetryValue[] = L"ondemandlockretry";
constexpr wchar_t kUnhandledValue[] = L"ondemandUnhandlelock";
// The on-demand program shares these values, so the service opens them for both reading and writing.
constexpr REGSAM kAccess = KEY_READ | KEY_WRITE | korva::win::kAgentRegistryView;

LONG OpenLockKey(UniqueRegKey& key) { return RegOpenKeyExW(HKEY_LOCAL_MACHINE, kLockStateKeyW, 0, kAccess, key.put()); }

LONG CreateLockKey(UniqueRegKey& key) {
  return RegCreateKeyExW(HKEY_LOCAL_MACHINE, kLockStateKeyW, 0, nullptr, REG_OPTION_NON_VOLATILE, kAccess, nullptr,
                         key.put(), nullptr);
}

// Reads one DWORD from an open lock key. Anything but a 4-byte REG_DWORD is a failed read: a
// string "1" would otherwise be taken for the number 49.
LONG QueryLockValue(HKEY key, const wchar_t* name, DWORD* out, const char* function) {
  DWORD type = REG_NONE;
  DWORD data = 0;
  DWORD size = sizeof data;
  LONG code = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&data), &size);
  if (code == ERROR_SUCCESS && (type != REG_DWORD || size != sizeof data)) code = ERROR_UNSUPPORTED_TYPE;
  if (code != ERROR_SUCCESS) {
    // The wording matches the on-demand program's own log, also for a read.
    KLOG_ERROR_AS(function) << "Cannot add new NUMERIC value for the key";
    printErrorMsgForID(static_cast<DWORD>(code));
    return code;
  }
  *out = data;
  return ERROR_SUCCESS;
}

LONG ReadLockValue(const wchar_t* name, DWORD* out, bool createKey, const char* function) {
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
  const DWORD zero = 0;
  const LONG code = RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&zero), sizeof zero);
  if (code != ERROR_SUCCESS) {
    KLOG_ERROR_AS(function) << "Cannot add new NUMERIC value for the key";
    printErrorMsgForID(static_cast<DWORD>(code));
  }
}

}  // namespace

LONG GetModuleRetriesCount(DWORD* count) {
  KLOG_SCOPE();
  return korva::log::Guarded(__func__, static_cast<LONG>(ERROR_INVALID_FUNCTION),
                             [&] { return ReadLockValue(kRetryValue, count, false, "GetModuleRetriesCount"); });
}

LONG GetModuleLocked(DWORD* value) {
  KLOG_SCOPE();
  return korva::log::Guarded(__func__, static_cast<LONG>(ERROR_INVALID_FUNCTION),
                             [&] { return ReadLockValue(kLockValue, value, false, "GetModuleLocked"); });
}

LONG GetUnHandledExceptionLock(DWORD* value) {
  KLOG_SCOPE();
  return korva::log::Guarded(__func__, static_cast<LONG>(ERROR_INVALID_FUNCTION),
                             [&] { return ReadLockValue(kUnhandledValue, value, true, "GetUnHandledExceptionLock"); });
}

int IsModuleLocked() {
  KLOG_SCOPE();
  return korva::log::Guarded(__func__, 0, [] {
    DWORD value = 0;
    (void)GetModuleLocked(&value);  // a failed read leaves 0: unlocked
    return korva::ondemand::IsLockSet(value) ? 1 : 0;
  });
}

int IsModuleRetriesCompleted() {
  KLOG_SCOPE();
  return korva::log::Guarded(__func__, 1, [] {
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
    KLOG_INFO_AS("IsModuleRetriesCompleted") << "RETRIES are COMPLETED for ONDMENAD !!";
    return 1;
  });
}

int CheckModuleLocked() {
  KLOG_SCOPE();
  return korva::log::Guarded(__func__, 0, [] {
    const bool locked = IsModuleLocked() != 0;
    if (!locked) {
      // Error level on purpose: the line must show even in a log kept at error level.
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
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [] {
    UpdateUnHandledExceptionLock();
    UniqueRegKey key;
    LONG code = OpenLockKey(key);
    if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) {
      code = CreateLockKey(key);
      if (code != ERROR_SUCCESS) {
        KLOG_ERROR_AS("UpdateModuleLockStatus") << "Unable to create the lock key.";
        printErrorMsgForID(static_cast<DWORD>(code));
        return;
      }
    } else if (code != ERROR_SUCCESS) {
      KLOG_ERROR_AS("UpdateModuleLockStatus") << "Unable to open registry.";
      printErrorMsgForID(static_cast<DWORD>(code));
      return;
    }
    // Both are written even when the first write fails.
    WriteZero(key.get(), kLockValue, "UpdateModuleLockStatus");
    WriteZero(key.get(), kRetryValue, "UpdateModuleLockStatus");
  });
}

void UpdateUnHandledExceptionLock() {
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [] {
    UniqueRegKey key;
    if (CreateLockKey(key) != ERROR_SUCCESS) {
      KLOG_ERROR_AS("UpdateUnHandledExceptionLock") << "Unable to open registry.";
      return;
    }
    WriteZero(key.get(), kUnhandledValue, "UpdateUnHandledExceptionLock");
  });
}

void ResetModuleLockStatus() {
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [] { UpdateModuleLockStatus(); });
}
