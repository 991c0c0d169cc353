// Lock, retry count and unhandled-failure mark shared with the on-demand program.
#pragma once

#include <windows.h>

#include "settings/core/agent_constants.h"

// Each reads one DWORD of the LockState key into `*out` (left alone on failure). Result 0, the
// registry error, or ERROR_UNSUPPORTED_TYPE for a value that is not a 4-byte REG_DWORD.
// "ondemandlockretry":
[[nodiscard]] LONG GetModuleRetriesCount(DWORD* count);
// "ondemandlock":
[[nodiscard]] LONG GetModuleLocked(DWORD* value);
// "ondemandUnhandlelock"; creates the key when it is missing:
[[nodiscard]] LONG GetUnHandledExceptionLock(DWORD* value);
// 1 when "ondemandlock" reads non-zero; a failed read counts as unlocked.
int IsModuleLocked();
// 1 when the retry count is 5 or more, or cannot be read.
int IsModuleRetriesCompleted();
// 1 when the on-demand module must be blocked: locked, and its retries are complete.
int CheckModuleLocked();
// Sets all three values to 0, creating the key when it is missing.
void UpdateModuleLockStatus();
// Sets "ondemandUnhandlelock" to 0.
void UpdateUnHandledExceptionLock();
// UpdateModuleLockStatus under the name its callers use.
void ResetModuleLockStatus();
