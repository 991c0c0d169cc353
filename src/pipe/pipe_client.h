// The named-pipe control channel towards the companion service.
#pragma once

#include <windows.h>

// Thread procedure: until the stop event, connects to "\\.\pipe\qvpservice" (identification only),
// verifies the program serving it (a service's account, an image signed for the maker), and answers
// each control code it sends with SendControl's result; reconnects after 1 s, doubling up to 60 s.
DWORD WINAPI PipeConnect(LPVOID parameter);
