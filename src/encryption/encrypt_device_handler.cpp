// The encrypted-volume handler: a table of removable volumes with their volume-handle
// notifications, and the protection check that blocks unprotected ones. The checks (a WMI query,
// and a block action that may run for minutes) run on a worker thread of the handler's own, so the
// service's control handler never waits for them. A volume's handle is closed on a query-remove, a
// lock or a dismount, so the agent never vetoes a safe removal nor the lock that formatting, a disk
// check or an eject takes, and opened again when that fails or is over.
#include "encryption/encrypt_device_handler.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "encryption/core/volume_rules.h"
#include "encryption/encrypted_volumes.h"
#include "encryption/wmi_core.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/monitoring_state.h"
#include "shared/notification_calls.h"
#include "shared/service_state.h"
#include "win/unique_handle.h"

namespace {

constexpr const char* kHandler = "EncryptDeviceHandler::DeviceHandler";
constexpr const char* kCheck = "EncryptDeviceHandler::CheckAndBlock";

struct DriveEntry {
  std::wstring id;  // how lines and queries name it: "E:", or its GUID name when it had no letter
  std::vector<std::wstring> deviceChain;
  korva::win::UniqueFileHandle volume;  // kept open while its notification lives
  std::vector<HDEVNOTIFY> notifications;
  bool removalAsked = false;  // closed for a removal: only that removal's failure opens it again
  bool blocked = false;
  int failedBlocks = 0;  // blocks in a row that failed; a done one sets it back to 0
  int unreadChecks = 0;  // checks in a row that could not read the protection; one that did sets it back to 0
};

// A failed block is tried again after this long, until this many have failed in a row; after that
// every ten minutes, for as long as the volume stays and monitoring is on: a block decided is not
// given up to a fault outside the agent (a missing or hanging action program, a busy provider).
constexpr unsigned long kBlockRetryDelayMs = 60000;
constexpr unsigned long kSlowRetryDelayMs = 600000;
constexpr int kMaxFailedBlocks = 3;
std::atomic<unsigned long> g_blockRetryDelayMs{kBlockRetryDelayMs};
std::atomic<unsigned long> g_slowRetryDelayMs{kSlowRetryDelayMs};

// Guards the table: the device events, the settings monitor and the stop reach the handler from
// different threads. Never held while a program runs.
std::mutex g_mutex;
// Keyed by the volume's GUID name, which stays whatever letter it gets or loses after its arrival
// (by its id where the source names none).
std::map<std::wstring, DriveEntry> g_drives;
// Notifications already cancelled while the table still lists them: never cancelled twice.
std::set<HDEVNOTIFY> g_cancelled;
// Notifications whose cancel failed when their entry left the table: tried again at the next stop or
// suspend, so that none stays registered for the rest of the process. Bounded: the oldest goes
// first (logged).
std::vector<HDEVNOTIFY> g_uncancelled;
constexpr std::size_t kMaxUncancelled = 64;
std::atomic<bool> g_wmiAsked{false};
std::atomic<korva::VolumeBlocker> g_blocker{nullptr};

// After an arrival the table is looked at again this long after it, twice: the disk's arrival can
// come before its volume is mounted, and no other event brings that volume.
constexpr unsigned long kLateVolumeLookMs[] = {2000, 10000};
std::atomic<bool> g_lateLooks{true};

std::vector<std::wstring> AddNewVolumes(std::vector<korva::RemovableVolume> volumes);
// Moves on at each stop and suspend, which empty the table: a look asked for before one adds nothing
// after it.
std::uint64_t g_tableEpoch = 0;  // guarded by g_mutex

// The first question to the provider connects to it, on the checks' worker and without the table's
// lock: the connection has no time limit of its own (the stall watch below only reports it), and a
// WMI service that does not answer must not hold the control handler's thread. A missing namespace
// is logged then, before the first answer.
void ConnectOnFirstUse() {
  if (g_wmiAsked.exchange(true)) return;
  CWMI_Core* wmi = CWMI_Core::GetWMIInstance(korva::kVolumeEncryptionNamespace);
  if (wmi == nullptr || !wmi->IsConnected()) {
    KLOG_ERROR_AS(kHandler) << "Volume encryption status is not available (WMI connection result "
                            << HresultText(WmiFirstConnectionResult()) << ").";
  }
}

// The drives waiting for their check, in order, each at most once, and the thread that checks them.
// It starts with the first check asked for and ends with the stop (the next check starts a new one).
class CheckWorker {
 public:
  // Queues the drives not queued already; a queue at its bound takes no more (logged).
  void Queue(const std::vector<std::wstring>& volumes) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++asked_;
    QueueEach(volumes);
    StartIfStopped();
    lock.unlock();
    wake_.notify_all();
  }

  // Looks for volumes the table lacks once each of `delaysMs` has passed, and queues their checks;
  // an arrival's looks replace an earlier one's, and a stop drops them.
  void LookLater(const std::vector<unsigned long>& delaysMs, std::uint64_t tableEpoch) {
    std::unique_lock<std::mutex> lock(mutex_);
    const ULONGLONG now = GetTickCount64();
    looksEpoch_ = tableEpoch;
    looks_.clear();
    for (const unsigned long delayMs : delaysMs) looks_.push_back(now + delayMs);
    StartIfStopped();
    lock.unlock();
    wake_.notify_all();
  }

