// The service log on real files: exact line bytes, header, rolling, severities, text conversion,
// concurrent writers, and the scope and catch-all helpers.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "settings/core/log_format.h"
#include "settings/log.h"
#include "support/test_support.h"
#include "win/strings.h"

namespace {

using korva::test::FileExists;
using korva::test::ReadFileBytes;
using korva::test::TempDir;
using korva::test::WriteFileBytes;

constexpr std::uint64_t kMaxFileSize = 5 * 1024 * 1024;
const std::string kHeader = "\xEF\xBB\xBF" "Date/Time | ThreadID | Severity | Function | Message\r\n";

// "YYYY-MM-DD hh:mm:ss:mmm" of GetLocalTime: ordered like the time it shows.
std::string LocalTimeText() {
  SYSTEMTIME t;
  GetLocalTime(&t);
  char text[32];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u:%03u", t.wYear, t.wMonth, t.wDay, t.wHour,
                t.wMinute, t.wSecond, t.wMilliseconds);
  return text;
}

std::string ThreadIdText(DWORD id) {
  char text[16];
  std::snprintf(text, sizeof text, "%08lu", static_cast<unsigned long>(id));
  return text;
}

struct Line {
  std::string time;  // "YYYY-MM-DD hh:mm:ss:mmm"
  std::string thread;
  std::string severity;  // as printed, padding included
  std::string function;
  std::string message;
};

bool MatchesDigitPattern(std::string_view text, std::string_view pattern) {
  if (text.size() != pattern.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (pattern[i] == '0' ? !digit : text[i] != pattern[i]) return false;
  }
  return true;
}

