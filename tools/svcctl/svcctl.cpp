// Test and demo tool: drives the agent service through the service control manager, which
// Wine's own sc.exe cannot do for user control codes.
//   korvaSvcCtl start              start and wait for RUNNING
//   korvaSvcCtl stop               send STOP and wait for STOPPED, then for the service's process to end
//                                  (at most 60 s in all); prints how long the stop took
//   korvaSvcCtl control <code>     send any control code
//   korvaSvcCtl query              print the current state
//   korvaSvcCtl wait <state> <ms>  wait until the state (its name, as query prints it, or number) is reached
//   korvaSvcCtl version            print the registered program's file version, then its path
// Exit code 0 on success, otherwise the Win32 error (or 1 for a time-out or bad arguments).
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>

namespace {

constexpr wchar_t kServiceName[] = L"Tallowmere Korva - Agent";
constexpr DWORD kDefaultWaitMs = 30000;
// The service's own stop handling waits at most 20 s for its stop notification; this leaves room.
constexpr DWORD kStopWaitMs = 60000;

const char* StateName(DWORD state) {
  switch (state) {
    case SERVICE_STOPPED:
      return "STOPPED";
    case SERVICE_START_PENDING:
      return "START_PENDING";
    case SERVICE_STOP_PENDING:
      return "STOP_PENDING";
    case SERVICE_RUNNING:
      return "RUNNING";
    case SERVICE_CONTINUE_PENDING:
      return "CONTINUE_PENDING";
    case SERVICE_PAUSE_PENDING:
      return "PAUSE_PENDING";
    case SERVICE_PAUSED:
      return "PAUSED";
    default:
      return "UNKNOWN";
  }
}

class Service {
 public:
  Service() {
    manager_ = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (manager_ != nullptr) {
      service_ = OpenServiceW(manager_, kServiceName,
                              SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS | SERVICE_PAUSE_CONTINUE |
                                  SERVICE_INTERROGATE | SERVICE_USER_DEFINED_CONTROL | SERVICE_QUERY_CONFIG);
    }
    if (service_ == nullptr) error_ = GetLastError();
  }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service() {
    if (service_ != nullptr) CloseServiceHandle(service_);
    if (manager_ != nullptr) CloseServiceHandle(manager_);
  }
  [[nodiscard]] SC_HANDLE get() const { return service_; }
  [[nodiscard]] DWORD error() const { return error_; }

 private:
  SC_HANDLE manager_ = nullptr;
  SC_HANDLE service_ = nullptr;
  DWORD error_ = 0;
};

// A state by its name ("STOPPED") or its number; 0 for neither.
DWORD StateNamed(const wchar_t* text) {
  for (DWORD state = SERVICE_STOPPED; state <= SERVICE_PAUSED; ++state) {
    const char* name = StateName(state);
    if (std::wstring(text) == std::wstring(name, name + std::strlen(name))) return state;
  }
  return static_cast<DWORD>(std::wcstoul(text, nullptr, 10));
}

int Fail(const char* what) {
  const DWORD error = GetLastError();
  std::printf("%s failed: %lu\n", what, static_cast<unsigned long>(error));
  return error != 0 ? static_cast<int>(error) : 1;
}

int WaitFor(SC_HANDLE service, DWORD state, DWORD timeoutMs) {
  const ULONGLONG deadline = GetTickCount64() + timeoutMs;
  SERVICE_STATUS status{};
  for (;;) {
    if (!QueryServiceStatus(service, &status)) return Fail("QueryServiceStatus");
    if (status.dwCurrentState == state) {
      std::printf("%s\n", StateName(state));
      return 0;
    }
    if (GetTickCount64() >= deadline) {
      std::printf("timed out in state %s\n", StateName(status.dwCurrentState));
      return 1;
    }
    Sleep(20);
  }
}

DWORD CurrentState(SC_HANDLE service) {
  SERVICE_STATUS status{};
  return QueryServiceStatus(service, &status) ? status.dwCurrentState : 0;
}

// Sends STOP and waits for STOPPED. A control that the service control manager timed out (1053)
// while the service reports STOP_PENDING is a stop still under way, not a failure: the service is
// inside its bounded stop handling (under Wine every stop takes that handler's full 20 s wait).
// The service's process, for waiting until it has ended: after STOPPED it still writes its last
// records and may hold its program file, which an installer is about to replace. Empty when the
// service is not running.
HANDLE OpenServiceProcess(SC_HANDLE service) {
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  if (!QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status,
                            &needed) ||
      status.dwProcessId == 0) {
    return nullptr;
  }
  return OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId);
}

