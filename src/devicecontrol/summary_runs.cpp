// The counted summary programs: their places, their queue and the thread that drains it. Launches
// are made outside the lock: a place is taken for a start under way, so an event's call never
// waits for another thread's launch, only for the few instructions of a look at the queue.
#include "devicecontrol/summary_runs.h"

#include <windows.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <string_view>
#include <vector>

#include "devicecontrol/core/device_action_text.h"
#include "process/launcher.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace korva::devicecontrol {

namespace {

constexpr const char* kActionName = "ExecuteDeviceEventAction";
// How often the thread that starts waiting summaries looks for a free place.
constexpr DWORD kWaitingSummaryPollMs = 100;

struct SummaryRun {
  win::UniqueHandle process;
  ULONGLONG startedMs = 0;  // UnbiasedMs
  std::string arguments;    // for its lines
  bool endAsked = false;    // hung, and told to end: counted until it has
};

// Milliseconds the machine has been awake: a summary program frozen while the machine slept has not
// run that time, and is not taken for hung at the first look after the wake.
ULONGLONG UnbiasedMs() {
  ULONGLONG hundredNs = 0;
  return QueryUnbiasedInterruptTime(&hundredNs) ? hundredNs / 10000 : GetTickCount64();
}

// Never destroyed: the thread that starts waiting summaries may outlive static destruction. A run
// that ended is let go at the next look, so at most kMaxRunningSummaries + kMaxOverdueSummaries
// process handles are kept.
struct SummaryRuns {
  std::mutex mutex;
  std::vector<SummaryRun> running;  // holding a place
  std::vector<SummaryRun> overdue;  // ran past their time, left to run without a place
  std::size_t startsUnderWay = 0;   // places taken by launches being made outside the lock
  std::deque<SummaryStart> waiting;
  bool starterActive = false;
  bool stopping = false;  // the stop has told of what waited: nothing waits any more
};

std::size_t PlacesTaken(const SummaryRuns& runs) noexcept { return runs.running.size() + runs.startsUnderWay; }

SummaryRuns& Runs() {
  static auto* runs = [] {
    auto* made = new SummaryRuns;
    // Adding a run never allocates, so nothing can throw between a launch and its count.
    made->running.reserve(kMaxRunningSummaries);
    made->overdue.reserve(kMaxOverdueSummaries);
    return made;
  }();
  return *runs;
}

bool Ended(const SummaryRun& run) { return WaitForSingleObject(run.process.get(), 0) != WAIT_TIMEOUT; }

// Whether the run has ended. One that has hung (kSummaryEndMs) is told to end, with a line, and
// stays counted until it has.
bool HasEnded(SummaryRun& run, ULONGLONG now) {
  if (Ended(run)) return true;
  if (run.endAsked || now - run.startedMs < kSummaryEndMs) return false;
  run.endAsked = true;
  KLOG_WARNING_AS(kActionName) << kSummaryProgram << " (process " << GetProcessId(run.process.get()) << ") has run for "
                               << (now - run.startedMs) / 1000 << " s; it is ended: " << run.arguments;
  if (!TerminateProcess(run.process.get(), ERROR_TIMEOUT)) {
    LogLastError(kActionName, "The summary program could not be ended.");
  }
  return false;
}

// Under the lock: lets go of the runs that ended, ends those that hung, and moves those that ran
// past their time (while there is room for them) out of their places, each with a line.
void LookAtRuns(SummaryRuns& runs) {
  const ULONGLONG now = UnbiasedMs();
  const auto ended = [now](SummaryRun& run) { return HasEnded(run, now); };
  runs.overdue.erase(std::remove_if(runs.overdue.begin(), runs.overdue.end(), ended), runs.overdue.end());
  for (auto run = runs.running.begin(); run != runs.running.end();) {
    const bool hasEnded = HasEnded(*run, now);
    const ULONGLONG ranMs = now - run->startedMs;
    // One told to end keeps its place until it has: it is not left to run.
    if (!SummaryGivesUpPlace(hasEnded, ranMs, runs.overdue.size()) || (!hasEnded && run->endAsked)) {
      ++run;
      continue;
    }
    if (!hasEnded) {
      KLOG_WARNING_AS(kActionName) << kSummaryProgram << " (process " << GetProcessId(run->process.get())
                                   << ") has run for " << ranMs / 1000
                                   << " s; it is left to run, and no longer holds back other summaries: "
                                   << run->arguments;
      runs.overdue.push_back(std::move(*run));
    }
    run = runs.running.erase(run);
  }
}

// Makes one launch in a place taken for it before (startsUnderWay), outside the lock, then counts
// the run in that place or gives the place back.
void LaunchInTakenPlace(SummaryRuns& runs, const SummaryStart& start) {
  SummaryRun run;
  try {
    run.arguments = start.arguments;
  } catch (...) {  // its lines go without the arguments; its place is given back all the same
  }
  const DWORD result = process::StartApplicationKeepingProcess(start.program.c_str(), start.folder.c_str(),
                                                               start.arguments.c_str(), run.process);
  // At info level whatever the result, deliberately: the system's own line.
  KLOG_INFO_AS(kActionName) << "Error code :" << result;
  run.startedMs = UnbiasedMs();
  const std::lock_guard lock(runs.mutex);
  --runs.startsUnderWay;
  if (run.process) runs.running.push_back(std::move(run));
}

// Starts the waiting summaries as places come free; ends when none waits.
DWORD WINAPI StartWaitingSummaries(LPVOID /*unused*/) {
  SummaryRuns& runs = Runs();
  const bool endedInTurn = log::Guarded("StartWaitingSummaries", false, [&runs] {
    for (;;) {
      std::unique_lock lock(runs.mutex);
      if (runs.waiting.empty()) {
        runs.starterActive = false;
        return true;
      }
      LookAtRuns(runs);
      if (PlacesTaken(runs) >= kMaxRunningSummaries) {
        lock.unlock();
        Sleep(kWaitingSummaryPollMs);
        continue;
      }
      const SummaryStart start = std::move(runs.waiting.front());
      runs.waiting.pop_front();
      ++runs.startsUnderWay;
      KLOG_INFO_AS(kActionName) << "The waiting summary starts now (" << runs.waiting.size()
                                << " still waiting): " << start.arguments;
      lock.unlock();
      LaunchInTakenPlace(runs, start);
    }
  });
  if (!endedInTurn) {
    // The next event's call makes a new thread for what still waits.
    const std::lock_guard lock(runs.mutex);
    runs.starterActive = false;
  }
  win::ReleaseUnusedStack();
  return 0;
}

// Under the lock: a thread starts the waiting summaries unless one already does. When none can be
// made, the next event's call tries again; the stop tells of what still waits.
void EnsureStarter(SummaryRuns& runs) {
  if (runs.starterActive || runs.waiting.empty()) return;
  const win::UniqueHandle thread(CreateThread(nullptr, 0, StartWaitingSummaries, nullptr, 0, nullptr));
  if (!thread) {
    LogLastError(kActionName, "The thread that starts waiting summaries could not be made.");
    return;
  }
  runs.starterActive = true;
}

// Under the lock, the queue full: the summary WaitingSummaryToDrop names goes, with its lines. True
// when that was the new one.
bool DropToMakeRoom(SummaryRuns& runs, const SummaryStart& start) {
  std::vector<std::string_view> devices;
  devices.reserve(runs.waiting.size());
  for (const SummaryStart& waiting : runs.waiting) devices.push_back(SummaryDeviceKey(waiting.device));
  const std::size_t index = WaitingSummaryToDrop(devices, SummaryDeviceKey(start.device));
  const bool dropsNew = index == runs.waiting.size();
  const std::string& dropped = dropsNew ? start.arguments : runs.waiting[index].arguments;
  KLOG_ERROR_AS(kActionName) << runs.waiting.size()
                             << " device-event summaries already wait; the oldest of the device with the most "
                                "waiting is dropped: "
                             << dropped;
  KLOG_INFO_AS(kActionName) << "Error code :" << static_cast<DWORD>(ERROR_BUSY);
  if (!dropsNew) runs.waiting.erase(runs.waiting.begin() + static_cast<std::ptrdiff_t>(index));
  return dropsNew;
}

// Under the lock: the lines of a summary that will not start because the service stops.
void TellNotStartedAtStop(const SummaryStart& start) {
  KLOG_ERROR_AS(kActionName) << "The service stops; the waiting summary is not started: " << start.arguments;
  KLOG_INFO_AS(kActionName) << "Error code :" << static_cast<DWORD>(ERROR_RETRY);
}

}  // namespace

