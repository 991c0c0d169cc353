// Logging throughput: records per second through the service logger into a rolling file (one and
// four threads), the same bytes written raw with one _write per line (the targets' floor) and with
// one WriteFile per line (how the logger writes), and the cost of a suppressed record. Prints
// figures; asserts nothing.
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bench/arguments.h"
#include "bench/remove_tree.h"
#include "settings/core/log_format.h"
#include "settings/log.h"
#include "win/unique_handle.h"

namespace {

using Clock = std::chrono::steady_clock;
std::size_t g_lineLength = 0;  // as measured on the formatted line

// Message length giving 125-byte lines: "[ date ] [ tid ] [  INFO ] [ Bench ] " is 61 bytes, CRLF 2.
constexpr std::size_t kLineLength = 125;
// Made at its first use rather than before main.
const std::string& Filler() {
  static const std::string filler(kLineLength - 61 - 2 - 16, '.');
  return filler;
}

double Seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::wstring MakeFolder(const std::wstring& root, const wchar_t* name) {
  std::wstring folder = root + L"\\" + name;
  CreateDirectoryW(folder.c_str(), nullptr);
  return folder;
}

using korva::bench::RemoveTree;

// "Record number 0000123 ....": 16 characters and the filler, so every line has the same length.
void WriteRecords(int first, int count) {
  const std::string& filler = Filler();
  for (int i = first; i < first + count; ++i) {
    KLOG_INFO_AS("Bench") << "Record number " << (i % 10) << ' ' << filler;
  }
}

double LoggerRate(const std::wstring& folder, int threads, int records) {
  korva::log::InitializeServiceLogger(folder + L"\\korva_agentservice.log", korva::log::kInfo);
  WriteRecords(0, 1);  // opens the file
  const int each = records / threads;
  const auto start = Clock::now();
  std::vector<std::thread> workers;
  workers.reserve(static_cast<std::size_t>(threads));
  for (int t = 0; t < threads; ++t) workers.emplace_back(WriteRecords, t * each, each);
  for (std::thread& worker : workers) worker.join();
  const double elapsed = Seconds(start);
  korva::log::ShutdownServiceLogger();
  return each * threads / elapsed;
}

// Arithmetic that touches no memory but one word, standing in for a logger's own work between
// writes; `steps` sets its length.
volatile unsigned g_work = 0;
void Arithmetic(int steps) {
  for (int i = 0; i < steps; ++i) g_work = g_work * 31 + static_cast<unsigned>(i);
}

// One line as the logger lays it out.
std::string SampleLine() {
  std::string line;
  korva::logformat::AppendLine(line, "2024-03-07 09:05:01", 42, GetCurrentThreadId(), korva::log::kInfo, "Bench",
                               "Record number 7 " + Filler());
  g_lineLength = line.size();
  return line;
}

// The targets' floor: the same line written with one _write each (msvcrt) to a file opened for
// writing at its end, not in append mode. With `steps` above 0, the arithmetic runs before each
// write; `workSeconds` gets its time alone.
double RawRate(const std::wstring& folder, int records, int steps = 0, double* workSeconds = nullptr) {
  const std::string line = SampleLine();
  if (workSeconds != nullptr) {
    const auto start = Clock::now();
    for (int i = 0; i < records; ++i) Arithmetic(steps);
    *workSeconds = Seconds(start);
  }
  int fd = -1;
  _wsopen_s(&fd, (folder + L"\\raw.log").c_str(), _O_CREAT | _O_WRONLY | _O_BINARY | _O_NOINHERIT, _SH_DENYWR,
            _S_IREAD | _S_IWRITE);
  if (fd < 0) return 0;
  _lseek(fd, 0, SEEK_END);
  const auto start = Clock::now();
  for (int i = 0; i < records; ++i) {
    Arithmetic(steps);
    _write(fd, line.data(), static_cast<unsigned>(line.size()));
  }
  const double elapsed = Seconds(start);
  _close(fd);
  return records / elapsed;
}

// The same line written the way the logger writes it: one WriteFile each, without msvcrt's lock.
double RawWriteFileRate(const std::wstring& folder, int records) {
  const std::string line = SampleLine();
  const korva::win::UniqueFileHandle file(CreateFileW((folder + L"\\raw.log").c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                                      nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return 0;
  const auto start = Clock::now();
  DWORD written = 0;
  for (int i = 0; i < records; ++i)
    WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
  return records / Seconds(start);
}

double SuppressedNanoseconds(const std::wstring& folder, int records) {
  korva::log::InitializeServiceLogger(folder + L"\\korva_agentservice.log", korva::log::kInfo);
  const std::string& filler = Filler();
  const auto start = Clock::now();
  for (int i = 0; i < records; ++i) KLOG_DEBUG_AS("Bench") << "Suppressed record " << i << ' ' << filler;
  const double elapsed = Seconds(start);
  korva::log::ShutdownServiceLogger();
  return elapsed * 1e9 / records;
}

}  // namespace

// About 45 ns of arithmetic: a quarter of what the logger's own work costs a record here.
constexpr int kWorkSteps = 60;

int main(int argc, char* argv[]) {
  const int records = korva::bench::PositiveArgument(argc, argv, 1, 1000000);
  const int threadRecords = korva::bench::PositiveArgument(argc, argv, 2, records);
  const int rounds = korva::bench::PositiveArgument(argc, argv, 3, 3);
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  const std::wstring root = std::wstring(temp) + L"korva-log-bench-" + std::to_wstring(GetCurrentProcessId());
  CreateDirectoryW(root.c_str(), nullptr);

  // Rounds interleave the measurements; the best of each is kept, as other load only slows a run down.
  double raw = 0;
  double rawWriteFile = 0;
  double one = 0;
  double four = 0;
  double suppressed = 1e9;
  double withWork = 0;
  double workSeconds = 0;
  for (int round = 0; round < rounds; ++round) {
    const std::wstring folder = MakeFolder(root, std::to_wstring(round).c_str());
    raw = std::max(raw, RawRate(MakeFolder(folder, L"raw"), records));
    rawWriteFile = std::max(rawWriteFile, RawWriteFileRate(MakeFolder(folder, L"writefile"), records));
    double seconds = 0;
    const double rate = RawRate(MakeFolder(folder, L"work"), records, kWorkSteps, &seconds);
    if (rate > withWork) {
      withWork = rate;
      workSeconds = seconds;
    }
    one = std::max(one, LoggerRate(MakeFolder(folder, L"one"), 1, records));
    four = std::max(four, LoggerRate(MakeFolder(folder, L"four"), 4, threadRecords));
    suppressed = std::min(suppressed, SuppressedNanoseconds(MakeFolder(folder, L"off"), records * 20));
    RemoveTree(folder);
  }
  RemoveTree(root);

  std::printf("line length               %u bytes, best of %d rounds\n", static_cast<unsigned>(g_lineLength), rounds);
  std::printf("raw _write per line       %9.0f lines/s   (%d lines)\n", raw, records);
  std::printf("raw WriteFile per line    %9.0f lines/s   (%.2fx raw; the logger's own way of writing)\n", rawWriteFile,
              rawWriteFile / raw);
  std::printf("raw _write + arithmetic   %9.0f lines/s   (%.2fx raw; the arithmetic alone %.0f ns a line)\n", withWork,
              withWork / raw, workSeconds * 1e9 / records);
  std::printf("logger, 1 thread          %9.0f records/s (%.2fx raw, %.2fx raw WriteFile, %d records)\n", one,
              one / raw, one / rawWriteFile, records);
  std::printf("logger, 4 threads         %9.0f records/s (%.2fx raw, %.2fx raw WriteFile, %d records)\n", four,
              four / raw, four / rawWriteFile, threadRecords);
  std::printf("suppressed KLOG_DEBUG     %9.2f ns/record (max severity 4, %d records)\n", suppressed, records * 20);
  return 0;
}
