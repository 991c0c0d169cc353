// The device-event summary program, started and left to run, with the device instance path of each
// arrival and removal. The started programs are counted: past a bound, later events' summaries wait
// their turn on a thread of their own, so a device that arrives and leaves in a loop cannot start
// them without end.
#include "devicecontrol/summary_program.h"

#include <algorithm>
#include <cstddef>
#include <cwchar>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "devicecontrol/core/device_action_text.h"
#include "encryption/encrypt_device_handler.h"
#include "process/launch_gate.h"
#include "process/launcher.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "win/strings.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace {

namespace devicecontrol = korva::devicecontrol;

constexpr const char* kActionName = "ExecuteDeviceEventAction";
// How often the thread that starts waiting summaries looks for a free place.
constexpr DWORD kWaitingSummaryPollMs = 100;

struct SummaryStart {
  std::string program;
  std::string folder;
  std::string arguments;
};

struct SummaryRun {
  korva::win::UniqueHandle process;
  ULONGLONG startedMs = 0;
};

// The summary programs started and still holding a place, and the starts that wait for one. A run
// that ended is let go at the next look, so at most kMaxRunningSummaries process handles are kept.
// Never destroyed: the thread that starts waiting summaries may outlive static destruction.
struct SummaryRuns {
  std::mutex mutex;
  std::vector<SummaryRun> running;
  std::deque<SummaryStart> waiting;
  bool starterActive = false;
};

SummaryRuns& Runs() {
  static auto* runs = [] {
    auto* made = new SummaryRuns;
    made->running.reserve(devicecontrol::kMaxRunningSummaries);  // a start never allocates
    return made;
  }();
  return *runs;
}

// Lets go of the runs that ended, and of those that ran past their time (left to run, no longer
// counted). Under the runs' lock.
void ReleaseEndedRuns(SummaryRuns& runs) {
  const ULONGLONG now = GetTickCount64();
  auto& running = runs.running;
  running.erase(std::remove_if(running.begin(), running.end(),
                               [now](const SummaryRun& run) {
                                 const bool ended = WaitForSingleObject(run.process.get(), 0) != WAIT_TIMEOUT;
                                 const ULONGLONG ranMs = now - run.startedMs;
                                 if (devicecontrol::SummaryHoldsPlace(ended, ranMs)) return false;
                                 if (!ended) {
                                   KLOG_WARNING_AS(kActionName)
                                       << devicecontrol::kSummaryProgram << " (process "
                                       << GetProcessId(run.process.get()) << ") has run for " << ranMs / 1000
                                       << " s; it is left to run, and no longer holds back other summaries.";
                                 }
                                 return true;
                               }),
                running.end());
}

// Starts one summary program and logs its result, the system's own line at info level whatever the
// result. Under the runs' lock, so starts keep their events' order.
void StartSummary(SummaryRuns& runs, const SummaryStart& start) {
  SummaryRun run;
  const DWORD result = korva::process::StartApplicationKeepingProcess(start.program.c_str(), start.folder.c_str(),
                                                                      start.arguments.c_str(), run.process);
  KLOG_INFO_AS(kActionName) << "Error code :" << result;
  if (!run.process) return;
  run.startedMs = GetTickCount64();
  runs.running.push_back(std::move(run));
}

// Under the runs' lock: starts the first waiting summary when a place is free. True when one was
// started (the lock is then let go between starts, so an event's call waits for one start at most).
bool StartFirstWaiting(SummaryRuns& runs) {
  ReleaseEndedRuns(runs);
  if (runs.waiting.empty() || runs.running.size() >= devicecontrol::kMaxRunningSummaries) return false;
  StartSummary(runs, runs.waiting.front());
  runs.waiting.pop_front();
  return true;
}

// Starts the waiting summaries as places come free; ends when none waits.
DWORD WINAPI StartWaitingSummaries(LPVOID /*unused*/) {
  SummaryRuns& runs = Runs();
  const bool endedInTurn = korva::log::Guarded("StartWaitingSummaries", false, [&runs] {
    for (;;) {
      bool started = false;
      {
        const std::lock_guard lock(runs.mutex);
        if (runs.waiting.empty()) {
          runs.starterActive = false;
          return true;
        }
        started = StartFirstWaiting(runs);
      }
      if (!started) Sleep(kWaitingSummaryPollMs);
    }
  });
  if (!endedInTurn) {
    // Each later event's call then starts what fits, or makes a new thread for the rest.
    const std::lock_guard lock(runs.mutex);
    runs.starterActive = false;
  }
  korva::win::ReleaseUnusedStack();
  return 0;
}

// Under the runs' lock: a thread starts the waiting summaries unless one already does. When none can
// be made, each later event's call starts what fits.
void EnsureWaitingSummariesStart(SummaryRuns& runs) {
  if (runs.starterActive) return;
  const korva::win::UniqueHandle thread(CreateThread(nullptr, 0, StartWaitingSummaries, nullptr, 0, nullptr));
  if (!thread) {
    korva::LogLastError(kActionName, "The thread that starts waiting summaries could not be made.");
    return;
  }
  runs.starterActive = true;
}

