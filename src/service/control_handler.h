// The service control handler; the process-wide flags it sets are in shared/service_state.h.
#pragma once

#include <windows.h>

#include <atomic>

#include "shared/service_state.h"

DWORD WINAPI HandlerEx(DWORD control, DWORD eventType, LPVOID eventData, LPVOID context);
