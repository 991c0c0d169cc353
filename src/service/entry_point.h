// The program's entry: log set-up, process globals, and the choice between dispatcher, install
// and uninstall.
#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "shared/agent_environment.h"
#include "shared/service_state.h"

// {service name, ServiceMain}, then the terminating {null, null}.
extern SERVICE_TABLE_ENTRYW ServiceTable[2];

namespace korva {
// Everything main does; returns the process exit code.
[[nodiscard]] int RunAgentServiceMain(int argc, char* argv[]);
// Where the service's log goes: under BasePath when that folder and its "logs" folder are the
// agent's own, else beside the executable when those are; empty when neither is. The log's folders
// missing there are made, for SYSTEM and administrators only, each right after a judge, and judged
// again. `base` gets BasePath as judged for the log.
std::string ChooseServiceLogPath(AgentFolder& base);
// Opens the service's log where ChooseServiceLogPath says, and has every later open of its file and
// every roll judge its folders again the same way; the log's path, or empty when there is none.
std::string OpenServiceLog();
// Runs `step` with each folder the log's choice is about to make (a test's user who makes it first).
void SetBeforeLogFolderMadeForTest(std::function<void(const std::wstring&)> step);
// The log file for a base path: "<base>\logs\korva_agentservice.log".
std::string LogFilePathForBase(const char* basePath);
}  // namespace korva