// Starts the summary now, or lets it wait its turn, or drops it when too many wait already.
void StartOrQueueSummary(SummaryStart start) {
  SummaryRuns& runs = Runs();
  const std::lock_guard lock(runs.mutex);
  if (!runs.starterActive) {
    while (StartFirstWaiting(runs)) {
    }
  }
  ReleaseEndedRuns(runs);
  switch (devicecontrol::TurnOfNewSummary(runs.running.size(), runs.waiting.size())) {
    case devicecontrol::SummaryTurn::kStartNow:
      StartSummary(runs, start);
      return;
    case devicecontrol::SummaryTurn::kWait:
      KLOG_WARNING_AS(kActionName) << runs.running.size() << " " << devicecontrol::kSummaryProgram
                                   << " started before are still running; this event's summary waits its turn ("
                                   << runs.waiting.size() + 1 << " waiting): " << start.arguments;
      runs.waiting.push_back(std::move(start));
      EnsureWaitingSummariesStart(runs);
      return;
    case devicecontrol::SummaryTurn::kDrop:
      KLOG_ERROR_AS(kActionName) << runs.waiting.size()
                                 << " device-event summaries already wait; this one is dropped: " << start.arguments;
      KLOG_INFO_AS(kActionName) << "Error code :" << static_cast<DWORD>(ERROR_BUSY);
      EnsureWaitingSummariesStart(runs);
      return;
  }
}

// The interface path in a device-interface broadcast, never read past the structure's own size.
std::wstring_view InterfacePathOf(const DEV_BROADCAST_DEVICEINTERFACE_W* header) {
  if (header == nullptr) return {};
  constexpr std::size_t nameOffset = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
  if (header->dbcc_size <= nameOffset) return {};
  const std::size_t capacity = (header->dbcc_size - nameOffset) / sizeof(wchar_t);
  return {header->dbcc_name, wcsnlen(header->dbcc_name, capacity)};
}

// UTF-8 for the summary program; on failure the error is logged and the text stays empty.
std::string InstancePathUtf8(const std::wstring& instancePath) {
  // Up to the first NUL, as the path's C string reads.
  const std::wstring_view upToNul(instancePath.data(), std::min(instancePath.find(L'\0'), instancePath.size()));
  std::optional<std::string> utf8 = korva::win::TryWideToUtf8(upToNul);
  if (!utf8) {
    korva::LogLastError("ExecuteDeviceEventAction");
    return {};
  }
  return std::move(*utf8);
}

}  // namespace

DWORD ProcessSecureDeviceOperation(PDEV_BROADCAST_DEVICEINTERFACE_W header, DWORD eventType) {
  return korva::log::ScopedGuarded(__func__, static_cast<DWORD>(0), [&]() -> DWORD {
    constexpr const char* kName = "ProcessSecureDeviceOperation";
    const devicecontrol::InstancePath instance =
        devicecontrol::DeviceInstancePathFromInterfacePath(InterfacePathOf(header));
    if (instance.status == devicecontrol::InstancePathStatus::kNoHash) {
      KLOG_ERROR_AS(kName) << "Unable to find # in device instance path.";
      return 0;
    }
    if (instance.status == devicecontrol::InstancePathStatus::kNoSlash) {
      KLOG_ERROR_AS(kName) << "Unable to find slash in device instance path.";
      return 0;
    }
    int eventKind = devicecontrol::kArrivalEventKind;
    if (eventType != DBT_DEVICEARRIVAL) {
      // The device is gone: its volumes' notifications go with it.
      EncryptDeviceHandler::UnregisterDiskNotification(instance.path);
      eventKind = devicecontrol::kRemovalEventKind;
    }
    ExecuteDeviceEventAction(devicecontrol::kDeviceInterfaceEventClass, eventKind, instance.path);
    return 0;
  });
}

void ExecuteDeviceEventAction(int eventClass, int eventKind, const std::wstring& instancePath) {
  korva::log::ScopedGuardedVoid(__func__, [&] {
    const korva::AgentFolder install = korva::DeviceControlFolder();
    if (!korva::process::FolderAllowsStart(kActionName, devicecontrol::kSummaryProgram, install)) return;
    const std::string folder = devicecontrol::SummaryProgramFolder(install.path);
    const std::string program = devicecontrol::SummaryProgramPath(folder);
    const std::optional<std::string> arguments =
        devicecontrol::SummaryArguments(eventClass, eventKind, InstancePathUtf8(instancePath));
    if (!arguments) {
      KLOG_ERROR_AS(kActionName) << "The device instance path cannot be put on a command line; "
                                 << devicecontrol::kSummaryProgram << " is not started.";
      return;
    }
    StartOrQueueSummary(SummaryStart{program, folder, *arguments});
  });
}

void korva::devicecontrol::ForgetSummaryRunsForTest() {
  SummaryRuns& runs = Runs();
  const std::lock_guard lock(runs.mutex);
  runs.waiting.clear();
  runs.running.clear();
}

std::pair<std::size_t, std::size_t> korva::devicecontrol::SummaryRunsForTest() {
  SummaryRuns& runs = Runs();
  const std::lock_guard lock(runs.mutex);
  ReleaseEndedRuns(runs);
  return {runs.running.size(), runs.waiting.size()};
}
