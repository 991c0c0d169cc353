// The service control handler and the process-wide flags it sets.
#pragma once

#include <windows.h>

#include <atomic>

#include "shared/service_state.h"

DWORD WINAPI HandlerEx(DWORD control, DWORD eventType, LPVOID eventData, LPVOID context);
