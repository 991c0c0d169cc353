// Finding the interactive session, its processes and a token that belongs to it.
#pragma once

#include <windows.h>

#include <string>

// The physical console's session; 0 where the system lacks WTSGetActiveConsoleSessionId.
DWORD GetActiveConsoleSessionId();
// The last active session in the session list (deliberately the last, not the first); the console
// session when none is active.
DWORD GetActiveTerminalSessionId();
// First process named `processName` (case-insensitive) in `sessionId`; 0 when none.
DWORD GetProcessID(const wchar_t* processName, DWORD sessionId);
// A token of "winlogon.exe" in `sessionId` (the caller closes it); false and no token when none.
[[nodiscard]] bool GetProcessToken(DWORD sessionId, HANDLE* token);
// User name of the logged-on user; empty when nobody is logged on (IsUserLoggedOn false).
// The console session's user, else the first active listed session's that has one.
std::wstring GetCurrentlyLoggedOnUser();
// The user name of `sessionId`, as the session list has it; empty when it has none or it cannot be
// read (a line of `function`'s).
std::wstring GetSessionUserName(DWORD sessionId, const char* function);
// True when a process named "explorer.exe" (any case) runs in any session.
bool IsExplorerPresent();
// True when "explorer.exe" runs in the console session: a user's shell is up there.
bool IsUserLoggedOn();