// Splits one line (without its CRLF) into its fields; nothing when it is not well formed.
std::optional<Line> Parse(std::string_view text) {
  static const std::set<std::string> kSeverities = {"FATAL", "ERROR", "WARNING", " INFO",
                                                    "DEBUG", "VERBOSE", "UNKNOWN"};
  constexpr std::string_view kSep = " ] [ ";
  if (text.substr(0, 2) != "[ ") return std::nullopt;
  Line line;
  line.time = std::string(text.substr(2, 23));
  if (!MatchesDigitPattern(line.time, "0000-00-00 00:00:00:000") || text.substr(25, kSep.size()) != kSep) {
    return std::nullopt;
  }
  std::size_t pos = 25 + kSep.size();
  std::size_t end = text.find(kSep, pos);
  if (end == std::string_view::npos) return std::nullopt;
  line.thread = std::string(text.substr(pos, end - pos));
  if (line.thread.size() < 8 || line.thread.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  pos = end + kSep.size();
  end = text.find(kSep, pos);
  if (end == std::string_view::npos) return std::nullopt;
  line.severity = std::string(text.substr(pos, end - pos));
  if (kSeverities.count(line.severity) == 0) return std::nullopt;
  pos = end + kSep.size();
  end = text.find(" ] ", pos);
  if (end == std::string_view::npos) return std::nullopt;
  line.function = std::string(text.substr(pos, end - pos));
  line.message = std::string(text.substr(end + 3));
  if (line.message.find_first_of("\r\n") != std::string::npos) return std::nullopt;
  return line;
}

// The lines of a log file after its header. Fails the test on a missing header, a second header,
// a missing final CRLF or a line that is not well formed.
std::vector<Line> ReadLines(const std::wstring& path, bool expectHeader = true) {
  const std::string bytes = ReadFileBytes(path);
  std::vector<Line> lines;
  std::size_t pos = 0;
  if (expectHeader) {
    EXPECT_EQ(bytes.compare(0, kHeader.size(), kHeader), 0) << "no header in " << korva::win::WideToUtf8(path);
    pos = kHeader.size();
  }
  EXPECT_EQ(bytes.find("\xEF\xBB\xBF", 1), std::string::npos) << "second byte-order mark";
  while (pos < bytes.size()) {
    const std::size_t end = bytes.find("\r\n", pos);
    if (end == std::string::npos) {
      ADD_FAILURE() << "last line has no CRLF: " << bytes.substr(pos, 200);
      break;
    }
    const std::optional<Line> line = Parse(std::string_view(bytes).substr(pos, end - pos));
    if (!line) {
      ADD_FAILURE() << "malformed line: " << bytes.substr(pos, std::min<std::size_t>(end - pos, 200));
    } else {
      lines.push_back(*line);
    }
    pos = end + 2;
  }
  return lines;
}

std::uint64_t FileSize(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return 0;
  return (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

std::set<std::wstring> FolderEntries(const std::wstring& folder) {
  std::set<std::wstring> names;
  WIN32_FIND_DATAW data;
  const HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return names;
  do {
    const std::wstring name = data.cFileName;
    if (name != L"." && name != L"..") names.insert(name);
  } while (FindNextFileW(find, &data));
  FindClose(find);
  return names;
}

// Length of an info line of this thread, whatever its time.
std::size_t InfoLineLength(std::string_view function, std::string_view message) {
  std::string line;
  korva::logformat::AppendLine(line, "2024-01-01 00:00:00", 0, GetCurrentThreadId(), korva::log::kInfo, function,
                               message);
  return line.size();
}

class ServiceLogTest : public ::testing::Test {
 protected:
  void TearDown() override { korva::log::ShutdownServiceLogger(); }
  std::wstring LogPath() const { return dir_.File(L"logs\\korva_agentservice.log"); }
  std::wstring Rolled(int n) const { return dir_.File(L"logs\\korva_agentservice" + std::to_wstring(n) + L".log"); }

  TempDir dir_;
};

TEST_F(ServiceLogTest, LineHasTheExactBytesWithLocalTimeAndTheWritingThread) {
  korva::log::InitializeServiceLogger(LogPath(), 4);
  const std::string before = LocalTimeText();
  KLOG_INFO_AS("main") << "Log Opened.";
  const std::string after = LocalTimeText();
  DWORD workerId = 0;
  std::thread worker([&] {
    workerId = GetCurrentThreadId();
    KLOG_WARNING_AS("Worker") << "from another thread";
  });
  worker.join();
  korva::log::ShutdownServiceLogger();

  const std::string bytes = ReadFileBytes(LogPath());
  ASSERT_EQ(bytes.compare(0, kHeader.size(), kHeader), 0);
  const std::string first = bytes.substr(kHeader.size(), bytes.find("\r\n", kHeader.size()) + 2 - kHeader.size());
  ASSERT_GT(first.size(), 25u);
  const std::string time = first.substr(2, 23);
  // Text order is time order; the record was made between the two readings.
  EXPECT_LE(before, time);
  EXPECT_LE(time, after);
  const std::string thread = ThreadIdText(GetCurrentThreadId());
  EXPECT_EQ(first, "[ " + time + " ] [ " + thread + " ] [  INFO ] [ main ] Log Opened.\r\n");
  const std::string second = bytes.substr(kHeader.size() + first.size());
  EXPECT_EQ(second.substr(25), " ] [ " + ThreadIdText(workerId) + " ] [ WARNING ] [ Worker ] from another thread\r\n");
}

// The log shows the system's local time even when the C library is told another zone.
TEST_F(ServiceLogTest, TimeIsTheSystemsLocalTimeWhateverTheCLibraryZone) {
  _putenv("TZ=KRV-9");  // nine hours away from any zone a Wine prefix runs in by default
  _tzset();
  korva::log::InitializeServiceLogger(LogPath(), 4);
  const std::string before = LocalTimeText();
  KLOG_INFO_AS("Zone") << "now";
  const std::string after = LocalTimeText();
  korva::log::ShutdownServiceLogger();
  _putenv("TZ=");
  _tzset();
  const std::vector<Line> lines = ReadLines(LogPath());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_LE(before, lines[0].time);
  EXPECT_LE(lines[0].time, after);
}

TEST_F(ServiceLogTest, EachSeverityIsWrittenOnlyWhenTheMaximumAdmitsIt) {
  const std::vector<std::string> names = {"FATAL", "ERROR", "WARNING", " INFO", "DEBUG", "VERBOSE", "UNKNOWN"};
  for (int max : {1, 4, 6, 7}) {
    const std::wstring path = dir_.File(L"max" + std::to_wstring(max) + L".log");
    korva::log::InitializeServiceLogger(path, max);
    KLOG_FATAL_AS("Sev") << 1;
    KLOG_ERROR_AS("Sev") << 2;
    KLOG_WARNING_AS("Sev") << 3;
    KLOG_INFO_AS("Sev") << 4;
    KLOG_DEBUG_AS("Sev") << 5;
    KLOG_VERBOSE_AS("Sev") << 6;
    KLOG_AT(7, "Sev") << 7;
    korva::log::ShutdownServiceLogger();
    const std::vector<Line> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(max)) << max;
    for (int s = 1; s <= max; ++s) {
      EXPECT_EQ(lines[s - 1].severity, names[s - 1]) << max;
      EXPECT_EQ(lines[s - 1].message, std::to_string(s)) << max;
    }
  }
}

TEST_F(ServiceLogTest, HeaderStartsOnlyANewFile) {
  korva::log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("Open") << "one";
  korva::log::ShutdownServiceLogger();
  korva::log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("Open") << "two";
  korva::log::ShutdownServiceLogger();
  const std::vector<Line> lines = ReadLines(LogPath());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].message, "two");

  const std::wstring existing = dir_.File(L"existing.log");
  const std::string old(100, 'o');
  WriteFileBytes(existing, old);
  korva::log::InitializeServiceLogger(existing, 4);
  KLOG_INFO_AS("Open") << "appended";
  korva::log::ShutdownServiceLogger();
  const std::string bytes = ReadFileBytes(existing);
  EXPECT_EQ(bytes.substr(0, 100), old);
  EXPECT_EQ(bytes.size(), 100 + InfoLineLength("Open", "appended"));
  EXPECT_EQ(bytes.find("Date/Time"), std::string::npos);
  EXPECT_NE(bytes.find(" ] [  INFO ] [ Open ] appended\r\n", 100), std::string::npos);
}

