// Process entry point of korvaAgentService.exe.
#include "service/entry_point.h"

int main(int argc, char* argv[]) { return korva::RunAgentServiceMain(argc, argv); }
