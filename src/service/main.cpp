// Process entry point of korvaAgentService.exe.
#include <windows.h>

#include "service/entry_point.h"

// Ends the process with ExitProcess rather than by returning: a return runs the C++ runtime's exit,
// which destroys the globals while threads the service left running (a stop's notification thread
// still waiting for a setup program, a timer's pass, a volume's check) may still use them.
// ExitProcess ends those threads first. Everything the process keeps is written by then: records
// reach the log file as they are made, and the last flushes have run.
int main(int argc, char* argv[]) { ExitProcess(static_cast<UINT>(korva::RunAgentServiceMain(argc, argv))); }
