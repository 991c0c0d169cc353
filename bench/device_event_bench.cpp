// Device event cost, in-process with real child processes: (1) the latency from DeviceEventNotify
// (a USB arrival) to the summary program's first act (its journal line), against a bare
// CreateProcessW of the same program (the floor); (2) an arrival/removal storm: events per second,
// and the process's handle count and private bytes before and after. Prints figures; asserts nothing.
// Usage: korva_device_event_bench.exe [latency runs (50)] [storm pairs (1000)]
#include <windows.h>
#include <dbt.h>
#include <psapi.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/arguments.h"
#include "bench/process_resources.h"
#include "bench/remove_tree.h"
#include "devicecontrol/device_notifications.h"
#include "devicecontrol/restore_cycle.h"
#include "settings/agent_parameters.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "shared/monitoring_state.h"
#include "win/strings.h"

namespace {

constexpr wchar_t kStickPath[] = L"\\\\?\\USB#VID_0781&PID_5567#4c530001#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";

double NowMs() {
  static const double frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<double>(f.QuadPart) / 1000.0;
  }();
  LARGE_INTEGER t;
  QueryPerformanceCounter(&t);
  return static_cast<double>(t.QuadPart) / frequency;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n == 0 ? 0.0 : (n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0);
}

std::wstring FolderOfThisProgram() {
  wchar_t path[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring text(path, n);
  return text.substr(0, text.find_last_of(L'\\'));
}

using korva::bench::RemoveTree;

// The stand-in helper's journal: one line per run.
class Journal {
 public:
  explicit Journal(std::wstring path) : path_(std::move(path)) {}
  [[nodiscard]] ULONGLONG Size() const {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(path_.c_str(), GetFileExInfoStandard, &data)) return 0;
    return (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  }
  [[nodiscard]] std::size_t Lines() const {
    std::size_t lines = 0;
    const HANDLE file = CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return 0;
    char buffer[65536];
    DWORD read = 0;
    while (ReadFile(file, buffer, sizeof buffer, &read, nullptr) && read > 0)
      lines += std::count(buffer, buffer + read, '\n');
    CloseHandle(file);
    return lines;
  }
  // Polls until the journal grows past `size`; false after `timeoutMs`.
  [[nodiscard]] bool WaitBeyond(ULONGLONG size, double timeoutMs) const {
    const double deadline = NowMs() + timeoutMs;
    while (Size() <= size) {
      if (NowMs() > deadline) return false;
      Sleep(1);
    }
    return true;
  }
  [[nodiscard]] bool WaitForLines(std::size_t lines, double timeoutMs) const {
    const double deadline = NowMs() + timeoutMs;
    while (Lines() < lines) {
      if (NowMs() > deadline) return false;
      Sleep(20);
    }
    return true;
  }

 private:
  std::wstring path_;
};

korva::bench::Resources Measure() { return korva::bench::Measure(GetCurrentProcess(), GetCurrentProcessId()); }

std::vector<std::byte> ArrivalBroadcast() {
  const std::wstring name = kStickPath;
  std::vector<std::byte> bytes(offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) +
                               (name.size() + 1) * sizeof(wchar_t));
  auto* header = reinterpret_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(bytes.data());
  header->dbcc_size = static_cast<DWORD>(bytes.size());
  header->dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
  std::memcpy(header->dbcc_name, name.c_str(), (name.size() + 1) * sizeof(wchar_t));
  return bytes;
}

