// Definitions of the service host's shared state (see the header for who writes what).
#include "shared/service_state.h"

SERVICE_STATUS_HANDLE ServiceStatusHandle = nullptr;
HANDLE ServiceStopEvent = nullptr;
std::atomic<LONG> ShutdownInProgressFlag{0};
std::atomic<bool> ServiceStopRequested{false};
std::atomic<DWORD> ControlHandlerThreadId{0};
std::atomic<LONG> AssumedLogonFlag{0};
HANDLE TempAccessRevokeTimerQueue = nullptr;
HANDLE TempAccessRevokeTimer = nullptr;