// A file found above the limit is only opened by the first write; the second rolls it. The base
// folder's own dot must not be taken for the extension's.
TEST_F(ServiceLogTest, OversizedFileRollsOnTheSecondWriteInAFolderWithADot) {
  const std::wstring folder = dir_.File(L"a.b");
  const std::wstring path = folder + L"\\logs\\korva_agentservice.log";
  ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
  ASSERT_TRUE(CreateDirectoryW((folder + L"\\logs").c_str(), nullptr));
  const std::string old(kMaxFileSize + 1, 'o');
  WriteFileBytes(path, old);

  korva::log::InitializeServiceLogger(path, 4);
  KLOG_INFO_AS("Roll") << "first";
  EXPECT_EQ(FileSize(path), old.size() + InfoLineLength("Roll", "first"));
  EXPECT_EQ(FolderEntries(folder + L"\\logs"), std::set<std::wstring>{L"korva_agentservice.log"});
  KLOG_INFO_AS("Roll") << "second";
  korva::log::ShutdownServiceLogger();

  EXPECT_EQ(FolderEntries(dir_.path()), std::set<std::wstring>{L"a.b"});
  EXPECT_EQ(FolderEntries(folder), std::set<std::wstring>{L"logs"});
  EXPECT_EQ(FolderEntries(folder + L"\\logs"),
            (std::set<std::wstring>{L"korva_agentservice.log", L"korva_agentservice1.log"}));
  const std::string rolled = ReadFileBytes(folder + L"\\logs\\korva_agentservice1.log");
  EXPECT_EQ(rolled.size(), old.size() + InfoLineLength("Roll", "first"));
  EXPECT_EQ(rolled.compare(0, old.size(), old), 0);
  const std::vector<Line> lines = ReadLines(path);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, "second");
}

// Only a size above the limit rolls: a file that reaches it exactly takes one more record.
TEST_F(ServiceLogTest, FileOfExactlyTheLimitIsNotRolled) {
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"logs").c_str(), nullptr));
  const std::size_t line = InfoLineLength("Edge", "x");
  WriteFileBytes(LogPath(), std::string(kMaxFileSize - line, 'o'));
  korva::log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("Edge") << "x";  // opens; the file is now exactly at the limit
  KLOG_INFO_AS("Edge") << "x";  // not above it: appended
  EXPECT_FALSE(FileExists(Rolled(1)));
  EXPECT_EQ(FileSize(LogPath()), kMaxFileSize + line);
  KLOG_INFO_AS("Edge") << "x";  // above it: rolled first
  korva::log::ShutdownServiceLogger();
  EXPECT_EQ(FileSize(Rolled(1)), kMaxFileSize + line);
  EXPECT_EQ(ReadLines(LogPath()).size(), 1u);
}

