// The service logger on spdlog: CustomFormatter (the line layout) and CustomRollingFileAppender
// (5 MiB x 5 files, header on each new file). The only file that includes spdlog.
//
// The log must survive faults outside the agent: while the file cannot be opened (another process
// holds it) or written (a full disk, a locked range), records wait in a bounded queue and the open
// is retried once a second; a roll whose move of the live file fails deletes nothing and is tried
// again later.
#include <windows.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "settings/core/log_format.h"
#include "settings/log.h"
#include "settings/log_file_writer.h"
#include "win/private_folder.h"
#include "win/reparse_points.h"
#include "win/unique_handle.h"

namespace korva::log {
std::atomic<int> g_maxSeverity{0};
}  // namespace korva::log

namespace {

std::atomic<korva::log::LogFileWriter> g_fileWriter{&WriteFile};

using korva::logformat::LocalTime;

// Our severities travel through spdlog's level field; anything outside 1-6 travels as `off`
// and prints as "UNKNOWN". spdlog numbers its levels from trace (0) up to critical (5), the
// reverse of ours (6 verbose ... 1 fatal).
static_assert(spdlog::level::trace == 0 && spdlog::level::critical == 5 && spdlog::level::off == 6);

spdlog::level::level_enum ToSpdlogLevel(int severity) noexcept {
  return severity >= 1 && severity <= 6 ? static_cast<spdlog::level::level_enum>(6 - severity) : spdlog::level::off;
}

// The severity of a level; 7 (printed as "UNKNOWN") for `off` and anything else.
int FromSpdlogLevel(spdlog::level::level_enum level) noexcept {
  const int n = static_cast<int>(level);
  return n >= 0 && n <= 5 ? 6 - n : 7;
}

// The local calendar time of a UTC second, as Windows shows it. The C library's localtime would
// follow a TZ variable in the environment instead of the system's time zone.
LocalTime ToLocalTime(long long unixSeconds) noexcept {
  constexpr long long kUnixEpochAsFileTime = 11644473600LL;  // seconds from 1601 to 1970
  const unsigned long long ticks = static_cast<unsigned long long>(unixSeconds + kUnixEpochAsFileTime) * 10000000ULL;
  FILETIME fileTime{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  SYSTEMTIME utc{};
  SYSTEMTIME local{};
  if (!FileTimeToSystemTime(&fileTime, &utc) || !SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local)) local = utc;
  return {local.wYear, local.wMonth, local.wDay, local.wHour, local.wMinute, local.wSecond};
}

// One line under construction: on the stack up to kInline bytes, on the heap beyond. Appends are
// inline copies; short appends through the C library's memcpy cost more than the bytes they move.
class LineBuffer {
 public:
  LineBuffer() = default;
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  void append(const char* begin, const char* end) {
    const auto count = static_cast<std::size_t>(end - begin);
    if (size_ + count > capacity_) Grow(size_ + count);
    char* out = data_ + size_;
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) std::memcpy(out + i, begin + i, 4);
    for (; i < count; ++i) out[i] = begin[i];
    size_ += count;
  }
  [[nodiscard]] const char* data() const noexcept { return data_; }
  [[nodiscard]] std::size_t size() const noexcept { return size_; }

 private:
  void Grow(std::size_t needed) {
    std::size_t capacity = capacity_ * 2;
    while (capacity < needed) capacity *= 2;
    auto bigger = std::make_unique<char[]>(capacity);
    std::memcpy(bigger.get(), data_, size_);
    heap_ = std::move(bigger);
    data_ = heap_.get();
    capacity_ = capacity;
  }

  static constexpr std::size_t kInline = 512;
  char inline_[kInline];
  std::unique_ptr<char[]> heap_;
  char* data_ = inline_;
  std::size_t size_ = 0;
  std::size_t capacity_ = kInline;
};

// Formats one record as a complete CRLF line. The date text is cached per second and per thread:
// local-time conversion is the dearest part of a line, and records are formatted outside any lock.
class CustomFormatter final : public spdlog::formatter {
 public:
  void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override { FormatInto(msg, dest); }

