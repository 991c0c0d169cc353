// The program's entry: log set-up, process globals, and the choice between dispatcher, install
// and uninstall.
#pragma once

namespace korva {
// Everything main does; returns the process exit code.
int RunAgentServiceMain(int argc, char* argv[]);
}  // namespace korva
