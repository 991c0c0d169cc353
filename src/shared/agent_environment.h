// Process-wide facts about the agent's installation and the system it runs on, shared by every
// subsystem. Each is written on the main thread before the service dispatcher starts (by the entry
// point's initialize()), except where a line below says otherwise; readers never lock.
#pragma once

#include <windows.h>

#include <string>

// The agent's installation folder (registry "AgentInstallDir"). Written by initialize().
extern std::string AgentInstallDirGlobal;
// <AgentInstallDirGlobal>\bin\korvaConfig.exe. Written by the entry point after initialize().
extern std::wstring ConfigProgramPath;
// IsWow64Process's answer for this process (0 when the call is unavailable): 1 only for the
// 32-bit build on 64-bit Windows. Written by initialize(), and again by the device-action launcher
// on the thread that launches, with the same answer.
extern BOOL IsWow64Flag;

using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);
using AttachConsoleFn = BOOL(WINAPI*)(DWORD);
// Resolved from kernel32 at run time by InitiateWow64; either may stay null.
extern IsWow64ProcessFn IsWow64ProcessEntry;
extern AttachConsoleFn AttachConsoleEntry;

// Looks up IsWow64ProcessEntry and AttachConsoleEntry in kernel32.
void InitiateWow64();
// Fills the installation folder (when still empty) and the WOW64 answer, and logs both.
void initialize();
