// The service's logging API: stream macros, the entry/exit scope object and the catch-all helper.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace korva::log {

// Severities as the agent numbers them; 0 silences the log.
enum Severity : int { kNone = 0, kFatal = 1, kError = 2, kWarning = 3, kInfo = 4, kDebug = 5, kVerbose = 6 };

// Maximum severity written; 0 until a logger is set up, so nothing is built before that.
extern std::atomic<int> g_maxSeverity;

inline bool Enabled(int severity) noexcept { return severity <= g_maxSeverity.load(std::memory_order_relaxed); }

// Opens (on first write) the rolling log at `path` and makes it the process's only log, with
// `maxSeverity` as the most verbose severity written. Replaces any logger set up before.
void InitializeServiceLogger(const std::wstring& path, int maxSeverity);
// Judges the log's folders before each open of its file and each roll, and makes those missing
// where that is safe; true when the log may write, roll and delete its files there. While it says
// no, records wait (and the open is tried again a second later) or the open file is written on
// unrolled. Runs as the log's writer: a record it logs waits and follows the open.
using LogFolderCheck = bool (*)(const std::wstring& logFile) noexcept;
// Sets the check for every log from now on. nullptr puts back the log's own: its folder and the one
// above made where missing, and a folder that is a link refused.
void SetServiceLogFolderCheck(LogFolderCheck check) noexcept;
// Detaches and closes the log; later records are dropped. Used when a logger is replaced and by
// tests: the process itself never closes its log, as threads that are not joined may still write.
void ShutdownServiceLogger() noexcept;
// Gives records that wait for an unopenable log file a last chance: the open is retried for up to
// `waitMs`. True when none waits any more. Called before the process ends.
[[nodiscard]] bool FlushServiceLogger(unsigned long waitMs) noexcept;
// Takes the records that still wait for the file out of the log, as the file's bytes (CRLF lines,
// a count line last for records that did not fit): the file will not get them, so the caller can
// keep them elsewhere. Empty when none wait. Called before the process ends, after a failed flush.
[[nodiscard]] std::string TakeHeldServiceRecords() noexcept;
// Appends `records` to `file` (opened for appending), unless the file would grow past `maxBytes`
// (then ERROR_FILE_TOO_LARGE). 0, or the error that kept them out.
[[nodiscard]] unsigned long AppendUnwrittenRecords(void* file, std::string_view records,
                                                   std::uint64_t maxBytes) noexcept;
// Hands one finished record to the log. `message` is UTF-8.
void Submit(int severity, const char* function, std::string_view message) noexcept;

// Collects one record's message. Short messages stay on the stack; nothing throws out of it.
class RecordStream {
 public:
  RecordStream(int severity, const char* function) noexcept : severity_(severity), function_(function) {}
  RecordStream(const RecordStream&) = delete;
  RecordStream& operator=(const RecordStream&) = delete;
  ~RecordStream();

  RecordStream& operator<<(const char* text) noexcept;  // ANSI code page text
  RecordStream& operator<<(const std::string& text) noexcept;
  RecordStream& operator<<(std::string_view text) noexcept;
  RecordStream& operator<<(const wchar_t* text) noexcept;
  RecordStream& operator<<(const std::wstring& text) noexcept;
  RecordStream& operator<<(char c) noexcept;
  RecordStream& operator<<(wchar_t c) noexcept;
  RecordStream& operator<<(bool value) noexcept;
  RecordStream& operator<<(int value) noexcept;
  RecordStream& operator<<(unsigned value) noexcept;
  RecordStream& operator<<(long value) noexcept;
  RecordStream& operator<<(unsigned long value) noexcept;
  RecordStream& operator<<(long long value) noexcept;
  RecordStream& operator<<(unsigned long long value) noexcept;
  RecordStream& operator<<(double value) noexcept;
  RecordStream& operator<<(const void* pointer) noexcept;

  // Appends UTF-8 text as it is.
  void AppendUtf8(const char* data, std::size_t size) noexcept;

 private:
  void AppendSigned(long long value) noexcept;
  void AppendUnsigned(unsigned long long value) noexcept;
  void Grow(std::size_t needed) noexcept;

  static constexpr std::size_t kInline = 240;
  int severity_;
  const char* function_;
  char inline_[kInline];
  char* data_ = inline_;
  std::size_t size_ = 0;
  std::size_t capacity_ = kInline;
};