// Many rolls keep five files, numbered newest (no number) to oldest (4), each with its header.
TEST_F(ServiceLogTest, RollingKeepsFiveFilesInOrder) {
  const std::string pad(4000, 'p');
  constexpr int kRecords = 8000;  // about 32 MB: six or more rolls
  korva::log::InitializeServiceLogger(LogPath(), 4);
  for (int i = 0; i < kRecords; ++i) KLOG_INFO_AS("Roll") << "record " << i << ' ' << pad;
  korva::log::ShutdownServiceLogger();

  EXPECT_EQ(FolderEntries(dir_.File(L"logs")),
            (std::set<std::wstring>{L"korva_agentservice.log", L"korva_agentservice1.log", L"korva_agentservice2.log",
                                    L"korva_agentservice3.log", L"korva_agentservice4.log"}));
  int expected = -1;
  for (int n = 4; n >= 0; --n) {
    const std::wstring path = n == 0 ? LogPath() : Rolled(n);
    EXPECT_LT(FileSize(path), kMaxFileSize + 4100) << "file " << n;
    if (n > 0) {
      EXPECT_GT(FileSize(path), kMaxFileSize) << "file " << n;
    }
    for (const Line& line : ReadLines(path)) {
      const int number = std::atoi(line.message.c_str() + 7);
      if (expected < 0) {
        EXPECT_GT(number, 0) << "the oldest records go with the files beyond the fifth";
      } else {
        EXPECT_EQ(number, expected) << "file " << n;
      }
      expected = number + 1;
      EXPECT_EQ(line.message, "record " + std::to_string(number) + ' ' + pad);
    }
  }
  EXPECT_EQ(expected, kRecords);
}

TEST_F(ServiceLogTest, MessageTextArrivesAsUtf8WithCrLf) {
  const std::string ansi = korva::win::WideToAnsi(L"caf\u00e9 \u00fcber");
  ASSERT_EQ(korva::win::AnsiToWide(ansi), L"caf\u00e9 \u00fcber") << "code page " << GetACP();
  struct Case {
    std::function<void()> log;
    std::string message;  // as it must appear in the file, CRLF included
  };
  const std::vector<Case> cases = {
      {[&] { KLOG_INFO_AS("Text") << ansi.c_str(); }, "caf\xC3\xA9 \xC3\xBC" "ber\r\n"},
      {[&] { KLOG_INFO_AS("Text") << ansi << '!'; }, "caf\xC3\xA9 \xC3\xBC" "ber!\r\n"},
      {[] { KLOG_INFO_AS("Text") << L"\u4e2d\u6587 \U0001F600"; }, "\xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80\r\n"},
      {[] { KLOG_INFO_AS("Text") << std::wstring(L"\u00e9") << L"x"; }, "\xC3\xA9x\r\n"},
      {[] { KLOG_INFO_AS("Text") << "first\nsecond\n"; }, "first\r\nsecond\r\n\r\n"},
      {[] { KLOG_INFO_AS("Text") << "{} {0} %s %d {"; }, "{} {0} %s %d {\r\n"},
      {[] { KLOG_INFO_AS("Text") << "Retry Count =" << 5 << ' ' << -7 << ' ' << 4294967295u; },
       "Retry Count =5 -7 4294967295\r\n"},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const std::wstring path = dir_.File(L"text" + std::to_wstring(i) + L".log");
    korva::log::InitializeServiceLogger(path, 4);
    cases[i].log();
    korva::log::ShutdownServiceLogger();
    const std::string bytes = ReadFileBytes(path);
    const std::string marker = "[  INFO ] [ Text ] ";
    const std::size_t at = bytes.find(marker);
    ASSERT_NE(at, std::string::npos) << i;
    EXPECT_EQ(bytes.substr(at + marker.size()), cases[i].message) << i;
  }
}

