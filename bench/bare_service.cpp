// The floor for start and stop latency: a service that reports RUNNING at once and STOPPED as
// soon as it is asked to stop, doing nothing else.
#include <windows.h>

namespace {

SERVICE_STATUS_HANDLE g_status = nullptr;
HANDLE g_stop = nullptr;

void Report(DWORD state) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
  SetServiceStatus(g_status, &status);
}

DWORD WINAPI Handler(DWORD control, DWORD, LPVOID, LPVOID) {
  if (control == SERVICE_CONTROL_STOP) SetEvent(g_stop);
  return NO_ERROR;
}

void WINAPI BareServiceMain(DWORD, LPWSTR*) {
  g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  g_status = RegisterServiceCtrlHandlerExW(L"KorvaBareService", Handler, nullptr);
  Report(SERVICE_RUNNING);
  WaitForSingleObject(g_stop, INFINITE);
  Report(SERVICE_STOPPED);
}

}  // namespace

int wmain() {
  SERVICE_TABLE_ENTRYW table[] = {{const_cast<LPWSTR>(L"KorvaBareService"), BareServiceMain}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
