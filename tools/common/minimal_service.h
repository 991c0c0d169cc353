// The smallest service the service control manager can start and stop: it reports RUNNING at once
// and STOPPED as soon as it is asked to stop, doing nothing else. Shared by the test-only programs.
#pragma once

#include <windows.h>

namespace korva::tools {

namespace minimal_service {
inline SERVICE_STATUS_HANDLE status = nullptr;
inline HANDLE stop = nullptr;

inline void Report(DWORD state) {
  SERVICE_STATUS report{};
  report.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  report.dwCurrentState = state;
  report.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
  SetServiceStatus(status, &report);
}

inline DWORD WINAPI Handler(DWORD control, DWORD /*eventType*/, LPVOID /*eventData*/, LPVOID /*context*/) {
  if (control == SERVICE_CONTROL_STOP) SetEvent(stop);
  return NO_ERROR;
}

inline void WINAPI Main(DWORD /*argc*/, LPWSTR* /*argv*/) {
  stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  // An own-process service is matched to its process whatever name it registers under.
  status = RegisterServiceCtrlHandlerExW(L"", Handler, nullptr);
  if (status == nullptr) return;
  Report(SERVICE_RUNNING);
  WaitForSingleObject(stop, INFINITE);
  Report(SERVICE_STOPPED);
}
}  // namespace minimal_service

// Runs the dispatcher for the minimal service; 0 once it has stopped, else the dispatcher's error.
inline int RunMinimalService() {
  wchar_t name[] = L"";
  SERVICE_TABLE_ENTRYW table[] = {{name, minimal_service::Main}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(table) ? 0 : static_cast<int>(GetLastError());
}

}  // namespace korva::tools
