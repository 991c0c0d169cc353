// The named-pipe control channel towards the companion service.
#pragma once

#include <windows.h>

// Runs until the stop event, on a thread InvokeMainThread starts for it and waits on: connects to "\\.\pipe\qvpservice"
// (identification only), verifies the program serving it (a service's account, an image signed for the maker), and
// answers each control code it sends with SendControl's result; reconnects after 1 s, doubling up to 60 s.
DWORD WINAPI PipeConnect(LPVOID parameter);
