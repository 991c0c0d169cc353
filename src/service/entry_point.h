// The program's entry: log set-up, process globals, and the choice between dispatcher, install
// and uninstall.
#pragma once

#include <windows.h>

#include <string>

// The service name, which is also its display name.
inline constexpr wchar_t kAgentServiceName[] = L"Tallowmere Korva - Agent";

// {service name, ServiceMain}, then the terminating {null, null}.
extern SERVICE_TABLE_ENTRYW ServiceTable[2];
// The agent's installation folder (registry "AgentInstallDir"), filled by initialize().
extern std::string AgentInstallDirGlobal;
// Whether this 32-bit process runs on 64-bit Windows; 0 when IsWow64Process is unavailable.
extern BOOL IsWow64Flag;
// <AgentInstallDirGlobal>\bin\korvaConfig.exe
extern std::wstring ConfigProgramPath;

using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);
using AttachConsoleFn = BOOL(WINAPI*)(DWORD);
// Resolved from kernel32 at run time by InitiateWow64; either may stay null.
extern IsWow64ProcessFn IsWow64ProcessEntry;
extern AttachConsoleFn AttachConsoleEntry;

void initialize();
void InitiateWow64();

namespace korva {
// Everything main does; returns the process exit code.
int RunAgentServiceMain(int argc, char* argv[]);
// The log file for a base path: "<base>\logs\korva_agentservice.log".
std::string LogFilePathForBase(const char* basePath);
}  // namespace korva