  template <typename Buffer>
  static void FormatInto(const spdlog::details::log_msg& msg, Buffer& dest) {
    const auto sinceEpoch = msg.time.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - seconds);
    DateCache& cache = t_dateCache;
    if (seconds.count() != cache.second) {
      cache.second = seconds.count();
      korva::logformat::FormatDateTime(ToLocalTime(cache.second), cache.text);
    }
    const std::string_view function = msg.source.funcname ? msg.source.funcname : "";
    korva::logformat::AppendLine(dest, std::string_view(cache.text, korva::logformat::kDateTimeLength),
                                 static_cast<unsigned>(millis.count()), static_cast<std::uint32_t>(msg.thread_id),
                                 FromSpdlogLevel(msg.level), function,
                                 std::string_view(msg.payload.data(), msg.payload.size()));
  }

  [[nodiscard]] std::unique_ptr<spdlog::formatter> clone() const override {
    return std::make_unique<CustomFormatter>();
  }

 private:
  struct DateCache {
    long long second = -1;
    char text[korva::logformat::kDateTimeLength] = {};
  };
  static thread_local DateCache t_dateCache;
};

thread_local CustomFormatter::DateCache CustomFormatter::t_dateCache;

// The folder that holds `path`; empty for a path without one.
std::wstring ParentFolder(const std::wstring& path) {
  const std::size_t slash = path.find_last_of(L"\\/");
  return slash == std::wstring::npos || slash == 0 ? std::wstring() : path.substr(0, slash);
}

// Creates the last `privateLevels` folders above `path` where they are missing (the log's folder
// and the agent folder that holds it), so the log can be opened in a fresh agent folder. They are
// for SYSTEM and Administrators only: made with its parent's list (a data folder's list lets users
// make folders), the agent folder would let a user make the log's folder first, as a link, in the
// moment before the agent does. Nothing above them is made: such a folder would take the list it
// inherits (a drive root's lets users rename what is made in it), and the log, rolled by name,
// would follow wherever a user moved it. The open then fails, and the records wait.
void CreateParentFolders(const std::wstring& path, int privateLevels) {
  const std::wstring parent = ParentFolder(path);
  if (privateLevels <= 0 || parent.empty() || GetFileAttributesW(parent.c_str()) != INVALID_FILE_ATTRIBUTES) return;
  CreateParentFolders(parent, privateLevels - 1);
  (void)korva::win::CreatePrivateFolder(parent.c_str());
}

