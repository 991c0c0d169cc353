// The service log on real files: exact line bytes, header, rolling, severities, text conversion,
// concurrent writers, and the scope and catch-all helpers.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
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

namespace {

using korva::test::FileExists;
using korva::test::ReadFileBytes;

const std::string kHeader =
    "\xEF\xBB\xBF"
    "Date/Time | ThreadID | Severity | Function | Message\r\n";

struct Line {
  std::string thread, severity, function, message;
};

// Splits "[ time ] [ thread ] [ severity ] [ function ] message" (without its CRLF); nothing when
// a field is missing or malformed.
std::optional<Line> Parse(std::string_view s) {
  static const std::set<std::string> kSeverities = {"FATAL", "ERROR", "WARNING", " INFO", "DEBUG", "VERBOSE"};
  std::string field[4];
  std::size_t at = 0;
  for (std::string& f : field) {
    const std::size_t end = s.compare(at, 2, "[ ") == 0 ? s.find(" ] ", at) : s.npos;
    if (end == s.npos) return std::nullopt;
    f = s.substr(at + 2, end - at - 2);
    at = end + 3;
  }
  Line line{field[1], field[2], field[3], std::string(s.substr(at))};
  if (field[0].size() != 23 || line.thread.size() < 8 || line.thread.find_first_not_of("0123456789") != s.npos ||
      kSeverities.count(line.severity) == 0 || line.message.find_first_of("\r\n") != s.npos) {
    return std::nullopt;
  }
  return line;
}

// The lines of a log file after its header; fails the test on a missing or second header, a missing
// final CRLF or a malformed line.
std::vector<Line> ReadLines(const std::wstring& path) {
  const std::string bytes = ReadFileBytes(path);
  EXPECT_EQ(bytes.compare(0, kHeader.size(), kHeader), 0) << "no header";
  EXPECT_EQ(bytes.find("\xEF\xBB\xBF", 1), std::string::npos) << "second byte-order mark";
  std::vector<Line> lines;
  for (std::size_t pos = kHeader.size(), end; pos < bytes.size(); pos = end + 2) {
    end = bytes.find("\r\n", pos);
    if (end == std::string::npos) {
      ADD_FAILURE() << "last line has no CRLF";
      break;
    }
    const std::optional<Line> line = Parse(std::string_view(bytes).substr(pos, end - pos));
    if (line)
      lines.push_back(*line);
    else
      ADD_FAILURE() << "malformed line: " << bytes.substr(pos, std::min<std::size_t>(end - pos, 200));
  }
  return lines;
}

// "YYYY-MM-DD hh:mm:ss:mmm" of GetLocalTime: ordered like the time it shows.
std::string LocalTimeText() {
  SYSTEMTIME t;
  GetLocalTime(&t);
  char text[32];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u:%03u", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                t.wSecond, t.wMilliseconds);
  return text;
}

std::string ThreadIdText(DWORD id) {
  char text[16];
  std::snprintf(text, sizeof text, "%08lu", static_cast<unsigned long>(id));
  return text;
}

class ServiceLogTest : public ::testing::Test {
 protected:
  void TearDown() override { korva::log::ShutdownServiceLogger(); }
  std::wstring LogPath(int n = 0) const {
    return dir_.File(L"logs\\korva_agentservice" + (n ? std::to_wstring(n) : L"") + L".log");
  }
  korva::test::TempDir dir_;
};

// Also: wide text arrives as UTF-8, braces and percent signs as they are, and reopening the file
// appends without a second header.
TEST_F(ServiceLogTest, LineHasTheExactBytesWithLocalTimeAndTheWritingThread) {
  korva::log::InitializeServiceLogger(LogPath(), 4);
  const std::string before = LocalTimeText();
  KLOG_INFO_AS("main") << "Log Opened.";
  const std::string after = LocalTimeText();
  DWORD workerId = 0;
  std::thread([&] {
    workerId = GetCurrentThreadId();
    KLOG_WARNING_AS("Worker") << L"\u4e2d\u6587 \U0001F600" << std::wstring(L"\u00e9") << " {} %s " << -7;
  }).join();
  korva::log::ShutdownServiceLogger();

  const std::string bytes = ReadFileBytes(LogPath());
  ASSERT_EQ(bytes.compare(0, kHeader.size(), kHeader), 0);
  const std::string first = bytes.substr(kHeader.size(), bytes.find("\r\n", kHeader.size()) + 2 - kHeader.size());
  ASSERT_GT(first.size(), 25u);
  const std::string time = first.substr(2, 23);
  EXPECT_LE(before, time);  // text order is time order
  EXPECT_LE(time, after);
  EXPECT_EQ(first,
            "[ " + time + " ] [ " + ThreadIdText(GetCurrentThreadId()) + " ] [  INFO ] [ main ] Log Opened.\r\n");
  EXPECT_EQ(bytes.substr(kHeader.size() + first.size() + 25),
            " ] [ " + ThreadIdText(workerId) +
                " ] [ WARNING ] [ Worker ] \xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80\xC3\xA9 {} %s -7\r\n");

  korva::log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("main") << "again";
  korva::log::ShutdownServiceLogger();
  const std::vector<Line> lines = ReadLines(LogPath());  // fails on a second header or byte-order mark
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2].message, "again");
}

