// The named-pipe control channel towards the companion service.
#pragma once

#include <windows.h>

// Runs on the caller's thread until the stop event (InvokeMainThread calls it directly; it keeps the
// thread-procedure signature): connects to "\\.\pipe\qvpservice" (identification only),
// verifies the program serving it (a service's account, an image signed for the maker), and answers
// each control code it sends with SendControl's result; reconnects after 1 s, doubling up to 60 s.
DWORD WINAPI PipeConnect(LPVOID parameter);