// Whether the log's folder is a link (a junction, a mount point, a symbolic link): the agent would
// write, roll and delete its files wherever the link leads. Such a folder the start-up refuses; one
// made after that look, by someone else, is refused here.
bool LogFolderIsLink(const std::wstring& path) {
  const std::wstring folder = ParentFolder(path);
  const DWORD attributes = GetFileAttributesW(folder.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
         korva::win::ReparsePointRedirects(folder.c_str());
}

// The log's own look at its folders, for a log whose owner set no check of its own: the two
// folders made where missing, and a log folder that is a link refused.
bool OwnFolderCheck(const std::wstring& path) noexcept {
  try {
    CreateParentFolders(path, 2);
    return !LogFolderIsLink(path);
  } catch (...) {
    return false;
  }
}

std::atomic<korva::log::LogFolderCheck> g_folderCheck{&OwnFolderCheck};

// The appender whose folder check runs on this thread, as its writer: a record the check logs is
// held, not queued behind the write that waits for the check.
thread_local const void* t_folderCheckOf = nullptr;

// One round of waiting for another thread: a few pauses of the processor at first, then giving up
// the processor to threads ready on it, then, for a wait that lasts, a sleep that lets a thread of
// any priority run, so a preempted thread of lower priority is never starved by the waiter. Long
// pausing only takes the processor from the threads that would add to the next batch.
void WaitRound(int& round) noexcept {
  if (round < 4) {
    YieldProcessor();
  } else if (round < 1000) {
    std::this_thread::yield();
  } else {
    Sleep(1);
  }
  ++round;
}

// Guards the log's queue for the few instructions it takes to add a line or take the batch. It
// never sleeps in the kernel at once: under Wine a contended std::mutex waits through the wine
// server, which costs more than the write of the lines it guards.
class QueueLock {
 public:
  void lock() noexcept {
    for (int round = 0; locked_.exchange(true, std::memory_order_acquire);) {
      while (locked_.load(std::memory_order_relaxed)) WaitRound(round);
    }
  }
  void unlock() noexcept { locked_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> locked_{false};
};

// Writes records to the rolling file, and shares one write among records that arrive together.
// A record's thread formats its line, appends it to the pending batch, and, when no thread is
// writing, takes the batch and writes it. A thread whose line is in a batch another thread is
// writing waits until that write is done, or takes the next batch itself once the writer has left.
// Either way every record is in the file before its call returns, as with one lock around each
// write, but concurrent writers no longer queue one system call each behind a contended lock.
// Each writer writes one batch only, so no thread is kept writing other threads' records.
class CustomRollingFileAppender final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  // The size and count of the files are fixed; callers cannot change them.
  explicit CustomRollingFileAppender(const std::wstring& fileName) : name_(korva::logformat::SplitFileName(fileName)) {}

  ~CustomRollingFileAppender() override {
    StopRetryThread();
    // No record is in flight now: the last chance for held records is one more open.
    if (!file_ && !held_.empty()) {
      OpenLogFile();
      if (file_ && FullWithoutRoll()) RollLogFiles();
      if (file_) (void)WriteHeld();
    }
    CloseFile();
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    LineBuffer line;
    CustomFormatter::FormatInto(msg, line);
    if (t_folderCheckOf == this) {
      const std::size_t end = line.size();
      Hold(line.data(), 0, &end, 1);
      return;
    }
    std::uint64_t ticket = 0;
    bool alone = false;
    {
      std::lock_guard<QueueLock> lock(queueLock_);
      alone = !writing_.load(std::memory_order_acquire) && pendingEnds_.empty();
      if (alone) {
        writing_.store(true, std::memory_order_relaxed);
      } else {
        // A line that cannot be queued leaves the queue as it was and takes no ticket.
        pendingEnds_.push_back(pending_.size() + line.size());
        try {
          pending_.append(line.data(), line.size());
        } catch (...) {
          pendingEnds_.pop_back();
          throw;
        }
      }
      ticket = ++queuedTicket_;
    }
    // Nothing queued and nobody writing, the usual case: the line goes out from where it was built.
    if (alone) {
      const std::size_t end = line.size();
      WriteRecordsReleasing(line.data(), &end, 1, ticket);
      return;
    }
    for (int round = 0; writtenTicket_.load(std::memory_order_acquire) < ticket;) {
      if (!writing_.load(std::memory_order_acquire) && WriteNextBatch()) continue;
      WaitRound(round);
    }
  }

  void flush_() override {}

  // The layout is fixed: the line format is part of the log's contract.
  void set_formatter_(std::unique_ptr<spdlog::formatter> /*formatter*/) override {}

 private:
  static constexpr std::uint64_t kMaxFileSize = std::uint64_t{5} * 1024 * 1024;
  static constexpr int kMaxFiles = 5;
  // Sizes and offsets are 64-bit: a live file of 2 GiB or more (rolls that keep failing) is still
  // measured right.
  static constexpr std::uint64_t kUnknownSize = ~std::uint64_t{0};
  static constexpr std::size_t kKeptBatchCapacity = std::size_t{1024} * 1024;
  // Records kept while the file cannot be opened; later ones are counted, not kept.
  static constexpr std::size_t kHeldCapacity = std::size_t{4} * 1024 * 1024;
  // The least time between two opens of an unopenable file, and between two failed rolls.
  static constexpr ULONGLONG kRetryIntervalMs = 1000;
  // The longest a take of the held records waits for another thread's write to end.
  static constexpr ULONGLONG kTakeWaitMs = 1000;

  // Makes the caller the writer of everything pending; returns the ticket of its last line.
  // Called with the queue locked, when no thread is writing.
  std::uint64_t TakeBatch() {
    writing_.store(true, std::memory_order_relaxed);
    batch_.swap(pending_);
    pending_.clear();
    batchEnds_.swap(pendingEnds_);
    pendingEnds_.clear();
    return queuedTicket_;
  }

  // Takes and writes the pending batch when no other thread is writing. False when another
  // thread is writing or nothing is pending.
  bool WriteNextBatch() {
    std::uint64_t last = 0;
    {
      std::lock_guard<QueueLock> lock(queueLock_);
      if (writing_.load(std::memory_order_acquire) || pendingEnds_.empty()) return false;
      last = TakeBatch();
    }
    WriteTakenBatch(last);
    return true;
  }

  void WriteTakenBatch(std::uint64_t last) noexcept {
    WriteRecordsReleasing(batch_.data(), batchEnds_.data(), batchEnds_.size(), last);
    if (batch_.capacity() > kKeptBatchCapacity) std::string().swap(batch_);
  }

  // Writes records up to ticket `last` as the writer, then stands down. Whatever happens in the
  // write, its waiters are released and the next batch can be taken.
  void WriteRecordsReleasing(const char* data, const std::size_t* ends, std::size_t count,
                             std::uint64_t last) noexcept {
    try {
      WriteRecords(data, ends, count);
    } catch (...) {
      // A roll that could not build a file name; these records are lost, not the log.
    }
    writtenTicket_.store(last, std::memory_order_release);
    writing_.store(false, std::memory_order_release);
  }

  // Writes records (each ending where `ends` says) in as few calls as the rolls allow. The file
  // rolls before a record once it has grown past the limit; the first record after opening never
  // rolls it. Records that find no open file, or that a failed write did not get into it, are held.
  void WriteRecords(const char* data, const std::size_t* ends, std::size_t count) {
    bool mayRoll = true;
    if (!file_) {
      if (!OpenWhenDue()) {
        Hold(data, 0, ends, count);
        return;
      }
      mayRoll = false;
    }
    std::size_t runStart = 0;
    std::size_t runFirst = 0;  // the run's first record
    std::size_t recordStart = 0;
    std::uint64_t projected = fileSize_;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t recordEnd = ends[i];
      if (mayRoll && RollDue(projected)) {
        if (!WriteRun(data, runStart, recordStart, ends + runFirst, count - runFirst)) return;
        RollLogFiles();
        if (!file_) {
          Hold(data, recordStart, ends + i, count - i);
          return;
        }
        projected = fileSize_;
        runStart = recordStart;
        runFirst = i;
      }
      mayRoll = true;
      projected += recordEnd - recordStart;
      recordStart = recordEnd;
    }
    (void)WriteRun(data, runStart, recordStart, ends + runFirst, count - runFirst);
  }

  // Writes the bytes from `start` to `end`, which begin the records ending where `ends` says.
  // When the write fails, closes the file and holds what did not reach it (from the first byte
  // missing, mid-record if need be, on to the last of the `count` records); false then.
  bool WriteRun(const char* data, std::size_t start, std::size_t end, const std::size_t* ends, std::size_t count) {
    std::size_t written = 0;
    if (Write(data + start, end - start, written)) return true;
    const std::size_t missingFrom = start + written;
    std::size_t first = 0;
    while (first < count && ends[first] <= missingFrom) ++first;
    CloseAfterFailedWrite();
    Hold(data, missingFrom, ends + first, count - first);
    return false;
  }

  // A write that failed leaves the file closed: the records wait, held, for the open a second later.
  void CloseAfterFailedWrite() {
    CloseFile();
    fileSize_ = kUnknownSize;
    openTried_ = true;
    nextOpenTick_ = GetTickCount64() + kRetryIntervalMs;
    WantRetry();
  }

  // The live file holds the room of all the log's files: it was not rolled, and takes no more.
  [[nodiscard]] bool FullWithoutRoll() const noexcept {
    return kMaxFiles > 0 && fileSize_ != kUnknownSize && fileSize_ >= kMaxFileSize * kMaxFiles;
  }

  [[nodiscard]] bool RollDue(std::uint64_t projected) const noexcept {
    return kMaxFiles > 0 && fileSize_ != kUnknownSize && projected > kMaxFileSize && GetTickCount64() >= nextRollTick_;
  }

  // Opens the file unless an open failed less than a second ago; once open, writes the held records
  // first. False while the file stays closed (the retry thread then tries again).
  bool OpenWhenDue(bool ignoreInterval = false) {
    const ULONGLONG now = GetTickCount64();
    if (!ignoreInterval && openTried_ && now < nextOpenTick_) return false;
    openTried_ = true;
    nextOpenTick_ = now + kRetryIntervalMs;
    OpenLogFile();
    // A file that holds the room of all the files (closed so when it could not be rolled) rolls
    // before it takes the held records.
    if (file_ && FullWithoutRoll()) RollLogFiles();
    if (!file_) {
      WantRetry();
      return false;
    }
    return WriteHeldIfAny();
  }

  // Keeps records (the first starting at `start`, each ending where `ends` says) while the file is
  // closed, up to the held capacity; counts the rest.
  void Hold(const char* data, std::size_t start, const std::size_t* ends, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; start = ends[i], ++i) {
      const std::size_t size = ends[i] - start;
      if (held_.size() + size > kHeldCapacity) {
        ++heldDropped_;
        continue;
      }
      try {
        held_.append(data + start, size);
      } catch (...) {
        ++heldDropped_;
      }
    }
    WantRetry();
  }

  // The held records in their order, then one line counting the records that did not fit. When a
  // write fails, what did not reach the file stays held (the count too) and the file is closed;
  // false then.
  bool WriteHeld() {
    std::size_t written = 0;
    const bool whole = Write(held_.data(), held_.size(), written);
    held_.erase(0, written);
    if (!whole) {
      CloseAfterFailedWrite();
      return false;
    }
    std::string().swap(held_);
    if (heldDropped_ == 0) return true;
    const std::uint64_t dropped = std::exchange(heldDropped_, 0);
    return WriteOwnWarning(std::to_string(dropped) +
                           " log records were dropped while the log file could not be opened.");
  }

  // A line of the log's own, at warning level under "ServiceLogger", written as the writer. When the
  // write fails, what did not reach the file waits like any record, so the line ends whole before
  // the next one starts, and the file is closed; false then.
  bool WriteOwnWarning(const std::string& message) {
    const spdlog::details::log_msg msg(spdlog::source_loc{"", 0, "ServiceLogger"}, "ServiceLogger",
                                       ToSpdlogLevel(korva::log::kWarning), message);
    LineBuffer line;
    CustomFormatter::FormatInto(msg, line);
    std::size_t written = 0;
    if (Write(line.data(), line.size(), written)) return true;
    const std::size_t end = line.size();
    Hold(line.data(), written, &end, 1);
    CloseAfterFailedWrite();
    return false;
  }

  // Asks the retry thread to open the file within a second even if nothing more is logged. Called
  // as the writer.
  void WantRetry() noexcept {
    try {
      std::lock_guard<std::mutex> lock(retryMutex_);
      retryWanted_ = true;
      // Once stopping (the appender is going away), no thread starts again.
      if (!retryStopping_ && !retryThread_.joinable()) retryThread_ = std::thread([this] { RetryLoop(); });
    } catch (...) {
      // No thread: the open is still retried by the next record.
    }
    retryWake_.notify_one();
  }

  // Once a second while records are held: becomes the writer when no thread is writing and tries
  // the open. Sleeps without a timeout otherwise.
  void RetryLoop() {
    std::unique_lock<std::mutex> lock(retryMutex_);
    while (!retryStopping_) {
      if (!retryWanted_) {
        retryWake_.wait(lock);
        continue;
      }
      retryWake_.wait_for(lock, std::chrono::milliseconds(kRetryIntervalMs));
      if (retryStopping_) break;
      lock.unlock();
      RetryAsWriter();
      lock.lock();
    }
  }

  // One open at once, as the writer; false when records stay held (or another thread was writing).
  bool TryFlushAsWriter() noexcept {
    {
      std::lock_guard<QueueLock> lock(queueLock_);
      if (writing_.load(std::memory_order_acquire)) return false;
      writing_.store(true, std::memory_order_relaxed);
    }
    bool flushed = true;
    try {
      if (!file_ && (!held_.empty() || heldDropped_ != 0)) flushed = OpenWhenDue(true);
    } catch (...) {
      flushed = false;
    }
    writing_.store(false, std::memory_order_release);
    return flushed;
  }

  void RetryAsWriter() {
    {
      std::lock_guard<QueueLock> lock(queueLock_);
      if (writing_.load(std::memory_order_acquire)) return;
      writing_.store(true, std::memory_order_relaxed);
    }
    try {
      if (!file_) static_cast<void>(OpenWhenDue());
    } catch (...) {
      // As a failed open: tried again in a second.
    }
    {
      std::lock_guard<std::mutex> lock(retryMutex_);
      retryWanted_ = !file_;
    }
    writing_.store(false, std::memory_order_release);
  }

 public:
  // Gives records still held a last chance before the process ends: the open is tried every 100 ms
  // for up to `waitMs`. True when nothing is held any more.
  bool FlushHeld(unsigned long waitMs) noexcept {
    const ULONGLONG deadline = GetTickCount64() + waitMs;
    for (;;) {
      if (TryFlushAsWriter()) return true;
      if (GetTickCount64() >= deadline) return false;
      Sleep(100);
    }
  }

  // Takes the records still held, and a line counting those that did not fit, out of the log: the
  // file will not get them. Empty when nothing is held, or when no other writer stood down within
  // a second.
  std::string TakeHeld() noexcept {
    const ULONGLONG deadline = GetTickCount64() + kTakeWaitMs;
    for (int round = 0;; WaitRound(round)) {
      {
        std::lock_guard<QueueLock> lock(queueLock_);
        if (!writing_.load(std::memory_order_acquire)) {
          writing_.store(true, std::memory_order_relaxed);
          break;
        }
      }
      if (GetTickCount64() >= deadline) return {};
    }
    std::string taken;
    try {
      taken.swap(held_);
      if (heldDropped_ != 0) {
        taken += std::to_string(heldDropped_) + " log records were dropped while the log file could not be opened.\r\n";
      }
      heldDropped_ = 0;
    } catch (...) {
      // No room for the count line: the records themselves are still handed over.
    }
    writing_.store(false, std::memory_order_release);
    return taken;
  }

 private:
  void StopRetryThread() noexcept {
    {
      std::lock_guard<std::mutex> lock(retryMutex_);
      retryStopping_ = true;
    }
    retryWake_.notify_one();
    if (retryThread_.joinable()) retryThread_.join();
  }

  // The records are in the file when WriteFile returns; nothing buffers them in the process. True
  // when every byte got there; `written` says how many did, which a failed or short write (a full
  // disk, a range another handle locked) counts too.
  [[nodiscard]] bool Write(const char* data, std::size_t size, std::size_t& written) {
    written = 0;
    if (size == 0) return true;
    if (!file_) return false;
    DWORD done = 0;
    const BOOL ok =
        g_fileWriter.load(std::memory_order_relaxed)(file_.get(), data, static_cast<DWORD>(size), &done, nullptr);
    written = done < size ? done : size;
    fileSize_ += written;
    return ok != FALSE && written == size;
  }

  // Runs the folder check as the writer. What it logs is held, and follows once the file is open.
  [[nodiscard]] bool FoldersPass(const std::wstring& path) noexcept {
    t_folderCheckOf = this;
    const bool pass = g_folderCheck.load(std::memory_order_acquire)(path);
    t_folderCheckOf = nullptr;
    return pass;
  }

  // Writes what waits, when anything does, into the open file; false when that write failed.
  bool WriteHeldIfAny() { return (held_.empty() && heldDropped_ == 0) || WriteHeld(); }

  void OpenLogFile() {
    const std::wstring path = korva::logformat::RolledFileName(name_, 0);
    // Others may read the live file but not write it; no child process inherits the handle. The
    // records stay held while the folders fail their check, and the open is tried again a second
    // later.
    if (!FoldersPass(path)) {
      file_.reset();
    } else {
      file_.reset(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                              nullptr));
    }
    if (!file_) {
      fileSize_ = kUnknownSize;
      return;
    }
    // Not opened for appending: one move to the end is far cheaper than an append per write.
    LARGE_INTEGER end{};
    if (!SetFilePointerEx(file_.get(), LARGE_INTEGER{}, &end, FILE_END)) {
      // The end could not be found: the size is counted from this open, so the file still rolls
      // once the roll size has been written after it. No header: the file may not be new.
      fileSize_ = 0;
      return;
    }
    fileSize_ = static_cast<std::uint64_t>(end.QuadPart);
    if (fileSize_ == 0) {
      // A file that takes no header takes no record either: the open counts as failed, and what
      // of the header got in is cut off again, so the next open writes it whole.
      const std::string header = korva::logformat::NewFileHeaderBytes();
      std::size_t written = 0;
      if (!Write(header.data(), header.size(), written)) {
        if (written != 0 && SetFilePointerEx(file_.get(), LARGE_INTEGER{}, nullptr, FILE_BEGIN)) {
          (void)SetEndOfFile(file_.get());
        }
        CloseFile();
        fileSize_ = kUnknownSize;
      }
    }
  }

  void CloseFile() noexcept { file_.reset(); }

  // Moves the live file aside first, and shifts the rolled files only once it has moved: a live file
  // held by another process deletes nothing, keeps being written (up to the room of all the files)
  // and is rolled again a second later.
  // The first failure of a run of them is told in the new live file (or the old one, still live).
  void RollLogFiles() {
    const std::wstring live = korva::logformat::RolledFileName(name_, 0);
    // Nothing is moved or deleted in folders that fail their check: the open file, which no change
    // of its folders can redirect, takes the records meanwhile (up to the room of all the files), and
    // the roll is tried a second later.
    if (!FoldersPass(live)) {
      nextRollTick_ = GetTickCount64() + kRetryIntervalMs;
      const std::string refused =
          "The log files were not rolled: their folders did not pass the check for the agent's own; the roll is "
          "tried again.";
      if (FullWithoutRoll()) {
        CloseFullFile(refused);
        return;
      }
      if (!WriteHeldIfAny()) return;
      if (!rollFailureTold_) rollFailureTold_ = WriteOwnWarning(refused);
      return;
    }
    CloseFile();
    const std::wstring rolling = live + L".rolling";
    // A file left aside by an earlier roll whose shift failed takes its place first.
    bool moved = PlaceRollingFile(rolling) && MoveFileW(live.c_str(), rolling.c_str());
    DWORD error = moved ? ERROR_SUCCESS : GetLastError();
    if (moved && !PlaceRollingFile(rolling)) error = GetLastError();
    if (!moved) nextRollTick_ = GetTickCount64() + kRetryIntervalMs;
    OpenLogFile();
    if (!file_) {
      openTried_ = true;
      nextOpenTick_ = GetTickCount64() + kRetryIntervalMs;
      return;
    }
    const std::string failed =
        "The log files could not be rolled (error " + std::to_string(error) + "); the roll is tried again.";
    // A live file that another process keeps from moving (a reader that does not share deletion)
    // takes records up to the room of all the files.
    if (error != ERROR_SUCCESS && FullWithoutRoll()) {
      CloseFullFile(failed);
      return;
    }
    if (!WriteHeldIfAny()) return;
    if (error == ERROR_SUCCESS) {
      rollFailureTold_ = false;
    } else if (!rollFailureTold_) {
      rollFailureTold_ = WriteOwnWarning(failed);
    }
  }

  // Past the room all the log's files have together, a live file that could not be rolled takes
  // nothing more: it is closed as after a failed write, and the records wait, bounded, for the roll
  // that the next open tries first. The failure's line goes in once a run, taken as told before its
  // write, so a write refused (a lock on part of the file) cannot make each retry write in again.
  void CloseFullFile(const std::string& failure) {
    if (!rollFailureTold_) {
      rollFailureTold_ = true;
      (void)WriteOwnWarning(failure);
    }
    if (file_) CloseAfterFailedWrite();
  }

  // Makes room for the file set aside and moves it to number 1. The rolled files shift up to the
  // first free number only, and the oldest goes only when none is free: a shift that a held file
  // stops half-way, tried again, deletes nothing more. True when nothing is left aside.
  [[nodiscard]] bool PlaceRollingFile(const std::wstring& rolling) const {
    if (GetFileAttributesW(rolling.c_str()) == INVALID_FILE_ATTRIBUTES) return true;
    int free = 1;
    while (free < kMaxFiles &&
           GetFileAttributesW(korva::logformat::RolledFileName(name_, free).c_str()) != INVALID_FILE_ATTRIBUTES) {
      ++free;
    }
    if (free == kMaxFiles) {
      free = kMaxFiles - 1;
      DeleteFileW(korva::logformat::RolledFileName(name_, free).c_str());
    }
    for (int n = free - 1; n >= 1; --n) {
      MoveFileW(korva::logformat::RolledFileName(name_, n).c_str(),
                korva::logformat::RolledFileName(name_, n + 1).c_str());
    }
    return MoveFileW(rolling.c_str(), korva::logformat::RolledFileName(name_, 1).c_str()) != FALSE;
  }

  // Held only to queue a line or take the batch, never across a write.
  QueueLock queueLock_;
  std::string pending_;
  std::vector<std::size_t> pendingEnds_;  // where each pending line ends
  std::uint64_t queuedTicket_ = 0;
  // Set under the lock by the thread that becomes the writer, cleared once its write is done: the
  // writer's own state below passes from one writer to the next through it.
  std::atomic<bool> writing_{false};
  std::atomic<std::uint64_t> writtenTicket_{0};

  // The writer's own: touched only by the thread that set `writing_`.
  std::string batch_;
  std::vector<std::size_t> batchEnds_;
  korva::logformat::SplitName name_;
  korva::win::UniqueFileHandle file_;
  std::uint64_t fileSize_ = kUnknownSize;
  bool openTried_ = false;
  ULONGLONG nextOpenTick_ = 0;
  ULONGLONG nextRollTick_ = 0;
  std::string held_;
  std::uint64_t heldDropped_ = 0;
  bool rollFailureTold_ = false;  // the current run of failed rolls has its line in the log

  // The retry thread, started at the first failed open; it sleeps while nothing is held.
  std::mutex retryMutex_;
  std::condition_variable retryWake_;
  bool retryWanted_ = false;
  bool retryStopping_ = false;
  std::thread retryThread_;
};