  // Queues the drive once `delayMs` has passed (a failed block tried again); a stop drops it.
  void QueueLater(const std::wstring& volume, unsigned long delayMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!thread_.joinable()) return;  // stopped: the next arrival checks the drive anew
    const ULONGLONG due = GetTickCount64() + delayMs;
    const auto waiting =
        std::find_if(later_.begin(), later_.end(), [&volume](const auto& l) { return l.first == volume; });
    if (waiting != later_.end()) {
      waiting->second = due;
    } else if (later_.size() < kMaxQueued) {
      later_.emplace_back(volume, due);
    }
    lock.unlock();
    wake_.notify_all();
  }

  // Waits until nothing is queued or being checked; false when `timeoutMs` passed first. Checks
  // due later do not count.
  bool WaitIdle(unsigned long timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return idle_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                          [this] { return queue_.empty() && checking_ == 0; });
  }

  // The drives queued for their check now (not those due later).
  std::size_t Waiting() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return queue_.size();
  }

  // Drops what is queued, lets a check under way finish for up to `timeoutMs`, and ends the thread.
  // A check that outlives the wait (a block action that hangs) is left to finish on its own; its
  // thread ends after it.
  void Stop(unsigned long timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!thread_.joinable()) return;
    queue_.clear();
    later_.clear();
    looks_.clear();
    found_.clear();
    foundQueued_ = 0;
    ++generation_;
    wake_.notify_all();
    // Only the thread of this generation is waited for: a check asked for while it ends starts a
    // thread of the next, which this stop does not wait on.
    std::thread last = std::move(thread_);
    const std::shared_ptr<bool> ended = std::move(threadEnded_);
    if (idle_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&ended] { return *ended; })) {
      lock.unlock();
      last.join();
    } else {
      KLOG_WARNING_AS(kHandler) << "A volume check is still running at the stop; it is not waited for.";
      last.detach();
    }
  }

 private:
  static constexpr std::size_t kMaxQueued = 64;
  static constexpr unsigned long kFailedTurnPauseMs = 5000;

  // With the lock held: queues the drives not queued already, while the queue is below its bound.
  void QueueEach(const std::vector<std::wstring>& volumes) {
    for (const std::wstring& volume : volumes) QueueOne(volume);
  }

  // With the lock held: queues the drive unless it is queued already or the queue is at its bound.
  void QueueOne(const std::wstring& volume) {
    if (std::find(queue_.begin(), queue_.end(), volume) != queue_.end()) return;
    if (queue_.size() >= kMaxQueued) {
      KLOG_WARNING_AS(kHandler) << "The check of " << volume << " is dropped: " << kMaxQueued
                                << " drives are waiting already.";
      return;
    }
    queue_.push_back(volume);
  }

  // With the lock held: queues what the last look found, one by one; a drive whose queueing failed
  // (no memory) stays for the next turn, so a volume the look put in the table is never left unchecked.
  void QueueFound() {
    for (; foundQueued_ < found_.size(); ++foundQueued_) QueueOne(found_[foundQueued_]);
    found_.clear();
    foundQueued_ = 0;
  }

  // With the lock held. A thread that could not be made leaves the worker stopped (the exception
  // goes to the caller's guard); the next check asked for tries again.
  void StartIfStopped() {
    if (thread_.joinable()) return;
    auto ended = std::make_shared<bool>(false);
    thread_ = std::thread([this, generation = generation_, ended] { Run(generation, *ended); });
    threadEnded_ = std::move(ended);
  }

  // Checks queued drives until a stop moves the generation on; sets `ended`, under the lock, last.
  // A turn that fails outside a check (no memory for the queue, a look that threw) is logged and
  // followed by the next after a pause: an ended thread would leave the worker looking started, and
  // no check would run again until the stop.
  void Run(unsigned generation, bool& ended) {
    const korva::win::ComInitialization com(COINIT_MULTITHREADED);
    std::unique_lock<std::mutex> lock(mutex_);
    while (generation == generation_) {
      if (!Turn(lock)) {
        // A stop that came while the turn ran (its wake-up then unheard), or an event's check asked
        // for since, ends the pause; a queue the failed turn left does not (it would fail again at
        // once, turn after turn).
        const std::uint64_t asked = asked_;
        wake_.wait_for(lock, std::chrono::milliseconds(kFailedTurnPauseMs),
                       [&] { return generation != generation_ || asked != asked_; });
      }
    }
    ended = true;
    idle_.notify_all();
  }

  // One turn of the loop: a look that is due, a check, or a wait for the next; the lock is held on
  // entry and on return. False when it failed (logged).
  bool Turn(std::unique_lock<std::mutex>& lock) noexcept {
    try {
      QueueFound();  // first, what an earlier turn's look found and could not queue
      ULONGLONG next = QueueDue(GetTickCount64());
      if (TakeDueLook(GetTickCount64(), next)) {
        const std::uint64_t epoch = looksEpoch_;
        lock.unlock();
        std::vector<std::wstring> found = LookForLateVolumes(epoch);
        lock.lock();
        found_ = std::move(found);
        QueueFound();
        return true;
      }
      if (queue_.empty()) {
        const ULONGLONG now = GetTickCount64();
        if (next == 0) {
          wake_.wait(lock);
        } else if (next > now) {
          wake_.wait_for(lock, std::chrono::milliseconds(next - now));
        }
        return true;
      }
      const std::wstring volume = std::move(queue_.front());
      queue_.pop_front();
      ++checking_;
      lock.unlock();
      EncryptDeviceHandler::CheckAndBlock(volume);  // guarded: it throws nothing
      lock.lock();
      --checking_;
      idle_.notify_all();
      return true;
    } catch (...) {
      if (!lock.owns_lock()) lock.lock();
      korva::log::GuardedVoid(kHandler, [] {
        KLOG_ERROR_AS(kHandler) << "The volume checks' worker failed a turn; it goes on in "
                                << kFailedTurnPauseMs / 1000 << " s.";
      });
      return false;
    }
  }

  // Whether a look is due by `now` (taken off the list); `next` becomes the earliest of the
  // others where that comes sooner.
  bool TakeDueLook(ULONGLONG now, ULONGLONG& next) {
    bool due = false;
    for (auto look = looks_.begin(); look != looks_.end();) {
      if (*look <= now) {
        due = true;
        look = looks_.erase(look);
        continue;
      }
      next = next == 0 ? *look : std::min(next, *look);
      ++look;
    }
    return due;
  }

  // The volumes mounted since the last look get their entry and notification; returns them. The
  // system is asked before the table's lock is taken, so the control handler never waits for it;
  // a stop or suspend since the arrival (the table emptied) leaves the table as it is.
  static std::vector<std::wstring> LookForLateVolumes(std::uint64_t tableEpoch) {
    std::vector<korva::RemovableVolume> volumes = korva::CurrentEncryptedVolumeSource().RemovableVolumes();
    std::vector<std::wstring> added;
    {
      const std::lock_guard<std::mutex> lock(g_mutex);
      if (tableEpoch != g_tableEpoch) return added;
      added = AddNewVolumes(std::move(volumes));
    }
    if (!added.empty()) {
      KLOG_INFO_AS(kHandler) << "A look after the arrival found " << added.size() << " volume(s) mounted since.";
    }
    return added;
  }

  // Moves the checks due by `now` to the queue; returns when the next of the others is due, 0 when
  // none waits.
  ULONGLONG QueueDue(ULONGLONG now) {
    ULONGLONG next = 0;
    for (auto waiting = later_.begin(); waiting != later_.end();) {
      if (waiting->second > now) {
        next = next == 0 ? waiting->second : std::min(next, waiting->second);
        ++waiting;
        continue;
      }
      if (std::find(queue_.begin(), queue_.end(), waiting->first) == queue_.end()) queue_.push_back(waiting->first);
      waiting = later_.erase(waiting);
    }
    return next;
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::wstring> queue_;
  std::vector<std::pair<std::wstring, ULONGLONG>> later_;  // drives checked again when their tick comes
  std::uint64_t looksEpoch_ = 0;                           // the table's epoch at the arrival that asked for the looks
  std::vector<ULONGLONG> looks_;                           // when the table is looked at again for new volumes
  std::vector<std::wstring> found_;                        // the last look's volumes, queued from the front
  std::size_t foundQueued_ = 0;                            // how many of them are queued
  std::uint64_t asked_ = 0;                                // checks an event asked for (Queue), counted
  unsigned generation_ = 0;
  int checking_ = 0;  // checks under way
  std::thread thread_;
  std::shared_ptr<bool> threadEnded_;  // set by thread_ as it ends
};

