// Start and stop latency through the service control manager: StartServiceW to RUNNING and
// STOP to STOPPED, median of N runs, for the agent service and for a bare service (the floor).
// Usage: korva_service_bench [runs]   (the agent must be installed; the bare service is
// registered and removed here)
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

namespace {

struct Timings {
  std::vector<double> startMs;
  std::vector<double> stopMs;
};

double NowMs() {
  LARGE_INTEGER frequency{};
  LARGE_INTEGER counter{};
  QueryPerformanceFrequency(&frequency);
  QueryPerformanceCounter(&counter);
  return 1000.0 * static_cast<double>(counter.QuadPart) / static_cast<double>(frequency.QuadPart);
}

bool WaitFor(SC_HANDLE service, DWORD state) {
  SERVICE_STATUS status{};
  for (int i = 0; i < 60000; ++i) {
    if (!QueryServiceStatus(service, &status)) return false;
    if (status.dwCurrentState == state) return true;
    Sleep(1);
  }
  return false;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0.0 : values[values.size() / 2];
}

bool Measure(SC_HANDLE service, int runs, Timings& out) {
  for (int i = 0; i < runs; ++i) {
    const double started = NowMs();
    if (!StartServiceW(service, 0, nullptr) || !WaitFor(service, SERVICE_RUNNING)) return false;
    out.startMs.push_back(NowMs() - started);
    Sleep(300);  // let start-up work settle before stopping
    SERVICE_STATUS status{};
    const double stopping = NowMs();
    // Under Wine the agent's stop outlasts the control request (1053); it still stops.
    if (!ControlService(service, SERVICE_CONTROL_STOP, &status) && GetLastError() != ERROR_SERVICE_REQUEST_TIMEOUT) {
      return false;
    }
    if (!WaitFor(service, SERVICE_STOPPED)) return false;
    out.stopMs.push_back(NowMs() - stopping);
    Sleep(200);  // the process leaves after reporting STOPPED
  }
  return true;
}

std::wstring BesideMe(const wchar_t* name) {
  wchar_t path[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring folder(path, n);
  return L"\"" + folder.substr(0, folder.find_last_of(L'\\') + 1) + name + L"\"";
}

}  // namespace

int wmain(int argc, wchar_t* argv[]) {
  const int runs = argc > 1 ? _wtoi(argv[1]) : 20;
  SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
  SC_HANDLE agent = OpenServiceW(manager, L"Tallowmere Korva - Agent", SERVICE_ALL_ACCESS);
  if (agent == nullptr) {
    std::printf("the agent service is not installed (run korvaAgentService.exe /i first)\n");
    return 1;
  }
  const std::wstring barePath = BesideMe(L"korvaBareService.exe");
  SC_HANDLE bare = CreateServiceW(manager, L"KorvaBareService", L"KorvaBareService", SERVICE_ALL_ACCESS,
                                  SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                  barePath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
  if (bare == nullptr) bare = OpenServiceW(manager, L"KorvaBareService", SERVICE_ALL_ACCESS);
  Timings agentTimes;
  Timings bareTimes;
  const bool ok = Measure(bare, runs, bareTimes) && Measure(agent, runs, agentTimes);
  DeleteService(bare);
  CloseServiceHandle(bare);
  CloseServiceHandle(agent);
  CloseServiceHandle(manager);
  if (!ok) {
    std::printf("measurement failed: %lu\n", GetLastError());
    return 1;
  }
  const double agentStart = Median(agentTimes.startMs);
  const double bareStart = Median(bareTimes.startMs);
  const double agentStop = Median(agentTimes.stopMs);
  const double bareStop = Median(bareTimes.stopMs);
  std::printf("runs                     %d\n", runs);
  std::printf("start to RUNNING, agent  %8.1f ms (median)\n", agentStart);
  std::printf("start to RUNNING, bare   %8.1f ms (median)\n", bareStart);
  std::printf("start ratio agent/bare   %8.2fx\n", bareStart > 0 ? agentStart / bareStart : 0.0);
  std::printf("STOP to STOPPED, agent   %8.1f ms (median)\n", agentStop);
  std::printf("STOP to STOPPED, bare    %8.1f ms (median)\n", bareStop);
  std::printf("stop ratio agent/bare    %8.2fx\n", bareStop > 0 ? agentStop / bareStop : 0.0);
  return 0;
}
