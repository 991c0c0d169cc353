// Start-up timeline of a benchmark build (KORVA_STARTUP_TIMELINE defined): each mark records the
// performance counter under a step name, and the process writes its marks, preceded by its own
// creation time, as one line appended to "<executable>.timeline" beside it. The counter is the
// same for every process of the machine, so a benchmark can line the steps up against its own
// StartServiceW. In the shipped build both calls compile to nothing.
#pragma once

#ifdef KORVA_STARTUP_TIMELINE

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <string>

namespace korva::timeline {

struct Mark {
  const char* step;
  LONGLONG ticks;
};

constexpr int kMaxMarks = 32;
inline Mark g_marks[kMaxMarks];
inline std::atomic<int> g_markCount{0};

// step: a name without spaces, with static storage.
inline void StartupMark(const char* step) {
  LARGE_INTEGER now{};
  QueryPerformanceCounter(&now);
  const int index = g_markCount.fetch_add(1);
  if (index < kMaxMarks) g_marks[index] = {step, now.QuadPart};
}

// The process's creation time on the performance counter's scale: the creation time is a wall
// clock time, so the counter and the wall clock are read together and the difference carried over.
inline LONGLONG CreationTicks() {
  FILETIME creation{};
  FILETIME exitTime{};
  FILETIME kernel{};
  FILETIME user{};
  if (!GetProcessTimes(GetCurrentProcess(), &creation, &exitTime, &kernel, &user)) return 0;
  LARGE_INTEGER frequency{};
  LARGE_INTEGER counter{};
  FILETIME wallNow{};
  QueryPerformanceFrequency(&frequency);
  QueryPerformanceCounter(&counter);
  GetSystemTimeAsFileTime(&wallNow);
  const auto asInteger = [](const FILETIME& time) {
    return static_cast<LONGLONG>((static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime);
  };
  const LONGLONG ago100ns = asInteger(wallNow) - asInteger(creation);
  return counter.QuadPart - ago100ns * frequency.QuadPart / 10000000;
}

inline void WriteStartupTimeline() {
  wchar_t path[MAX_PATH + 16];
  const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return;
  std::wstring file(path, length);
  const std::wstring::size_type dot = file.find_last_of(L'.');
  file = file.substr(0, dot) + L".timeline";
  std::string line = "created " + std::to_string(CreationTicks());
  const int count = g_markCount.load() < kMaxMarks ? g_markCount.load() : kMaxMarks;
  for (int i = 0; i < count; ++i) line += std::string(" ") + g_marks[i].step + " " + std::to_string(g_marks[i].ticks);
  line += "\n";
  FILE* out = _wfopen(file.c_str(), L"ab");
  if (out == nullptr) return;
  // A timeline that could not be written is one the benchmark reports as missing.
  (void)std::fwrite(line.data(), 1, line.size(), out);
  (void)std::fclose(out);
}

}  // namespace korva::timeline

#define KORVA_STARTUP_MARK(step) ::korva::timeline::StartupMark(step)
#define KORVA_WRITE_STARTUP_TIMELINE() ::korva::timeline::WriteStartupTimeline()

#else

#define KORVA_STARTUP_MARK(step) ((void)0)
#define KORVA_WRITE_STARTUP_TIMELINE() ((void)0)

#endif
