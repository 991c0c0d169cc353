// The service control handler and the process-wide flags it sets.
#pragma once

#include <windows.h>

#include <atomic>

// Set when the system announces its shutdown, never cleared: launches are refused after it.
extern std::atomic<LONG> ShutdownInProgressFlag;
// When 1, a logon to session 0 does not trigger the logon policy.
extern std::atomic<LONG> AssumedLogonFlag;

DWORD WINAPI HandlerEx(DWORD control, DWORD eventType, LPVOID eventData, LPVOID context);
