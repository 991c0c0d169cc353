// The named-pipe control channel towards the companion service.
#pragma once

#include <windows.h>

// Thread procedure: connects to the companion's pipe and passes its control codes on.
DWORD WINAPI PipeConnect(LPVOID parameter);