// Never destroyed: a check left running at the end of the process must not meet a freed worker.
CheckWorker& Checks() {
  static auto* const worker = new CheckWorker();
  return *worker;
}

// How long one check's question to the provider may run before the checks count as stalled.
constexpr unsigned long kStallLimitMs = 60000;
std::atomic<unsigned long> g_stallLimitMs{kStallLimitMs};

HRESULT CancelCallOn(DWORD threadId) { return CoCancelCall(threadId, 0); }
std::atomic<korva::CallCanceller> g_cancelCall{&CancelCallOn};

// Watches a check's question to the provider: the query and the connection are calls into the WMI
// service with no time limit of their own, and while one hangs no other volume is checked. Past the
// limit the stall is logged once, naming the volume and the drives queued behind it. A watch that
// cancels then cancels the asking thread's call, and again at each further limit while it lives
// (a cancel that came before the call, or found none, is not the last word): the check then ends as
// one that could not read the protection, which is asked again. The connection is never cancelled
// (one that failed is not made again in the process): it has a watch of its own that only tells,
// so its time never counts against the query's. A line tells when the checks move again.
class StallWatch {
 public:
  enum class Kind { kTellOnly, kCancel };

  StallWatch(std::wstring volume, Kind kind)
      : volume_(std::move(volume)), kind_(kind), started_(GetTickCount64()), thread_(GetCurrentThreadId()) {
    const unsigned long limit = g_stallLimitMs.load();
    if (!CreateTimerQueueTimer(&timer_, nullptr, &Fired, this, limit, kind == Kind::kCancel ? limit : 0,
                               WT_EXECUTEDEFAULT)) {
      timer_ = nullptr;
      korva::LogLastError(kCheck, "The check of ", volume_, " is not watched for a stall.");
    }
  }
  StallWatch(const StallWatch&) = delete;
  StallWatch& operator=(const StallWatch&) = delete;
  ~StallWatch() {
    // Waits for a report under way, so the stall is never told after its end.
    if (timer_ != nullptr) (void)DeleteTimerQueueTimer(nullptr, timer_, INVALID_HANDLE_VALUE);
    if (!stalled_.load()) return;
    korva::log::GuardedVoid(kCheck, [this] {
      KLOG_INFO_AS(kCheck) << "Volume checks move again: the check of " << volume_ << " ended after "
                           << (GetTickCount64() - started_) / 1000 << " s; " << Checks().Waiting()
                           << " volume(s) wait.";
    });
  }