// Turns a finished record expression into void so both arms of KLOG_AT's conditional match.
// `&` binds more loosely than `<<`, so the whole streamed message is built first.
struct Voidify {
  void operator&(const RecordStream& /*record*/) const noexcept {}
};

// Writes "@@@ Inside <name> @@@" at debug level now and "@@@ End of <name> @@@" when it goes out
// of scope. The variant form takes both texts whole, for the few functions logged differently.
class Scope {
 public:
  explicit Scope(const char* name) noexcept;
  Scope(const char* function, const char* entryText, const char* exitText) noexcept;
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;
  ~Scope();

 private:
  const char* function_;
  const char* exitText_;
};

// Runs `body` inside a catch-all: an exception is logged at error level under `function` with
// `catchText` and turned into `failure`. Nothing escapes.
template <typename R, typename Body>
R Guarded(const char* function, R failure, Body&& body, const char* catchText = "Exception caught.") noexcept {
  try {
    return body();
  } catch (...) {
    if (Enabled(kError)) RecordStream(kError, function) << catchText;
    return failure;
  }
}

// The same for bodies without a result.
template <typename Body>
void GuardedVoid(const char* function, Body&& body, const char* catchText = "Exception caught.") noexcept {
  try {
    body();
  } catch (...) {
    if (Enabled(kError)) RecordStream(kError, function) << catchText;
  }
}

// Guarded inside the entry and exit lines of `function`: the usual body of a logged routine.
template <typename R, typename Body>
R ScopedGuarded(const char* function, R failure, Body&& body, const char* catchText = "Exception caught.") noexcept {
  const Scope scope(function);
  return Guarded(function, std::move(failure), static_cast<Body&&>(body), catchText);
}

template <typename Body>
void ScopedGuardedVoid(const char* function, Body&& body, const char* catchText = "Exception caught.") noexcept {
  const Scope scope(function);
  GuardedVoid(function, static_cast<Body&&>(body), catchText);
}

}  // namespace korva::log

// KLOG_INFO << "text" << value;  The record is built only when its severity is enabled.
// An expression, not a statement, so it is safe as the body of an unbraced if/else. Not in
// parentheses: the caller's "<< ..." that follows must reach the record stream.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define KLOG_AT(severity, function)                       \
  !::korva::log::Enabled(severity) ? static_cast<void>(0) \
                                   : ::korva::log::Voidify() & ::korva::log::RecordStream((severity), (function))
// NOLINTEND(bugprone-macro-parentheses)

#define KLOG_FATAL KLOG_AT(::korva::log::kFatal, __func__)
#define KLOG_ERROR KLOG_AT(::korva::log::kError, __func__)
#define KLOG_WARNING KLOG_AT(::korva::log::kWarning, __func__)
#define KLOG_INFO KLOG_AT(::korva::log::kInfo, __func__)
#define KLOG_DEBUG KLOG_AT(::korva::log::kDebug, __func__)
#define KLOG_VERBOSE KLOG_AT(::korva::log::kVerbose, __func__)

// The same under an explicit function name, for records logged under another name than the C++
// function's ("RegistryUtil", "Class::method").
#define KLOG_FATAL_AS(name) KLOG_AT(::korva::log::kFatal, name)
#define KLOG_ERROR_AS(name) KLOG_AT(::korva::log::kError, name)
#define KLOG_WARNING_AS(name) KLOG_AT(::korva::log::kWarning, name)
#define KLOG_INFO_AS(name) KLOG_AT(::korva::log::kInfo, name)
#define KLOG_DEBUG_AS(name) KLOG_AT(::korva::log::kDebug, name)
#define KLOG_VERBOSE_AS(name) KLOG_AT(::korva::log::kVerbose, name)

#define KLOG_CONCAT_INNER(a, b) a##b
#define KLOG_CONCAT(a, b) KLOG_CONCAT_INNER(a, b)
// Entry and exit lines of the enclosing function.
#define KLOG_SCOPE() ::korva::log::Scope KLOG_CONCAT(klogScope, __LINE__)(__func__)
#define KLOG_SCOPE_AS(name) ::korva::log::Scope KLOG_CONCAT(klogScope, __LINE__)(name)