// The floor: what starting the same program with the launcher's flags costs by itself.
// `untilJournal`: stop the clock at its journal line; otherwise at its exit.
double BareLaunchMs(const std::wstring& program, const std::wstring& arguments, const std::wstring& folder,
                    const Journal& journal, bool untilJournal) {
  std::wstring line = L"\"" + program + L"\" " + arguments;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION info{};
  const ULONGLONG before = journal.Size();
  const double start = NowMs();
  if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE | NORMAL_PRIORITY_CLASS,
                      nullptr, folder.c_str(), &startup, &info)) {
    return -1;
  }
  // A run whose line never came counts as failed (-1), not as the wait's bound.
  bool ran = true;
  if (untilJournal) {
    ran = journal.WaitBeyond(before, 10000);
  } else {
    WaitForSingleObject(info.hProcess, 10000);
  }
  const double elapsed = ran ? NowMs() - start : -1;
  WaitForSingleObject(info.hProcess, 10000);
  CloseHandle(info.hProcess);
  CloseHandle(info.hThread);
  return elapsed;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = korva::bench::PositiveArgument(argc, argv, 1, 50);
  const int pairs = korva::bench::PositiveArgument(argc, argv, 2, 1000);

  // A throw-away agent folder: bin\ with the stand-in under the device helpers' names, logs\.
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  const std::wstring root = std::wstring(temp) + L"korva-device-bench-" + std::to_wstring(GetCurrentProcessId());
  const std::wstring bin = root + L"\\bin";
  CreateDirectoryW(root.c_str(), nullptr);
  CreateDirectoryW(bin.c_str(), nullptr);
  CreateDirectoryW((root + L"\\logs").c_str(), nullptr);
  const std::wstring standIn = FolderOfThisProgram() + L"\\korvaStandIn.exe";
  for (const wchar_t* name : {L"korvaDevCtrlSummary.exe", L"devctrlaction64.exe", L"devctrlaction32.exe"}) {
    if (!CopyFileW(standIn.c_str(), (bin + L"\\" + name).c_str(), FALSE)) {
      std::printf("cannot copy %ls (%lu)\n", standIn.c_str(), GetLastError());
      return 1;
    }
  }
  const Journal journal(bin + L"\\standin-journal.txt");

  korva::ResetAgentParametersForTest();
  const std::string install = korva::win::WideToAnsi(root) + "\\";
  AgentParameters.installDirectory.reset(static_cast<char*>(std::calloc(install.size() + 1, 1)));
  std::memcpy(AgentParameters.installDirectory.get(), install.c_str(), install.size());
  // The installation folder is used only inside AgentInstallDir (or BasePath), as the registry would give it.
  AgentInstallDirGlobal = korva::win::WideToAnsi(root);
  // The service's default: info records are written.
  korva::log::InitializeServiceLogger(root + L"\\logs\\korva_agentservice.log", korva::log::kInfo);
  // The encrypted-volume check runs on every arrival, as when the agent's setting turns it on.
  MonitorEncryptedDevice.store(1);
  SkipRestoreUnpluggedBlocked.store(0);

  std::vector<std::byte> arrival = ArrivalBroadcast();
  auto* header = reinterpret_cast<PDEV_BROADCAST_HDR>(arrival.data());

  // (1) Latency: arrival to the summary program's journal line, one at a time.
  const std::wstring summary = bin + L"\\korvaDevCtrlSummary.exe";
  const std::wstring summaryArguments = L"-s ET_COL 1 0 \"USB\\VID_0781&PID_5567\\4C530001\"";
  for (int i = 0; i < 3; ++i) {  // warm the caches of the loader and the file system
    BareLaunchMs(summary, summaryArguments, bin, journal, false);
  }
  std::vector<double> ours;
  std::vector<double> floorExit;
  std::vector<double> floorJournal;
  for (int i = 0; i < runs; ++i) {
    const ULONGLONG before = journal.Size();
    const double start = NowMs();
    static_cast<void>(DeviceEventNotify(DBT_DEVICEARRIVAL, header));  // timed; its answer is not
    if (!journal.WaitBeyond(before, 10000)) {
      std::printf("the summary program did not run\n");
      return 1;
    }
    ours.push_back(NowMs() - start);
    Sleep(60);  // let it exit before the next run
    floorExit.push_back(BareLaunchMs(summary, summaryArguments, bin, journal, false));
    const double journalMs = BareLaunchMs(summary, summaryArguments, bin, journal, true);
    if (journalMs < 0) {
      std::printf("the summary program did not run when started directly\n");
      return 1;
    }
    floorJournal.push_back(journalMs);
  }
  const double oursMedian = Median(ours);
  const double exitMedian = Median(floorExit);
  const double journalMedian = Median(floorJournal);
  std::printf("Latency, USB arrival -> summary program's journal line, median of %d:\n", runs);
  std::printf("  DeviceEventNotify(DBT_DEVICEARRIVAL)     %8.2f ms\n", oursMedian);
  std::printf("  floor: CreateProcessW + wait for exit    %8.2f ms   ratio %.2fx\n", exitMedian,
              oursMedian / exitMedian);
  std::printf("  floor: CreateProcessW -> journal line    %8.2f ms   ratio %.2fx\n", journalMedian,
              oursMedian / journalMedian);

  // (2) Storm: arrival/removal pairs back to back. Removal waits for the action program (-c 12).
  const auto pair = [&] {
    static_cast<void>(DeviceEventNotify(DBT_DEVICEARRIVAL, header));
    static_cast<void>(DeviceEventNotify(DBT_DEVICEREMOVECOMPLETE, header));
  };
  for (int i = 0; i < 10; ++i) pair();  // warm-up: first-use allocations are not growth
  auto expectedLines = (std::size_t{3} * static_cast<std::size_t>(runs)) + 3 + 30;
  if (!journal.WaitForLines(expectedLines, 60000)) std::printf("  (the warm-up's runs are not all in the journal)\n");
  Sleep(500);
  const korva::bench::Resources before = Measure();
  const double start = NowMs();
  for (int i = 0; i < pairs; ++i) pair();
  const double elapsed = NowMs() - start;
  expectedLines += static_cast<std::size_t>(3 * pairs);
  const bool allRan = journal.WaitForLines(expectedLines, 120000);
  Sleep(500);
  const korva::bench::Resources after = Measure();
  std::printf("Storm, %d arrival/removal pairs (each: 2 summary runs, 1 waited action run):\n", pairs);
  std::printf("  %.1f s, %.1f events/s (%.1f ms per pair); all %zu helper runs journalled: %s\n", elapsed / 1000.0,
              2.0 * pairs / (elapsed / 1000.0), elapsed / pairs, expectedLines, allRan ? "yes" : "no");
  std::printf("  handles        before %6lu     after %6lu     (%+ld)     from the %s\n", before.handles, after.handles,
              static_cast<long>(after.handles) - static_cast<long>(before.handles), after.handleSource);
  std::printf(
      "  private bytes  before %6lu KB  after %6lu KB  (%+ld KB)  from %s\n",
      static_cast<unsigned long>(before.privateBytes / 1024), static_cast<unsigned long>(after.privateBytes / 1024),
      static_cast<long>(after.privateBytes / 1024) - static_cast<long>(before.privateBytes / 1024), after.memorySource);

  korva::log::ShutdownServiceLogger();
  korva::ResetAgentParametersForTest();
  RemoveTree(root);
  return 0;
}