 private:
  static VOID CALLBACK Fired(PVOID self, BOOLEAN /*timerFired*/) {
    auto* watch = static_cast<StallWatch*>(self);
    korva::log::GuardedVoid(kCheck, [watch] { watch->Report(); });
  }

  void Report() {
    const bool first = !stalled_.exchange(true);
    if (first) {
      KLOG_ERROR_AS(kCheck) << "Volume checks have stalled: the check of " << volume_ << " has run for "
                            << (GetTickCount64() - started_) / 1000 << " s; " << Checks().Waiting()
                            << " volume(s) wait.";
    }
    if (kind_ == Kind::kTellOnly) {
      if (first) {
        KLOG_WARNING_AS(kCheck)
            << "The connection to the volume-encryption provider is not cancelled; the checks wait for it.";
      }
      return;
    }
    if (const HRESULT cancelled = g_cancelCall.load()(thread_); SUCCEEDED(cancelled)) {
      KLOG_WARNING_AS(kCheck) << "The call to the volume-encryption provider is cancelled.";
    } else if (first) {
      KLOG_WARNING_AS(kCheck) << "The call to the volume-encryption provider could not be cancelled ("
                              << HresultText(cancelled) << "); it is tried again every " << g_stallLimitMs.load() / 1000
                              << " s.";
    }
  }

  std::wstring volume_;
  Kind kind_;
  ULONGLONG started_;
  DWORD thread_;
  HANDLE timer_ = nullptr;
  std::atomic<bool> stalled_{false};
};

// While it lives, the calling thread's calls to the provider can be cancelled by the stall watch.
class CallCancellation {
 public:
  CallCancellation() : enabled_(SUCCEEDED(CoEnableCallCancellation(nullptr))) {}
  CallCancellation(const CallCancellation&) = delete;
  CallCancellation& operator=(const CallCancellation&) = delete;
  ~CallCancellation() {
    if (enabled_) (void)CoDisableCallCancellation(nullptr);
  }

 private:
  bool enabled_;
};

// How long after the last of `failures` failed checks in a row the volume is checked again: a
// minute while they are fewer than three, then ten minutes while monitoring is on; 0 for no retry
// (turning monitoring on checks every volume anew).
unsigned long RetryDelayAfter(int failures) {
  if (failures < kMaxFailedBlocks) return g_blockRetryDelayMs.load();
  return MonitorEncryptedDevice.load() != 0 ? g_slowRetryDelayMs.load() : 0;
}

// How a run of failures ends its line: when the volume is checked again.
std::string WhenCheckedAgain(unsigned long delayMs) {
  if (delayMs == 0) return "monitoring is off; it is checked again when monitoring is turned on.";
  return "it is checked again in " + std::to_string(delayMs / 1000) + " s.";
}

// Tells what failed (`what`, "The block of E: failed"), a warning while fewer than three failures
// in a row, an error from the third, with when the volume is checked again, and queues that check.
void TellAndRetry(const std::wstring& key, int failures, const std::wstring& what) {
  const unsigned long delayMs = RetryDelayAfter(failures);
  if (failures < kMaxFailedBlocks) {
    KLOG_WARNING_AS(kCheck) << what << "; " << WhenCheckedAgain(delayMs);
  } else {
    KLOG_ERROR_AS(kCheck) << what << " " << failures << " times in a row; " << WhenCheckedAgain(delayMs);
  }
  if (delayMs != 0) Checks().QueueLater(key, delayMs);
}

// An unblocked volume whose protection could not be read (a busy provider, an answer that came too
// late) is not let through for good on that: it is asked about again (see RetryDelayAfter), and at
// the volume's next event. One the provider does not list (`listed` false) is asked again only while
// fewer than three answers in a row said so: the provider may lag behind an arrival, but a volume it
// does not handle would be asked about, and logged, every ten minutes for as long as it stays.
void RetryUnreadProtection(const std::wstring& key, DriveEntry& entry, bool listed) {
  const std::wstring& volume = entry.id;
  const int failures = ++entry.unreadChecks;
  if (!listed && failures >= kMaxFailedBlocks) {
    KLOG_ERROR_AS(kCheck) << "The protection of " << volume << " could not be read " << failures
                          << " times in a row; the volume's next event checks it again.";
    return;
  }
  TellAndRetry(key, failures, L"The protection of " + volume + L" could not be read");
}

// How a check ended, for the retries.
enum class CheckOutcome {
  kBlocked,
  kBlockFailed,
  kUnreadForNow,   // the protection could not be read, and asking again may read it
  kNotListed,      // the provider lists no such volume: asking again soon may, later hardly
  kUnreadForGood,  // nor will it be (no provider on this system)
};

// How a check that could not read the protection ended.
CheckOutcome UnreadOutcome(const korva::ProtectionAnswer& answer) {
  if (!answer.mayAnswerLater) return CheckOutcome::kUnreadForGood;
  return answer.notListed ? CheckOutcome::kNotListed : CheckOutcome::kUnreadForNow;
}