// A file found above the limit is only appended to (no header) by the first write; the second rolls
// it. Many rolls then keep five files, numbered newest (no number) to oldest (4), each with its
// header. The base folder's own dot must not be taken for the extension's.
TEST_F(ServiceLogTest, OversizedFileRollsOnTheSecondWriteAndFiveFilesAreKeptInAFolderWithADot) {
  const std::wstring folder = dir_.File(L"a.b\\logs");
  const auto path = [&](int n) { return folder + L"\\korva_agentservice" + (n ? std::to_wstring(n) : L"") + L".log"; };
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"a.b").c_str(), nullptr));
  ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
  const std::string old(5 * 1024 * 1024 + 1, 'o');
  korva::test::WriteFileBytes(path(0), old);

  korva::log::InitializeServiceLogger(path(0), 4);
  KLOG_INFO_AS("Roll") << "record 0";
  EXPECT_FALSE(FileExists(path(1)));
  KLOG_INFO_AS("Roll") << "record 1";
  const std::string rolled = ReadFileBytes(path(1));
  EXPECT_EQ(rolled.compare(0, old.size(), old), 0);
  std::string record0;  // its length only: the time in it is whatever the clock said
  korva::logformat::AppendLine(record0, "2024-01-01 00:00:00", 0, GetCurrentThreadId(), 4, "Roll", "record 0");
  EXPECT_EQ(rolled.size(), old.size() + record0.size());

  const std::string pad(4000, 'p');
  constexpr int kRecords = 8000;  // about 32 MB: six or more rolls
  for (int i = 2; i < kRecords; ++i) KLOG_INFO_AS("Roll") << "record " << i << ' ' << pad;
  korva::log::ShutdownServiceLogger();
  EXPECT_FALSE(FileExists(path(5)));
  int expected = -1;
  for (int n = 4; n >= 0; --n) {
    ASSERT_TRUE(FileExists(path(n))) << n;
    for (const Line& line : ReadLines(path(n))) {
      const int number = std::atoi(line.message.c_str() + 7);
      // The oldest records, the oversized file's among them, went with the files beyond the fifth.
      EXPECT_TRUE(expected >= 0 ? number == expected : number > 1) << "file " << n << ": record " << number;
      expected = number + 1;
    }
  }
  EXPECT_EQ(expected, kRecords);
}