int Stop(SC_HANDLE service) {
  const ULONGLONG started = GetTickCount64();
  const std::unique_ptr<void, decltype(&CloseHandle)> owned(OpenServiceProcess(service), &CloseHandle);
  const HANDLE process = owned.get();
  SERVICE_STATUS status{};
  if (!ControlService(service, SERVICE_CONTROL_STOP, &status)) {
    const DWORD error = GetLastError();
    const DWORD state = CurrentState(service);
    if (error != ERROR_SERVICE_REQUEST_TIMEOUT || (state != SERVICE_STOP_PENDING && state != SERVICE_STOPPED)) {
      std::printf("ControlService failed: %lu (state %s)\n", static_cast<unsigned long>(error), StateName(state));
      return static_cast<int>(error);
    }
    std::printf("stop requested; the service is %s (the manager stopped waiting for its handler): waiting for it\n",
                StateName(state));
  } else {
    std::printf("stop requested; state %s\n", StateName(status.dwCurrentState));
  }
  const ULONGLONG deadline = started + kStopWaitMs;
  DWORD state = CurrentState(service);
  while (state != SERVICE_STOPPED && state != 0 && GetTickCount64() < deadline) {
    Sleep(50);
    state = CurrentState(service);
  }
  const double seconds = static_cast<double>(GetTickCount64() - started) / 1000.0;
  if (state == SERVICE_STOPPED) {
    std::printf("STOPPED after %.1f s\n", seconds);
    const ULONGLONG now = GetTickCount64();
    if (process != nullptr &&
        WaitForSingleObject(process, now < deadline ? static_cast<DWORD>(deadline - now) : 0) != WAIT_OBJECT_0) {
      std::printf("the service's process did not end within %lu s\n", static_cast<unsigned long>(kStopWaitMs / 1000));
      return 1;
    }
    return 0;
  }
  if (state == 0) return Fail("QueryServiceStatus");
  std::printf("the service did not stop within %lu s: still %s\n", static_cast<unsigned long>(kStopWaitMs / 1000),
              StateName(state));
  return 1;
}

int Control(SC_HANDLE service, DWORD code) {
  SERVICE_STATUS status{};
  if (!ControlService(service, code, &status)) return Fail("ControlService");
  std::printf("control %lu sent; state %s\n", static_cast<unsigned long>(code), StateName(status.dwCurrentState));
  return 0;
}

// The service's program as registered (its quotes removed) and the file version its resource states.
int PrintVersion(SC_HANDLE service) {
  DWORD needed = 0;
  QueryServiceConfigW(service, nullptr, 0, &needed);
  std::string buffer(needed, '\0');
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (needed == 0 || !QueryServiceConfigW(service, config, needed, &needed)) return Fail("QueryServiceConfig");
  std::wstring path = config->lpBinaryPathName;
  if (!path.empty() && path.front() == L'"') path = path.substr(1, path.find(L'"', 1) - 1);
  const DWORD size = GetFileVersionInfoSizeW(path.c_str(), nullptr);
  std::string info(size, '\0');
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT fixedSize = 0;
  if (size == 0 || !GetFileVersionInfoW(path.c_str(), 0, size, info.data()) ||
      !VerQueryValueW(info.data(), L"\\", reinterpret_cast<void**>(&fixed), &fixedSize) || fixed == nullptr) {
    return Fail("GetFileVersionInfo");
  }
  std::printf("%lu.%lu.%lu.%lu %ls\n", static_cast<unsigned long>(HIWORD(fixed->dwFileVersionMS)),
              static_cast<unsigned long>(LOWORD(fixed->dwFileVersionMS)),
              static_cast<unsigned long>(HIWORD(fixed->dwFileVersionLS)),
              static_cast<unsigned long>(LOWORD(fixed->dwFileVersionLS)), path.c_str());
  return 0;
}

}  // namespace

int wmain(int argc, wchar_t* argv[]) {
  if (argc < 2) {
    std::printf("usage: korvaSvcCtl start|stop|control <code>|query|wait <state> <ms>|version\n");
    return 1;
  }
  const Service service;
  if (service.get() == nullptr) {
    std::printf("OpenService failed: %lu\n", static_cast<unsigned long>(service.error()));
    return static_cast<int>(service.error());
  }
  const wchar_t* verb = argv[1];
  if (std::wcscmp(verb, L"start") == 0) {
    if (!StartServiceW(service.get(), 0, nullptr)) {
      // Wine's new service process can die in its loader under load, before any of its code ran.
      if (GetLastError() != ERROR_INTERNAL_ERROR) return Fail("StartService");
      (void)std::fprintf(stderr,
                         "StartService: the service's process did not come up (error 1359); trying once more\n");
      Sleep(500);
      if (!StartServiceW(service.get(), 0, nullptr)) return Fail("StartService");
    }
    return WaitFor(service.get(), SERVICE_RUNNING, kDefaultWaitMs);
  }
  if (std::wcscmp(verb, L"stop") == 0) {
    return Stop(service.get());
  }
  if (std::wcscmp(verb, L"control") == 0 && argc >= 3) {
    return Control(service.get(), static_cast<DWORD>(std::wcstoul(argv[2], nullptr, 10)));
  }
  if (std::wcscmp(verb, L"query") == 0) {
    SERVICE_STATUS status{};
    if (!QueryServiceStatus(service.get(), &status)) return Fail("QueryServiceStatus");
    std::printf("%s\n", StateName(status.dwCurrentState));
    return 0;
  }
  if (std::wcscmp(verb, L"wait") == 0 && argc >= 4) {
    return WaitFor(service.get(), StateNamed(argv[2]), static_cast<DWORD>(std::wcstoul(argv[3], nullptr, 10)));
  }
  if (std::wcscmp(verb, L"version") == 0) return PrintVersion(service.get());
  std::printf("unknown command\n");
  return 1;
}