// A block that failed leaves the drive unblocked, so the next check blocks it again: one queued
// after it (see RetryDelayAfter), and the one of the volume's next event. A check that could not
// read the protection counts as one more failed block for a drive whose last block failed, so those
// retries go on, at their pace, rather than end with it. A check begun before a stop or suspend
// emptied the table (`tableEpoch` is the table's then) records nothing: the entry of that name now
// is a new one, checked anew by its own arrival.
void RecordCheckOutcome(const std::wstring& key, std::uint64_t tableEpoch, CheckOutcome outcome) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  const auto drive = g_drives.find(key);
  if (drive == g_drives.end() || tableEpoch != g_tableEpoch) return;
  DriveEntry& entry = drive->second;
  const std::wstring& volume = entry.id;
  if (outcome == CheckOutcome::kBlocked) {
    entry.failedBlocks = 0;
    return;
  }
  if (outcome != CheckOutcome::kBlockFailed) {
    if (entry.blocked) return;
    if (entry.failedBlocks == 0) {
      if (outcome != CheckOutcome::kUnreadForGood) {
        RetryUnreadProtection(key, entry, outcome != CheckOutcome::kNotListed);
      }
      return;
    }
  }
  entry.blocked = false;
  TellAndRetry(key, ++entry.failedBlocks, L"The block of " + volume + L" failed");
}

// How long the stop waits for a check under way.
constexpr unsigned long kStopWaitMs = 5000;

// The name the volume known by `key` is opened and asked about by: its GUID name where the table
// knows it by one, which stays its own whatever letter it gets or loses, else its id.
const std::wstring& AskedName(const std::wstring& key, const DriveEntry& entry) {
  return korva::encryption::IsVolumeGuidName(key) ? key : entry.id;
}