// Eight threads writing across several rolls: every line arrives once, whole, in each thread's order.
TEST_F(ServiceLogTest, ConcurrentWritersNeitherLoseNorTearLines) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 1200;  // about 18 MB in all: three or four rolls, no file dropped
  const auto text = [](int t, int i) { return std::string(1500 + (i * 37) % 800, static_cast<char>('a' + t)); };
  std::atomic<int> ready{0};
  korva::log::InitializeServiceLogger(LogPath(), 4);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (ready.fetch_add(1); ready.load() < kThreads;) std::this_thread::yield();
      for (int i = 0; i < kPerThread; ++i) KLOG_INFO_AS("Writer") << "T" << t << " N" << i << ' ' << text(t, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  korva::log::ShutdownServiceLogger();

  ASSERT_TRUE(FileExists(LogPath(2)));
  ASSERT_FALSE(FileExists(LogPath(4)));
  std::vector<int> next(kThreads, 0);
  for (int n = 3; n >= 0; --n) {
    if (!FileExists(LogPath(n))) continue;
    for (const Line& line : ReadLines(LogPath(n))) {
      int t = -1, i = -1, pad = 0;
      ASSERT_EQ(std::sscanf(line.message.c_str(), "T%d N%d %n", &t, &i, &pad), 2) << line.message.substr(0, 40);
      ASSERT_TRUE(t >= 0 && t < kThreads);
      EXPECT_EQ(i, next[t]++) << "thread " << t;
      EXPECT_EQ(line.message.substr(pad), text(t, i));
    }
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread));
}

// Threads that are not joined may still be logging when the log is closed or replaced (a test's
// log capture ends, the process winds down): they lose those records, never the process.
TEST_F(ServiceLogTest, ClosingTheLogUnderRunningWritersDropsTheirRecordsSafely) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int t = 0; t < 3; ++t) {
    writers.emplace_back([&] {
      while (!stop.load()) KLOG_INFO_AS("Writer") << "still here";
    });
  }
  for (int round = 0; round < 300; ++round) {
    korva::log::InitializeServiceLogger(LogPath(round % 2), 4);
    korva::log::ShutdownServiceLogger();
  }
  stop.store(true);
  for (std::thread& writer : writers) writer.join();
  korva::log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("main") << "after";
  korva::log::ShutdownServiceLogger();
  const std::vector<Line> lines = ReadLines(LogPath());
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().message, "after");
}

void ScopedWork() {
  KLOG_SCOPE();
  KLOG_INFO << "working";
}

TEST_F(ServiceLogTest, ScopesWriteEntryAndExitAtDebugAndGuardedLogsItsCatch) {
  for (int max : {5, 4}) {
    const std::wstring path = dir_.File(L"scope" + std::to_wstring(max) + L".log");
    korva::log::InitializeServiceLogger(path, max);
    ScopedWork();
    { KLOG_SCOPE_AS("CWMI_Core::Connect"); }
    EXPECT_EQ(korva::log::Guarded("ThrowingWork", -1, []() -> int { throw std::runtime_error("boom"); }), -1);
    EXPECT_EQ(korva::log::Guarded("CalmWork", -1, [] { return 7; }), 7);
    korva::log::GuardedVoid(
        "ThrowingVoidWork", [] { throw 42; }, "Exception Caught.");
    korva::log::ShutdownServiceLogger();
    std::vector<std::string> expected = {"DEBUG|ScopedWork|@@@ Inside ScopedWork @@@",
                                         " INFO|ScopedWork|working",
                                         "DEBUG|ScopedWork|@@@ End of ScopedWork @@@",
                                         "DEBUG|CWMI_Core::Connect|@@@ Inside CWMI_Core::Connect @@@",
                                         "DEBUG|CWMI_Core::Connect|@@@ End of CWMI_Core::Connect @@@",
                                         "ERROR|ThrowingWork|Exception caught.",
                                         "ERROR|ThrowingVoidWork|Exception Caught."};
    if (max == 4) expected = {expected[1], expected[5], expected[6]};  // no DEBUG lines
    std::vector<std::string> actual;
    for (const Line& l : ReadLines(path)) actual.push_back(l.severity + "|" + l.function + "|" + l.message);
    EXPECT_EQ(actual, expected) << max;
  }
}

}  // namespace
