// The footprint benchmark's Windows side: registers, starts, measures and removes a service by name.
//   korva_footprint_probe register <name> <program>   a demand-start own-process service
//   korva_footprint_probe start <name>                 start and wait for RUNNING (60 s at most)
//   korva_footprint_probe measure <name>               handles, threads and private bytes of its process
//   korva_footprint_probe remove <name>                stop (60 s at most) and delete
// Prints one line; exit code 0 on success.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <memory>
#include <string>
#include <type_traits>

#include "bench/process_resources.h"

namespace {

struct ServiceHandleCloser {
  void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using ServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceHandleCloser>;

bool WaitForState(SC_HANDLE service, DWORD state, SERVICE_STATUS_PROCESS& status) {
  for (int i = 0; i < 600; ++i) {
    DWORD needed = 0;
    if (!QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status,
                              &needed)) {
      return false;
    }
    if (status.dwCurrentState == state) return true;
    Sleep(100);
  }
  return false;
}

int Fail(const char* what) {
  std::printf("%s failed: %lu\n", what, static_cast<unsigned long>(GetLastError()));
  return 1;
}

}  // namespace

int wmain(int argc, wchar_t* argv[]) {
  if (argc < 3) {
    std::printf("usage: korva_footprint_probe register|start|measure|remove <name> [program]\n");
    return 2;
  }
  const std::wstring verb = argv[1];
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  if (!manager) return Fail("OpenSCManager");
  if (verb == L"register" && argc >= 4) {
    const ServiceHandle created(CreateServiceW(manager.get(), argv[2], argv[2], SERVICE_ALL_ACCESS,
                                               SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                               argv[3], nullptr, nullptr, nullptr, nullptr, nullptr));
    return created ? 0 : Fail("CreateService");
  }
  const ServiceHandle opened(OpenServiceW(manager.get(), argv[2], SERVICE_ALL_ACCESS));
  if (!opened) return Fail("OpenService");
  const SC_HANDLE service = opened.get();
  SERVICE_STATUS_PROCESS status{};
  if (verb == L"start") {
    if (!StartServiceW(service, 0, nullptr)) return Fail("StartService");
    return WaitForState(service, SERVICE_RUNNING, status) ? 0 : Fail("waiting for RUNNING");
  }
  if (verb == L"measure") {
    if (!WaitForState(service, SERVICE_RUNNING, status)) return Fail("QueryServiceStatusEx");
    const HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, status.dwProcessId);
    if (process == nullptr) return Fail("OpenProcess");
    const korva::bench::Resources r = korva::bench::Measure(process, status.dwProcessId);
    CloseHandle(process);
    std::printf("handles=%lu threads=%lu private-kb=%lu\n", static_cast<unsigned long>(r.handles),
                static_cast<unsigned long>(r.threads), static_cast<unsigned long>(r.privateBytes / 1024));
    return 0;
  }
  if (verb == L"remove") {
    SERVICE_STATUS plain{};
    ControlService(service, SERVICE_CONTROL_STOP, &plain);
    WaitForState(service, SERVICE_STOPPED, status);
    return DeleteService(service) ? 0 : Fail("DeleteService");
  }
  std::printf("unknown command\n");
  return 2;
}