// Opens the volume and registers its handle notification with the service; the entry keeps both,
// or nothing when either step fails (logged).
void RegisterVolume(const std::wstring& key, DriveEntry& entry) {
  const std::wstring& volumeId = entry.id;
  const std::wstring device = korva::encryption::VolumeDevicePath(AskedName(key, entry));
  if (device.empty()) {
    KLOG_ERROR_AS(kHandler) << "The volume " << volumeId << " has no name it can be opened by.";
    return;
  }
  korva::win::UniqueFileHandle volume(CreateFileW(
      device.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!volume) {
    korva::LogLastError(kHandler, "Unable to open the volume ", device, ".");
    return;
  }
  DEV_BROADCAST_HANDLE filter{};
  filter.dbch_size = sizeof filter;
  filter.dbch_devicetype = DBT_DEVTYP_HANDLE;
  filter.dbch_handle = volume.get();
  const HDEVNOTIFY notification = korva::CurrentDeviceNotificationCalls().registerNotification(
      ServiceStatusHandle, &filter, DEVICE_NOTIFY_SERVICE_HANDLE);
  if (notification == nullptr) {
    korva::LogLastError(kHandler, "RegisterDeviceNotification failed for the volume ", device, ".");
    return;
  }
  KLOG_INFO_AS(kHandler) << "Volume " << volumeId << " registered for its notifications.";
  // A value the system hands out again is live once more: neither cancelled nor waiting for a retry.
  g_cancelled.erase(notification);
  g_uncancelled.erase(std::remove(g_uncancelled.begin(), g_uncancelled.end(), notification), g_uncancelled.end());
  entry.volume = std::move(volume);
  entry.notifications.push_back(notification);
}

// Cancels each notification not cancelled yet; returns those whose cancel failed (logged) and may
// succeed later: one the system calls no notification at all is not tried again, as its value may
// be handed out anew.
std::vector<HDEVNOTIFY> Unregister(const std::vector<HDEVNOTIFY>& notifications, const char* function) {
  std::vector<HDEVNOTIFY> failed;
  for (HDEVNOTIFY notification : notifications) {
    if (notification == nullptr || g_cancelled.count(notification) != 0) continue;
    if (korva::CurrentDeviceNotificationCalls().unregisterNotification(notification)) {
      g_cancelled.insert(notification);
      continue;
    }
    if (korva::LogLastError(function, "UnregisterDeviceNotification is failed.") != ERROR_INVALID_HANDLE) {
      failed.push_back(notification);
    }
  }
  return failed;
}

// Cancels an entry's notifications as it leaves the table; a failed cancel waits for the next try.
void DropNotifications(const std::vector<HDEVNOTIFY>& notifications, const char* function) {
  for (HDEVNOTIFY notification : Unregister(notifications, function)) {
    if (g_uncancelled.size() >= kMaxUncancelled) {
      KLOG_WARNING_AS(function) << "A notification whose cancel failed is no longer tried again: " << kMaxUncancelled
                                << " are waiting already.";
      g_uncancelled.erase(g_uncancelled.begin());
    }
    g_uncancelled.push_back(notification);
  }
  for (HDEVNOTIFY notification : notifications) g_cancelled.erase(notification);
}

// Tries again the cancels that failed before; those that fail again wait for the next try.
void RetryFailedCancels(const char* function) {
  const std::vector<HDEVNOTIFY> waiting = std::exchange(g_uncancelled, {});
  DropNotifications(waiting, function);
}

// What the table knows a volume by: its GUID name, or its id where the source names none.
std::wstring KeyOf(const korva::RemovableVolume& volume) { return volume.name.empty() ? volume.volume : volume.name; }

// The names of the volumes there now, removable or not; nothing when the list could not be had whole.
std::optional<std::set<std::wstring>> PresentVolumeNames() {
  std::optional<std::vector<std::wstring>> names = korva::CurrentEncryptedVolumeSource().VolumeNames();
  if (!names) return std::nullopt;
  return std::set<std::wstring>(names->begin(), names->end());
}

// The removable volumes not yet in the table get an entry and a notification; returns their ids. An
// entry left without a notification (its volume could not be opened or registered then) is
// registered again, and returned when that works: no event of its own would ever come for it. One
// closed for a removal under way is left to that removal's end.
// With the table's lock held; `volumes` asked of the source before it was taken.
std::vector<std::wstring> AddNewVolumes(std::vector<korva::RemovableVolume> volumes) {
  std::vector<std::wstring> added;
  // Room for every one first, and a failure part-way (no memory) still returns those put in the
  // table and registered before it: no later arrival would take them again, so they are checked now.
  added.reserve(volumes.size());
  korva::log::GuardedVoid(kHandler, [&] {
    for (korva::RemovableVolume& volume : volumes) {
      std::wstring key = KeyOf(volume);
      if (volume.volume.empty()) continue;
      if (const auto known = g_drives.find(key); known != g_drives.end()) {
        DriveEntry& entry = known->second;
        if (!entry.notifications.empty() || entry.removalAsked) continue;
        RegisterVolume(key, entry);
        if (!entry.notifications.empty()) added.push_back(std::move(key));  // reserved: a move cannot throw
        continue;
      }
      DriveEntry& entry = g_drives[key];
      entry.id = std::move(volume.volume);
      entry.deviceChain = std::move(volume.deviceChain);
      RegisterVolume(key, entry);
      added.push_back(std::move(key));
    }
  });
  return added;
}

// What a volume's handle is closed for, as its line says.
const char* ReleaseCause(korva::encryption::VolumeRelease why) {
  switch (why) {
    case korva::encryption::VolumeRelease::kRemoval:
      return "its removal was asked for";
    case korva::encryption::VolumeRelease::kLock:
      return "it is being locked";
    case korva::encryption::VolumeRelease::kDismount:
      return "it is being dismounted";
  }
  return "";
}

void LogReopen(const char* function, korva::encryption::VolumeReopen why, const std::wstring& volume) {
  switch (why) {
    case korva::encryption::VolumeReopen::kRemovalFailed:
      KLOG_INFO_AS(function) << "The removal of " << volume << " failed; opening it again.";
      break;
    case korva::encryption::VolumeReopen::kLockFailed:
      KLOG_INFO_AS(function) << "The lock of " << volume << " failed; opening it again.";
      break;
    case korva::encryption::VolumeReopen::kDismountFailed:
      KLOG_INFO_AS(function) << "The dismount of " << volume << " failed; opening it again.";
      break;
    case korva::encryption::VolumeReopen::kUnlocked:
      KLOG_INFO_AS(function) << "Volume " << volume << " unlocked; opening it again.";
      break;
    case korva::encryption::VolumeReopen::kMounted:
      KLOG_INFO_AS(function) << "Volume " << volume << " mounted; opening it again.";
      break;
  }
}

// The volume whose notification an event came through; empty when it is none of ours.
std::wstring VolumeOfEvent(PDEV_BROADCAST_HDR header) {
  if (header == nullptr || header->dbch_devicetype != DBT_DEVTYP_HANDLE) return {};
  const HDEVNOTIFY notification = reinterpret_cast<const DEV_BROADCAST_HANDLE*>(header)->dbch_hdevnotify;
  for (const auto& [volume, entry] : g_drives) {
    for (HDEVNOTIFY registered : entry.notifications) {
      if (registered == notification && notification != nullptr) return volume;
    }
  }
  return {};
}

}  // namespace

void EncryptDeviceHandler::DeviceHandler(PDEV_BROADCAST_HDR header, int kind, int subKind) {
  korva::log::ScopedGuardedVoid(kHandler, [&] {
    // A stop empties the table and ends the worker: an event after it (a settings change that turned
    // monitoring on just as the stop began) must not fill it again, nor start a worker no stop ends.
    if (ServiceIsEnding()) {
      KLOG_INFO_AS(kHandler) << "The service is ending; the event is not handled.";
      return;
    }
    const korva::win::ComInitialization com(COINIT_MULTITHREADED);
    std::vector<std::wstring> toCheck;
    bool lookAgain = false;
    std::uint64_t epoch = 0;
    // Asked before the table's lock is taken: the lock is never held while the system answers.
    std::vector<korva::RemovableVolume> volumes;
    if (kind == korva::encryption::kVolumeArrived || kind == korva::encryption::kMonitoringTurnedOn) {
      volumes = korva::CurrentEncryptedVolumeSource().RemovableVolumes();
    }
    {
      const std::lock_guard<std::mutex> lock(g_mutex);
      KLOG_INFO_AS(kHandler) << "Kind :" << kind << " SubKind :" << subKind;
      switch (kind) {
        case korva::encryption::kVolumeArrived:
          toCheck = AddNewVolumes(std::move(volumes));
          lookAgain = g_lateLooks.load();
          epoch = g_tableEpoch;
          break;
        case korva::encryption::kVolumeHandleEvent:
          if (std::wstring volume = VolumeOfEvent(header); !volume.empty()) {
            toCheck.push_back(std::move(volume));
          } else {
            KLOG_WARNING_AS(kHandler) << "The event came for a volume that is not registered; ignored.";
          }
          break;
        case korva::encryption::kMonitoringTurnedOn:
          (void)AddNewVolumes(std::move(volumes));  // every volume is checked below, the new ones among them
          // Whatever became of the blocks made before monitoring went off, each volume is judged
          // anew: one still unprotected is blocked again.
          for (auto& [key, entry] : g_drives) {
            entry.blocked = false;
            entry.failedBlocks = 0;
            entry.unreadChecks = 0;
            toCheck.push_back(key);
          }
          break;
        default:
          KLOG_WARNING_AS(kHandler) << "Unknown kind; nothing done.";
      }
    }
    // Checked on the worker, without the table's lock: the block action may run for minutes, and
    // the device events of the control handler must not wait for it.
    if (!toCheck.empty()) Checks().Queue(toCheck);
    if (lookAgain) {
      Checks().LookLater(std::vector<unsigned long>(std::begin(kLateVolumeLookMs), std::end(kLateVolumeLookMs)), epoch);
    }
  });
}

