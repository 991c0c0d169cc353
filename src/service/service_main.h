// The service's entry called by the dispatcher, and the process-wide handles it creates.
#pragma once

#include <windows.h>

extern HANDLE ServiceStopEvent;
extern SERVICE_STATUS_HANDLE ServiceStatusHandle;

void WINAPI ServiceMain(DWORD argc, LPWSTR* argv);
DWORD WINAPI HandlerEx(DWORD control, DWORD eventType, LPVOID eventData, LPVOID context);
