// Helpers for tests that drive the agent service through the service control manager.
#pragma once

#include <windows.h>

#include <string>

#include "win/unique_handle.h"

namespace korva::test {

inline constexpr wchar_t kAgentServiceName[] = L"Tallowmere Korva - Agent";

// The built service executable beside the test program.
std::wstring ServiceExecutable();
// Stops (bounded) and deletes the agent service if it is registered, bypassing the code under test.
void DeleteAgentServiceIfPresent();
// The agent service opened with `access`; empty when it is not registered.
win::UniqueServiceHandle OpenAgentService(DWORD access);
// Polls until the service reports `state` or `timeoutMs` passes; returns the last state seen.
DWORD WaitForServiceState(SC_HANDLE service, DWORD state, DWORD timeoutMs);
// ControlService; returns the Win32 error (0 on success).
DWORD SendControl(SC_HANDLE service, DWORD control);

struct ServiceConfig {
  bool exists = false;
  DWORD error = 0;
  std::wstring binaryPath;
  DWORD startType = 0;
  DWORD serviceType = 0;
  std::wstring account;
};
ServiceConfig QueryAgentServiceConfig();

// A clean start for an end-to-end test: no agent service registered, a fresh agent registry whose
// BasePath and AgentInstallDir name `agentFolder`, and the most verbose log. False if the registry
// could not be written.
bool PrepareCleanAgent(const std::string& agentFolder);
// Removes the agent service and the agent registry again.
void RemoveAgent();

}  // namespace korva::test