// Eight threads writing across several rolls: every line arrives once, whole, in each thread's order.
TEST_F(ServiceLogTest, ConcurrentWritersNeitherLoseNorTearLines) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 1200;  // about 18 MB in all: three or four rolls, no file dropped
  std::vector<DWORD> ids(kThreads);
  std::atomic<int> ready{0};
  korva::log::InitializeServiceLogger(LogPath(), 4);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ids[t] = GetCurrentThreadId();
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      for (int i = 0; i < kPerThread; ++i) {
        KLOG_INFO_AS("Writer") << "T" << t << " N" << i << ' ' << std::string(1500 + (i * 37) % 800, 'a' + t);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  korva::log::ShutdownServiceLogger();

  ASSERT_TRUE(FileExists(Rolled(2)));
  ASSERT_FALSE(FileExists(Rolled(4)));
  std::vector<int> next(kThreads, 0);
  int total = 0;
  for (int n = 4; n >= 0; --n) {
    const std::wstring path = n == 0 ? LogPath() : Rolled(n);
    if (!FileExists(path)) continue;
    for (const Line& line : ReadLines(path)) {
      int t = -1;
      int i = -1;
      int pad = 0;
      ASSERT_EQ(std::sscanf(line.message.c_str(), "T%d N%d %n", &t, &i, &pad), 2) << line.message.substr(0, 40);
      ASSERT_TRUE(t >= 0 && t < kThreads);
      EXPECT_EQ(i, next[t]) << "thread " << t;
      next[t] = i + 1;
      EXPECT_EQ(line.message.substr(pad), std::string(1500 + (i * 37) % 800, 'a' + t));
      EXPECT_EQ(line.thread, ThreadIdText(ids[t]));
      EXPECT_EQ(line.function, "Writer");
      ++total;
    }
  }
  EXPECT_EQ(total, kThreads * kPerThread);
}

void ScopedWork() {
  KLOG_SCOPE();
  KLOG_INFO << "working";
}

void MemberWork() { KLOG_SCOPE_AS("CWMI_Core::Connect"); }

void VariantWork() { korva::log::Scope scope("ServiceMain", "### Entering ServiceMain ###", "### Leaving ###"); }

int ThrowingWork() {
  return korva::log::Guarded("ThrowingWork", -1, []() -> int { throw std::runtime_error("boom"); });
}

int CalmWork() {
  return korva::log::Guarded("CalmWork", -1, [] { return 7; }, "Exception Caught.");
}

void ThrowingVoidWork() {
  korva::log::GuardedVoid("ThrowingVoidWork", [] { throw 42; }, "Exception Caught.");
}

TEST_F(ServiceLogTest, ScopesWriteEntryAndExitAtDebugAndGuardedLogsItsCatch) {
  struct Expected {
    std::string severity, function, message;
  };
  const std::vector<Expected> debug = {
      {"DEBUG", "ScopedWork", "@@@ Inside ScopedWork @@@"},
      {" INFO", "ScopedWork", "working"},
      {"DEBUG", "ScopedWork", "@@@ End of ScopedWork @@@"},
      {"DEBUG", "CWMI_Core::Connect", "@@@ Inside CWMI_Core::Connect @@@"},
      {"DEBUG", "CWMI_Core::Connect", "@@@ End of CWMI_Core::Connect @@@"},
      {"DEBUG", "ServiceMain", "### Entering ServiceMain ###"},
      {"DEBUG", "ServiceMain", "### Leaving ###"},
      {"ERROR", "ThrowingWork", "Exception caught."},
      {"ERROR", "ThrowingVoidWork", "Exception Caught."},
  };
  for (int max : {5, 4}) {
    const std::wstring path = dir_.File(L"scope" + std::to_wstring(max) + L".log");
    korva::log::InitializeServiceLogger(path, max);
    ScopedWork();
    MemberWork();
    VariantWork();
    EXPECT_EQ(ThrowingWork(), -1);
    EXPECT_EQ(CalmWork(), 7);
    ThrowingVoidWork();
    korva::log::ShutdownServiceLogger();
    std::vector<Expected> expected;
    for (const Expected& e : debug) {
      if (max == 5 || e.severity != "DEBUG") expected.push_back(e);
    }
    const std::vector<Line> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), expected.size()) << max;
    for (std::size_t i = 0; i < lines.size(); ++i) {
      EXPECT_EQ(lines[i].severity, expected[i].severity) << max << " " << i;
      EXPECT_EQ(lines[i].function, expected[i].function) << max << " " << i;
      EXPECT_EQ(lines[i].message, expected[i].message) << max << " " << i;
    }
  }
}

TEST_F(ServiceLogTest, NothingIsWrittenBeforeSetUpOrAfterShutdown) {
  KLOG_FATAL_AS("Early") << "dropped";
  korva::log::InitializeServiceLogger(LogPath(), 4);
  korva::log::ShutdownServiceLogger();
  KLOG_FATAL_AS("Late") << "dropped";
  EXPECT_FALSE(FileExists(LogPath()));
  EXPECT_FALSE(FileExists(dir_.File(L"logs")));
}

}  // namespace