// Never destroyed by the process's exit: threads that are not joined may still log while static
// objects go away. The file is written without buffering, so nothing is lost at exit.
std::atomic<spdlog::logger*> g_serviceLogger{nullptr};
// Records between taking the logger and finishing with it. A logger being replaced is deleted only
// once this is zero, so a thread that is still logging never touches a freed one. Both sides use
// sequentially consistent operations: the count's increment must be seen before the pointer load.
std::atomic<int> g_submitsInFlight{0};

}  // namespace

namespace korva::log {

void InitializeServiceLogger(const std::wstring& path, int maxSeverity) {
  ShutdownServiceLogger();
  auto logger = std::make_unique<spdlog::logger>("ServiceLogger", std::make_shared<CustomRollingFileAppender>(path));
  // Severity is tested before a record is built; spdlog passes everything it is given.
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::off);
  g_serviceLogger.store(logger.release(), std::memory_order_release);
  g_maxSeverity.store(maxSeverity, std::memory_order_relaxed);
}

void ShutdownServiceLogger() noexcept {
  g_maxSeverity.store(0, std::memory_order_relaxed);
  spdlog::logger* retired = g_serviceLogger.exchange(nullptr);
  if (retired == nullptr) return;
  // A record already inside Submit finishes with the retired logger; later ones find none.
  while (g_submitsInFlight.load() != 0) std::this_thread::yield();
  delete retired;
}

