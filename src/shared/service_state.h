// The service host's process-wide state that other subsystems read: its status handle and the
// flags its control handler sets.
#pragma once

#include <windows.h>

#include <atomic>

// The service name, which is also its display name.
inline constexpr wchar_t kAgentServiceName[] = L"Tallowmere Korva - Agent";

// Written once by ServiceMain (on the thread the dispatcher starts for it) before any device
// notification is registered with it; null outside the running service.
extern SERVICE_STATUS_HANDLE ServiceStatusHandle;
// The stop event: made by ServiceMain's thread before the control handler is registered,
// signalled by the handler to stop the service, closed by ServiceMain at its end.
extern HANDLE ServiceStopEvent;
// Set by the control handler (dispatcher thread) when the system announces its shutdown, never
// cleared; every launcher of process/launcher.h reads it and refuses to start programs after it.
extern std::atomic<LONG> ShutdownInProgressFlag;
// Set by the control handler when a stop begins (before its notification's wait), never cleared.
extern std::atomic<bool> ServiceStopRequested;
// True once a stop or the system's shutdown has begun: work that would start programs or change
// the filter's state then is not begun any more (the stop's own steps excepted).
inline bool ServiceIsEnding() noexcept { return ServiceStopRequested.load() || ShutdownInProgressFlag.load() != 0; }
// The control handler's thread while it runs HandlerEx (0 otherwise). Device events run their work
// there, and nothing reached from it may wait for other threads' work: the stop and the shutdown
// reach the service through that same thread.
extern std::atomic<DWORD> ControlHandlerThreadId;
inline bool OnControlHandlerThread() noexcept { return ControlHandlerThreadId.load() == GetCurrentThreadId(); }
// Marks the calling thread as the control handler's for the mark's life.
class ControlHandlerThreadMark {
 public:
  ControlHandlerThreadMark() noexcept { ControlHandlerThreadId.store(GetCurrentThreadId()); }
  ~ControlHandlerThreadMark() { ControlHandlerThreadId.store(0); }
  ControlHandlerThreadMark(const ControlHandlerThreadMark&) = delete;
  ControlHandlerThreadMark& operator=(const ControlHandlerThreadMark&) = delete;
};
// When 1, a logon to session 0 does not trigger the logon policy. Read by the control handler;
// ExecuteConfiguration puts it back to 0 after each run. Nothing in this service sets it to 1.
extern std::atomic<LONG> AssumedLogonFlag;
// The temporary-access revoke queue (made by ServiceMain's thread, kept for the process's life)
// and its one-shot timer, armed by ServiceMain and re-armed by the revoke callback and the settings
// reaction.
extern HANDLE TempAccessRevokeTimerQueue;
extern HANDLE TempAccessRevokeTimer;
