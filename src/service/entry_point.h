// The program's entry: log set-up, process globals, and the choice between dispatcher, install
// and uninstall.
#pragma once

#include <windows.h>

#include <string>

#include "shared/agent_environment.h"
#include "shared/service_state.h"

// {service name, ServiceMain}, then the terminating {null, null}.
extern SERVICE_TABLE_ENTRYW ServiceTable[2];

namespace korva {
// Everything main does; returns the process exit code.
[[nodiscard]] int RunAgentServiceMain(int argc, char* argv[]);
// The log file for a base path: "<base>\logs\korva_agentservice.log".
std::string LogFilePathForBase(const char* basePath);
}  // namespace korva