bool FlushServiceLogger(unsigned long waitMs) noexcept {
  g_submitsInFlight.fetch_add(1);
  bool flushed = true;
  if (spdlog::logger* logger = g_serviceLogger.load(); logger != nullptr && !logger->sinks().empty()) {
    flushed = static_cast<CustomRollingFileAppender*>(logger->sinks().front().get())->FlushHeld(waitMs);
  }
  g_submitsInFlight.fetch_sub(1, std::memory_order_release);
  return flushed;
}

std::string TakeHeldServiceRecords() noexcept {
  g_submitsInFlight.fetch_add(1);
  std::string taken;
  if (spdlog::logger* logger = g_serviceLogger.load(); logger != nullptr && !logger->sinks().empty()) {
    taken = static_cast<CustomRollingFileAppender*>(logger->sinks().front().get())->TakeHeld();
  }
  g_submitsInFlight.fetch_sub(1, std::memory_order_release);
  return taken;
}

unsigned long AppendUnwrittenRecords(void* file, std::string_view records, std::uint64_t maxBytes) noexcept {
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(file, &size)) return GetLastError();
  if (static_cast<std::uint64_t>(size.QuadPart) + records.size() > maxBytes) return ERROR_FILE_TOO_LARGE;
  DWORD written = 0;
  if (!WriteFile(file, records.data(), static_cast<DWORD>(records.size()), &written, nullptr)) return GetLastError();
  return written == records.size() ? ERROR_SUCCESS : ERROR_WRITE_FAULT;
}

void Submit(int severity, const char* function, std::string_view message) noexcept {
  g_submitsInFlight.fetch_add(1);
  if (spdlog::logger* logger = g_serviceLogger.load(); logger != nullptr) {
    logger->log(spdlog::source_loc{"", 0, function}, ToSpdlogLevel(severity),
                spdlog::string_view_t(message.data(), message.size()));
  }
  g_submitsInFlight.fetch_sub(1, std::memory_order_release);
}

void SetServiceLogFolderCheck(LogFolderCheck check) noexcept {
  g_folderCheck.store(check != nullptr ? check : &OwnFolderCheck, std::memory_order_release);
}

void SetLogFileWriterForTest(LogFileWriter writer) noexcept {
  g_fileWriter.store(writer != nullptr ? writer : &WriteFile, std::memory_order_relaxed);
}

}  // namespace korva::log