void EncryptDeviceHandler::CheckAndBlock(const std::wstring& key) {
  korva::log::ScopedGuardedVoid(kCheck, [&] {
    std::wstring volume;  // how lines name it
    std::wstring asked;   // how the provider is asked about it
    std::uint64_t epoch = 0;
    {
      const std::lock_guard<std::mutex> lock(g_mutex);
      const auto drive = g_drives.find(key);
      if (drive == g_drives.end()) {
        KLOG_INFO_AS(kCheck) << "Volume " << key << " left the table before its check.";
        return;
      }
      volume = drive->second.id;
      asked = AskedName(key, drive->second);
      epoch = g_tableEpoch;
    }
    korva::ProtectionAnswer answer;
    {
      const StallWatch connecting(volume, StallWatch::Kind::kTellOnly);
      ConnectOnFirstUse();
    }
    {
      const StallWatch asking(volume, StallWatch::Kind::kCancel);
      const CallCancellation cancellable;
      answer = korva::CurrentEncryptedVolumeSource().ProtectionStatus(asked);
    }
    if (!answer.status) {
      KLOG_WARNING_AS(kCheck) << "Protection status of " << volume << " unknown: " << answer.reason << ".";
      RecordCheckOutcome(key, epoch, UnreadOutcome(answer));
      return;
    }
    KLOG_INFO_AS(kCheck) << "Drive " << volume << " ProtectionStatus :" << *answer.status;
    {
      const std::lock_guard<std::mutex> lock(g_mutex);
      // A volume whose device went, or that a stop or suspend dropped, while it was checked is not
      // put back: an entry without its volume and notification would keep the next arrival from
      // taking it anew. Nor is an entry made anew since (a check that outlived the stop's wait) judged
      // by this check.
      const auto drive = g_drives.find(key);
      if (drive == g_drives.end() || epoch != g_tableEpoch) {
        KLOG_INFO_AS(kCheck) << "Drive " << volume << " left the table while it was checked.";
        return;
      }
      DriveEntry& entry = drive->second;
      entry.unreadChecks = 0;
      entry.blocked = korva::encryption::BlockStands(*answer.status, entry.blocked);
      // A volume read protected (or locked) ends a run of failed blocks: one failing after it is a
      // first failure again, tried a minute later.
      if (*answer.status != korva::encryption::kUnprotected) entry.failedBlocks = 0;
      if (!korva::encryption::ShouldBlock(MonitorEncryptedDevice.load() != 0, *answer.status, entry.blocked)) return;
      entry.blocked = true;
    }
    if (ServiceIsEnding()) {
      KLOG_INFO_AS(kCheck) << "Drive " << volume << " is not protected; the service is ending, so it is not blocked.";
      return;
    }
    KLOG_INFO_AS(kCheck) << "Drive " << volume << " is not protected; blocking it.";
    const korva::VolumeBlocker blocker = g_blocker.load();
    if (blocker == nullptr) {
      KLOG_ERROR_AS(kCheck) << "No volume blocker is set; " << volume << " is not blocked.";
      return;
    }
    RecordCheckOutcome(key, epoch, blocker() ? CheckOutcome::kBlocked : CheckOutcome::kBlockFailed);
  });
}

void EncryptDeviceHandler::UnregisterDiskNotification(const std::wstring& instancePath) {
  constexpr const char* kName = "EncryptDeviceHandler::UnregisterDiskNotification";
  korva::log::ScopedGuardedVoid(kName, [&] {
    // The device tree need not show the removed disk or stick among a volume's ancestors (a volume
    // hangs below the volume manager): a volume the system no longer lists leaves the table at any
    // removal too. Kept, it would keep the same stick, back with the same GUID name, from being
    // checked again. A list that could not be had whole drops nothing. Asked before the lock.
    const std::optional<std::set<std::wstring>> present = PresentVolumeNames();
    const std::lock_guard<std::mutex> lock(g_mutex);
    for (auto drive = g_drives.begin(); drive != g_drives.end();) {
      if (korva::encryption::BelongsToDevice(drive->second.deviceChain, instancePath)) {
        KLOG_INFO_AS(kName) << "Dropping the notifications of " << drive->second.id << ".";
      } else if (present && present->count(drive->first) == 0) {
        KLOG_INFO_AS(kName) << "Dropping the notifications of " << drive->second.id << ", whose volume is gone.";
      } else {
        ++drive;
        continue;
      }
      DropNotifications(drive->second.notifications, kName);
      drive = g_drives.erase(drive);
    }
  });
}