void StartOrQueueSummary(SummaryStart start) {
  SummaryRuns& runs = Runs();
  {
    const std::lock_guard lock(runs.mutex);
    LookAtRuns(runs);
    SummaryTurn turn = TurnOfNewSummary(PlacesTaken(runs), runs.waiting.size());
    // The starter may be launching the last one that waited: a new one goes behind it.
    if (turn == SummaryTurn::kStartNow && runs.starterActive) turn = SummaryTurn::kWait;
    if (turn != SummaryTurn::kStartNow && runs.stopping) {
      TellNotStartedAtStop(start);
      return;
    }
    if (turn == SummaryTurn::kMakeRoom && DropToMakeRoom(runs, start)) return;
    if (turn != SummaryTurn::kStartNow) {
      KLOG_WARNING_AS(kActionName) << PlacesTaken(runs) << " " << kSummaryProgram
                                   << " started before are still running; this event's summary waits its turn ("
                                   << runs.waiting.size() + 1 << " waiting): " << start.arguments;
      runs.waiting.push_back(std::move(start));
      EnsureStarter(runs);
      return;
    }
    ++runs.startsUnderWay;
  }
  LaunchInTakenPlace(runs, start);
}

void DropWaitingSummaries() noexcept {
  log::GuardedVoid("DropWaitingSummaries", [] {
    SummaryRuns& runs = Runs();
    const std::lock_guard lock(runs.mutex);
    runs.stopping = true;
    for (const SummaryStart& start : runs.waiting) TellNotStartedAtStop(start);
    runs.waiting.clear();
  });
}

void ForgetSummaryRunsForTest() {
  SummaryRuns& runs = Runs();
  const std::lock_guard lock(runs.mutex);
  runs.waiting.clear();
  runs.running.clear();
  runs.overdue.clear();
  runs.stopping = false;
}

std::pair<std::size_t, std::size_t> SummaryRunsForTest() {
  SummaryRuns& runs = Runs();
  const std::lock_guard lock(runs.mutex);
  LookAtRuns(runs);
  return {PlacesTaken(runs), runs.waiting.size()};
}

}  // namespace korva::devicecontrol
