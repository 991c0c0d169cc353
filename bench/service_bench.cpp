// Start and stop latency through the service control manager: StartServiceW to RUNNING and
// STOP to STOPPED, median of N runs, for the agent service and for a bare service (the floor).
// Usage: korva_service_bench [runs]   (the agent must be installed; the bare service is
// registered and removed here)
// With a timeline build of both services (KORVA_STARTUP_TIMELINE) it also prints each start-up
// step's median time and its share of the start, lined up against this program's StartServiceW.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

struct Timings {
  std::vector<double> startMs;
  std::vector<double> stopMs;
  std::vector<std::pair<double, double>> startWindows;  // StartServiceW called, RUNNING seen
};

double TicksToMs(long long ticks) {
  LARGE_INTEGER frequency{};
  QueryPerformanceFrequency(&frequency);
  return 1000.0 * static_cast<double>(ticks) / static_cast<double>(frequency.QuadPart);
}

double NowMs() {
  LARGE_INTEGER counter{};
  QueryPerformanceCounter(&counter);
  return TicksToMs(counter.QuadPart);
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

// One start and stop of a service, its times added to out.
bool MeasureOnce(SC_HANDLE service, Timings& out) {
  const double started = NowMs();
  if (!StartServiceW(service, 0, nullptr) || !WaitFor(service, SERVICE_RUNNING)) return false;
  const double running = NowMs();
  out.startMs.push_back(running - started);
  out.startWindows.emplace_back(started, running);
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
  return true;
}

std::wstring BesideMe(const wchar_t* name) {
  wchar_t path[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring folder(path, n);
  return L"\"" + folder.substr(0, folder.find_last_of(L'\\') + 1) + name + L"\"";
}

std::wstring TimelineOf(const wchar_t* service) {
  std::wstring path = BesideMe(service);
  return path.substr(1, path.size() - 2) + L".timeline";
}

// One run's marks as written by a timeline build: "created T step T step T ...".
std::vector<std::pair<std::string, double>> ParseTimelineLine(const std::string& line) {
  std::vector<std::pair<std::string, double>> marks;
  std::istringstream in(line);
  std::string step;
  long long ticks = 0;
  while (in >> step >> ticks) marks.emplace_back(step, TicksToMs(ticks));
  return marks;
}

std::vector<std::string> ReadLines(const std::wstring& path) {
  std::vector<std::string> lines;
  std::ifstream in(path.c_str());
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

// Per step, the median time since the previous mark, in the order of the first run; the first
// step runs from StartServiceW, a last one ("RUNNING seen") to when this program saw RUNNING.
void PrintSteps(const char* title, const std::wstring& timeline, const Timings& timings) {
  const std::vector<std::string> lines = ReadLines(timeline);
  if (lines.size() != timings.startWindows.size()) {
    if (!lines.empty())
      std::printf("%s: %zu timeline lines for %zu runs; no step table\n", title, lines.size(),
                  timings.startWindows.size());
    return;
  }
  std::vector<std::string> order;
  std::map<std::string, std::vector<double>> spans;
  for (std::size_t run = 0; run < lines.size(); ++run) {
    auto marks = ParseTimelineLine(lines[run]);
    auto seen = std::find_if(marks.begin(), marks.end(), [](const auto& mark) { return mark.first == "running"; });
    if (seen != marks.end()) marks.erase(seen + 1, marks.end());
    marks.emplace_back("RUNNING-seen", timings.startWindows[run].second);
    double previous = timings.startWindows[run].first;
    for (const auto& [step, at] : marks) {
      if (run == 0) order.push_back(step);
      spans[step].push_back(at - previous);
      previous = at;
    }
  }
  const double total = Median(timings.startMs);
  std::printf("%s: start-up steps, median ms since the previous mark (share of %.1f ms)\n", title, total);
  for (const std::string& step : order) {
    const double ms = Median(spans[step]);
    std::printf("  %-22s %8.2f ms %5.1f%%\n", step.c_str(), ms, total > 0 ? 100.0 * ms / total : 0.0);
  }
}

struct Measured {
  const wchar_t* name;  // service name, and its executable's without ".exe"
  const char* title;
  SC_HANDLE service = nullptr;
  bool registered = false;  // registered here, so removed here
  Timings times;
};

SC_HANDLE RegisterBeside(SC_HANDLE manager, Measured& measured) {
  const std::wstring path = BesideMe((std::wstring(measured.name) + L".exe").c_str());
  measured.service = CreateServiceW(manager, measured.name, measured.name, SERVICE_ALL_ACCESS,
                                    SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, path.c_str(),
                                    nullptr, nullptr, nullptr, nullptr, nullptr);
  measured.registered = measured.service != nullptr;
  if (measured.service == nullptr) measured.service = OpenServiceW(manager, measured.name, SERVICE_ALL_ACCESS);
  return measured.service;
}

void PrintRatio(const char* what, double value, double floor) {
  std::printf("%-34s %8.2fx\n", what, floor > 0 ? value / floor : 0.0);
}

}  // namespace

int wmain(int argc, wchar_t* argv[]) {
  const int runs = argc > 1 ? _wtoi(argv[1]) : 20;
  SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
  Measured bare{L"korvaBareService", "bare service", nullptr, false, {}};
  Measured bareDlls{L"korvaBareServiceDlls", "bare service loading user32 and ole32", nullptr, false, {}};
  Measured agent{L"korvaAgentService", "agent service", nullptr, false, {}};
  agent.service = OpenServiceW(manager, L"Tallowmere Korva - Agent", SERVICE_ALL_ACCESS);
  if (agent.service == nullptr) {
    std::printf("the agent service is not installed (run korvaAgentService.exe /i first)\n");
    return 1;
  }
  Measured* all[] = {&bare, &bareDlls, &agent};
  bool ok = RegisterBeside(manager, bare) != nullptr && RegisterBeside(manager, bareDlls) != nullptr;
  for (Measured* measured : all) DeleteFileW(TimelineOf(measured->name).c_str());
  // Interleaved, so that a change in the machine's load touches all three alike.
  for (int run = 0; ok && run < runs; ++run) {
    for (Measured* measured : all) ok = ok && MeasureOnce(measured->service, measured->times);
  }
  const DWORD error = GetLastError();
  for (Measured* measured : all) {
    if (measured->registered) DeleteService(measured->service);
    CloseServiceHandle(measured->service);
  }
  CloseServiceHandle(manager);
  if (!ok) {
    std::printf("measurement failed: %lu\n", error);
    return 1;
  }
  std::printf("runs %d, medians, StartServiceW to RUNNING and STOP to STOPPED\n", runs);
  for (const Measured* measured : all) {
    std::printf("%-40s start %8.1f ms   stop %9.1f ms\n", measured->title, Median(measured->times.startMs),
                Median(measured->times.stopMs));
  }
  const double agentStart = Median(agent.times.startMs);
  PrintRatio("start ratio agent/bare", agentStart, Median(bare.times.startMs));
  PrintRatio("start ratio agent/bare with DLLs", agentStart, Median(bareDlls.times.startMs));
  PrintRatio("stop ratio agent/bare", Median(agent.times.stopMs), Median(bare.times.stopMs));
  for (const Measured* measured : all) PrintSteps(measured->title, TimelineOf(measured->name), measured->times);
  return 0;
}