void EncryptDeviceHandler::ReleaseVolume(PDEV_BROADCAST_HDR header, korva::encryption::VolumeRelease why) {
  constexpr const char* kName = "EncryptDeviceHandler::ReleaseVolume";
  korva::log::ScopedGuardedVoid(kName, [&] {
    const std::lock_guard<std::mutex> lock(g_mutex);
    const std::wstring key = VolumeOfEvent(header);
    if (key.empty()) return;
    DriveEntry& entry = g_drives[key];
    if (why == korva::encryption::VolumeRelease::kRemoval) entry.removalAsked = true;
    if (!entry.volume) return;
    entry.volume.reset();
    KLOG_INFO_AS(kName) << "Volume " << entry.id << " closed: " << ReleaseCause(why) << ".";
  });
}

void EncryptDeviceHandler::ReopenVolume(PDEV_BROADCAST_HDR header, korva::encryption::VolumeReopen why) {
  constexpr const char* kName = "EncryptDeviceHandler::ReopenVolume";
  korva::log::ScopedGuardedVoid(kName, [&] {
    const std::lock_guard<std::mutex> lock(g_mutex);
    const std::wstring key = VolumeOfEvent(header);
    if (key.empty()) return;
    DriveEntry& entry = g_drives[key];
    if (why == korva::encryption::VolumeReopen::kRemovalFailed) entry.removalAsked = false;
    // Open already, or closed for a removal still under way: an unlock or a mount on the way out must
    // not veto it.
    if (entry.volume || entry.removalAsked) return;
    LogReopen(kName, why, entry.id);
    // The notifications were registered with the handle now closed: the new handle gets its own. Should
    // it not open, the old ones stay, and the volume's next event tries again.
    std::vector<HDEVNOTIFY> spent = std::exchange(entry.notifications, {});
    RegisterVolume(key, entry);
    if (!entry.volume) {
      entry.notifications = std::move(spent);
      return;
    }
    DropNotifications(spent, kName);
  });
}

void EncryptDeviceHandler::UnregisterAllDiskNotification() {
  constexpr const char* kName = "EncryptDeviceHandler::UnregisterAllDiskNotification";
  Checks().Stop(kStopWaitMs);
  korva::log::ScopedGuardedVoid(kName, [&] {
    const std::lock_guard<std::mutex> lock(g_mutex);
    KLOG_INFO_AS(kName) << "Going to unregister all the disk notifications.";
    // The table is emptied, and a check left running is told so, before anything that could fail:
    // an entry without its notification would only keep the volume open, vetoing its removal while
    // the machine sleeps, and keep the next arrival from adding it again: after a resume no check
    // would reach it. Emptied, the table takes every volume anew at the next arrival, and checks it.
    ++g_tableEpoch;
    const std::map<std::wstring, DriveEntry> dropped = std::exchange(g_drives, {});
    RetryFailedCancels(kName);
    // One drive's cancels failing outright (no memory) leaves the others' still to be made.
    for (const auto& drive : dropped) {
      korva::log::GuardedVoid(kName, [&] { DropNotifications(drive.second.notifications, kName); });
    }
  });
}

void korva::SetVolumeBlocker(VolumeBlocker blocker) { g_blocker.store(blocker); }

void korva::SetLateVolumeLooksForTest(bool on) { g_lateLooks.store(on); }

void korva::SetBlockRetryDelayForTest(unsigned long delayMs, unsigned long slowDelayMs) {
  g_blockRetryDelayMs.store(delayMs != 0 ? delayMs : kBlockRetryDelayMs);
  g_slowRetryDelayMs.store(slowDelayMs != 0 ? slowDelayMs : kSlowRetryDelayMs);
}

void korva::SetCheckStallForTest(unsigned long limitMs, CallCanceller cancel) {
  g_stallLimitMs.store(limitMs != 0 ? limitMs : kStallLimitMs);
  g_cancelCall.store(cancel != nullptr ? cancel : &CancelCallOn);
}

std::size_t korva::RegisteredVolumeNotificationCount() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  std::size_t count = 0;
  for (const auto& drive : g_drives) {
    for (HDEVNOTIFY notification : drive.second.notifications) count += g_cancelled.count(notification) == 0 ? 1 : 0;
  }
  return count;
}

bool korva::WaitForVolumeChecks(unsigned long timeoutMs) { return Checks().WaitIdle(timeoutMs); }

bool korva::VolumeHandleOpen(const std::wstring& volume) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  const auto drive = g_drives.find(volume);
  return drive != g_drives.end() && static_cast<bool>(drive->second.volume);
}

void korva::ResetEncryptedVolumesForTest() {
  Checks().Stop(kStopWaitMs);
  const std::lock_guard<std::mutex> lock(g_mutex);
  ++g_tableEpoch;
  g_drives.clear();
  g_cancelled.clear();
  g_uncancelled.clear();
}
