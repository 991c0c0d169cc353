// Settings on real files and the real registry: the log, its level, AgentParameters, registry and machine details.
#include <atomic>
#include <optional>
#include <regex>
#include <thread>

#include "settings/agent_parameters.h"
#include "settings/core/log_format.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/log_file_writer.h"
#include "settings/log_level.h"
#include "settings/machine_details.h"
#include "settings/rapidjson_class.h"
#include "settings/string_conversion.h"
#include "support/agent_fixture.h"

namespace korva::test {
namespace {

const std::string kHeader = "\xEF\xBB\xBF" "Date/Time | ThreadID | Severity | Function | Message\r\n";
struct Line { std::string time, thread, severity, function, message; };

// The lines after the header; fails on a missing or second header, no final CRLF or a malformed line.
std::vector<Line> ReadLines(const std::wstring& path) {
  static const std::regex kFields(R"(\[ (\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3}) \] \[ (\d{8,}) \] )"
                                  R"(\[ (FATAL|ERROR|WARNING| INFO|DEBUG|VERBOSE) \] \[ ([^\]\r\n]*) \] )");
  const std::string bytes = ReadFileBytes(path);
  EXPECT_EQ(bytes.compare(0, kHeader.size(), kHeader), 0) << "no header";
  EXPECT_EQ(bytes.find("\xEF\xBB\xBF", 1), std::string::npos) << "second byte-order mark";
  EXPECT_TRUE(bytes.size() >= 2 && bytes.compare(bytes.size() - 2, 2, "\r\n") == 0) << "last line has no CRLF";
  std::vector<Line> lines;
  for (std::size_t pos = kHeader.size(), end; (end = bytes.find("\r\n", pos)) != std::string::npos; pos = end + 2) {
    const std::string text = bytes.substr(pos, end - pos);
    std::smatch m;
    const bool whole = std::regex_search(text, m, kFields, std::regex_constants::match_continuous) &&
                       m.suffix().str().find_first_of("\r\n") == std::string::npos;
    EXPECT_TRUE(whole) << "malformed line: " << text.substr(0, 200);
    if (whole) lines.push_back({m[1], m[2], m[3], m[4], m.suffix()});
  }
  return lines;
}

class ServiceLogTest : public ::testing::Test {
 protected:
  void TearDown() override { log::ShutdownServiceLogger(); }
  // The base folder's own dot must not be taken for the extension's.
  [[nodiscard]] std::wstring LogPath(int n = 0) const {
    return dir_.File(L"a.b\\korva_agentservice" + (n ? std::to_wstring(n) : L"") + L".log");
  }
  TempDir dir_;
};

// "YYYY-MM-DD hh:mm:ss:mmm" of GetLocalTime: ordered like the time it shows.
std::string LocalTimeText() {
  SYSTEMTIME t;
  GetLocalTime(&t);
  char text[32];
  static_cast<void>(std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u:%03u", t.wYear, t.wMonth, t.wDay,
                                  t.wHour, t.wMinute, t.wSecond, t.wMilliseconds));
  return text;
}

void ScopedWork() {
  KLOG_SCOPE();
  KLOG_INFO << "working";
}

// Wide text as UTF-8, braces and percent signs as they are; reopening appends without a second header.
// A failed call without a sentence writes only the error's two lines (no empty record).
TEST_F(ServiceLogTest, LinesHaveTheirExactBytesAndScopesCatchAllsAndFailedCallsTheirLines) {
  const std::string before = LocalTimeText();
  log::InitializeServiceLogger(LogPath(), 5);
  KLOG_INFO_AS("main") << "Log Opened.";
  const std::string after = LocalTimeText();
  DWORD worker = 0;
  std::thread([&] {
    worker = GetCurrentThreadId();
    KLOG_WARNING_AS("Worker") << L"\u4e2d\u6587 \U0001F600" << std::wstring(L"\u00e9") << " {} %s " << -7;
  }).join();
  for (int max : {5, 4}) {
    log::ShutdownServiceLogger();
    log::InitializeServiceLogger(LogPath(), max);
    ScopedWork();
    { KLOG_SCOPE_AS("CWMI_Core::Connect"); }
    EXPECT_EQ(log::Guarded("ThrowingWork", -1, []() -> int { throw std::runtime_error("boom"); }), -1);
    EXPECT_EQ(log::Guarded("CalmWork", -1, [] { return 7; }), 7);
    log::GuardedVoid("ThrowingVoidWork", [] { throw 42; }, "Exception Caught.");
  }
  EXPECT_EQ(LogFailedCall("Opener", ERROR_FILE_NOT_FOUND, "Open failed with code : ", 2L), DWORD{ERROR_FILE_NOT_FOUND});
  SetLastError(ERROR_ACCESS_DENIED);
  EXPECT_EQ(LogLastError("Silent"), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_EQ(LogFailedCallInline("Starter", ERROR_INVALID_PARAMETER, "Error code :", 87UL, " "),
            DWORD{ERROR_INVALID_PARAMETER});
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(LogLastErrorInline("Copier", "Copy failed :"), DWORD{ERROR_NOT_ENOUGH_MEMORY});
  const std::string missing = GetErrorMsgForID(ERROR_FILE_NOT_FOUND);
  ASSERT_FALSE(missing.empty());
  log::ShutdownServiceLogger();
  const std::vector<Line> lines = ReadLines(LogPath());
  ASSERT_EQ(lines.size(), 19u);
  EXPECT_TRUE(before <= lines[0].time && lines[0].time <= after) << lines[0].time;  // text order is time order
  char main[16];
  char other[16];
  static_cast<void>(std::snprintf(main, sizeof main, "%08lu", GetCurrentThreadId()));
  static_cast<void>(std::snprintf(other, sizeof other, "%08lu", worker));
  std::string text;  // "other " marks the worker's lines
  for (const Line& l : lines) {
    text += (l.thread == main ? "" : l.thread == other ? "other " : "? ") + l.severity + "|" + l.function + "|" +
            l.message + "\n";
  }
  EXPECT_EQ(text,
            " INFO|main|Log Opened.\nother WARNING|Worker|\xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80\xC3\xA9 {} %s -7\n"
            "DEBUG|ScopedWork|@@@ Inside ScopedWork @@@\n INFO|ScopedWork|working\n"
            "DEBUG|ScopedWork|@@@ End of ScopedWork @@@\nDEBUG|CWMI_Core::Connect|@@@ Inside CWMI_Core::Connect @@@\n"
            "DEBUG|CWMI_Core::Connect|@@@ End of CWMI_Core::Connect @@@\nERROR|ThrowingWork|Exception caught.\n"
            "ERROR|ThrowingVoidWork|Exception Caught.\n INFO|ScopedWork|working\nERROR|ThrowingWork|Exception caught.\n"
            "ERROR|ThrowingVoidWork|Exception Caught.\nERROR|Opener|Open failed with code : 2\n"
            " INFO|printErrorMsgForID|Error ID      :2\n INFO|printErrorMsgForID|Error Message :" + missing + "\n"
            " INFO|printErrorMsgForID|Error ID      :5\n INFO|printErrorMsgForID|Error Message :" +
            GetErrorMsgForID(ERROR_ACCESS_DENIED) + "\nERROR|Starter|Error code :87 " +
            GetErrorMsgForID(ERROR_INVALID_PARAMETER) + "\nERROR|Copier|Copy failed :" +
            GetErrorMsgForID(ERROR_NOT_ENOUGH_MEMORY) + "\n");
}

// A log folder someone made a link after the start-up looked takes no record through it; the records
// wait, held, and reach the file once the folder is a real one again (the link gone, the agent makes it).
TEST_F(ServiceLogTest, ALogFolderThatIsALinkTakesNothingAndItsRecordsWaitForARealOne) {
  const std::wstring elsewhere = dir_.File(L"elsewhere");
  ASSERT_TRUE(CreateDirectoryW(elsewhere.c_str(), nullptr));
  {
    const FolderLink link(dir_.File(L"a.b"), elsewhere);
    ASSERT_TRUE(link.made());
    log::InitializeServiceLogger(LogPath(), 4);
    KLOG_INFO_AS("Linked") << "held";
    EXPECT_FALSE(FileExists(elsewhere + L"\\korva_agentservice.log"));
  }
  EXPECT_TRUE(WaitUntil([&] { return FileExists(LogPath()); }, 10000));
  log::ShutdownServiceLogger();
  EXPECT_NE(ReadFileBytes(LogPath()).find("[ Linked ] held\r\n"), std::string::npos);
  EXPECT_FALSE(FileExists(elsewhere + L"\\korva_agentservice.log"));
}

// Only the log's folder and the agent folder that holds it are made, for SYSTEM and administrators: a folder
// above them would take the list it inherits (a drive root's lets users rename it), so the records wait for it.
TEST_F(ServiceLogTest, OnlyTheLogsTwoOwnFoldersAreMadeAndItsRecordsWaitForTheOnesAbove) {
  const std::wstring above = dir_.File(L"above");
  const std::wstring log = above + L"\\base\\logs\\korva_agentservice.log";
  log::InitializeServiceLogger(log, 4);
  KLOG_INFO_AS("Above") << "held";
  EXPECT_FALSE(log::FlushServiceLogger(300));
  EXPECT_FALSE(FileExists(above));
  ASSERT_TRUE(CreateDirectoryW(above.c_str(), nullptr));
  EXPECT_TRUE(log::FlushServiceLogger(10000));
  log::ShutdownServiceLogger();
  EXPECT_NE(ReadFileBytes(log).find("[ Above ] held\r\n"), std::string::npos);
}

// A file found above the limit takes one more write. Eight writers: five files kept, the newest unnumbered, each
// thread's lines whole and without a gap up to its last (the oldest went with the files beyond the fifth).
TEST_F(ServiceLogTest, RollsOnTheSecondWriteAndKeepsFiveFilesOfWholeLinesInOrderUnderConcurrentWriters) {
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"a.b").c_str(), nullptr));
  const std::string old(5 * 1024 * 1024 + 1, 'o');
  WriteFileBytes(LogPath(0), old);
  log::InitializeServiceLogger(LogPath(0), 4);
  KLOG_INFO_AS("Roll") << "record 0";
  EXPECT_FALSE(FileExists(LogPath(1)));
  KLOG_INFO_AS("Roll") << "record 1";
  const std::string rolled = ReadFileBytes(LogPath(1));
  EXPECT_EQ(rolled.compare(0, old.size(), old), 0);
  const std::regex record0(R"(\[ [-\d: ]+ \] \[ \d+ \] \[  INFO \] \[ Roll \] record 0\r\n)");
  EXPECT_TRUE(std::regex_match(rolled.substr(old.size()), record0)) << rolled.substr(old.size());

  constexpr int kThreads = 8;
  constexpr int kPerThread = 2000;  // about 30 MB: six or more rolls
  const auto text = [](int t, int i) { return std::string(1500 + (i * 37) % 800, static_cast<char>('a' + t)); };
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (ready.fetch_add(1); ready.load() < kThreads;) std::this_thread::yield();
      for (int i = 0; i < kPerThread; ++i) KLOG_INFO_AS("Writer") << "T" << t << " N" << i << ' ' << text(t, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  log::ShutdownServiceLogger();
  EXPECT_FALSE(FileExists(LogPath(5)));
  std::vector<int> next(kThreads, -1);
  for (int n = 4; n >= 0; --n) {
    ASSERT_TRUE(FileExists(LogPath(n))) << n;
    for (const Line& line : ReadLines(LogPath(n))) {
      int t = -1;
      int i = -1;
      int pad = 0;
      // NOLINTNEXTLINE(cert-err34-c): a number out of range fails the checks that follow
      ASSERT_EQ(std::sscanf(line.message.c_str(), "T%d N%d %n", &t, &i, &pad), 2) << line.message.substr(0, 40);
      ASSERT_TRUE(t >= 0 && t < kThreads);
      EXPECT_TRUE(next[t] < 0 || i == next[t]) << "thread " << t << ": " << i << " after " << next[t] - 1;
      EXPECT_EQ(line.message.substr(pad), text(t, i));
      next[t] = i + 1;
    }
  }
  // A thread that wrote early may have had all its lines in the dropped files.
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(next[t] == kPerThread || next[t] == -1) << t << ": " << next[t];
}

TEST_F(ServiceLogTest, ClosingTheLogUnderRunningWritersDropsTheirRecordsSafely) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers(3);
  for (std::thread& w : writers) w = std::thread([&] { while (!stop.load()) KLOG_INFO_AS("Writer") << "still here"; });
  for (int round = 0; round < 300; ++round) {
    log::InitializeServiceLogger(LogPath(round % 2), 4);
    log::ShutdownServiceLogger();
  }
  stop.store(true);
  for (std::thread& w : writers) w.join();
  log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("main") << "after";
  log::ShutdownServiceLogger();
  EXPECT_EQ(ReadLines(LogPath()).back().message, "after");  // every line before it whole
}

// Another process's handle on a log file: `share` says what it lets others do.
win::UniqueHandle HoldFile(const std::wstring& path, DWORD access, DWORD share) {
  win::UniqueHandle held(CreateFileW(path.c_str(), access, share, nullptr, OPEN_ALWAYS, 0, nullptr));
  EXPECT_TRUE(held) << GetLastError();
  return held;
}

// At the end of a process whose log file stays held, the records it never took are taken out of the
// log to be kept elsewhere: in order, the count of those that did not fit last, and never written
// to the file afterwards. Records held beyond 4 MiB after that reach the file once it is free, the
// count of the dropped ones after the kept.
TEST_F(ServiceLogTest, HeldRecordsAreTakenOnceNeverWrittenLaterAndThoseBeyondFourMebibytesCountedAfterTheKeptOnes) {
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"a.b").c_str(), nullptr));
  win::UniqueHandle holder = HoldFile(LogPath(), GENERIC_WRITE, FILE_SHARE_READ);
  log::InitializeServiceLogger(LogPath(), 4);
  const std::string filler = ' ' + std::string(4000, 'h');
  constexpr int kRecords = 1100;  // about 4.5 MB of lines, more than is kept
  for (int i = 0; i < kRecords; ++i) KLOG_INFO_AS("Held") << "T" << i << filler;
  EXPECT_FALSE(log::FlushServiceLogger(0));
  const std::string taken = log::TakeHeldServiceRecords();
  int next = 0;
  std::size_t pos = 0;
  for (std::size_t end; (end = taken.find("\r\n", pos)) != std::string::npos && taken[pos] == '['; pos = end + 2) {
    const std::string line = taken.substr(pos, end - pos);
    const std::string start = "] [  INFO ] [ Held ] T" + std::to_string(next) + filler;
    ASSERT_NE(line.find(start), std::string::npos) << next << ": " << line.substr(0, 80);
    ASSERT_EQ(line.size() - line.find(start), start.size()) << next;
    ++next;
  }
  EXPECT_GT(next, 1000);
  EXPECT_EQ(taken.substr(pos),
            std::to_string(kRecords - next) + " log records were dropped while the log file could not be opened.\r\n");
  EXPECT_EQ(log::TakeHeldServiceRecords(), "");
  EXPECT_TRUE(log::FlushServiceLogger(0));
  // Kept elsewhere: appended whole while the file stays within its limit, refused whole beyond it.
  const std::wstring kept = dir_.File(L"kept.log");
  win::UniqueFileHandle file(CreateFileW(kept.c_str(), FILE_APPEND_DATA, 0, nullptr, CREATE_NEW, 0, nullptr));
  ASSERT_TRUE(file) << GetLastError();
  EXPECT_EQ(log::AppendUnwrittenRecords(file.get(), "first\r\n", 16), 0u);
  EXPECT_EQ(log::AppendUnwrittenRecords(file.get(), taken, taken.size() + 7), 0u);
  EXPECT_EQ(log::AppendUnwrittenRecords(file.get(), "x", taken.size() + 7),
            static_cast<unsigned long>(ERROR_FILE_TOO_LARGE));
  file.reset();
  EXPECT_EQ(ReadFileBytes(kept), "first\r\n" + taken);
  constexpr int kLater = 1200;  // about 4.7 MB of lines, written while the file is still held
  for (int i = 0; i < kLater; ++i) KLOG_INFO_AS("Held") << "U" << i << filler;
  holder.reset();
  EXPECT_TRUE(WaitUntil([&] { return ReadFileBytes(LogPath()).find("dropped") != std::string::npos; }, 10000));
  log::ShutdownServiceLogger();
  const std::vector<Line> lines = ReadLines(LogPath());
  ASSERT_GE(lines.size(), 2u);
  const std::size_t written = lines.size() - 1;
  EXPECT_GT(written, 1000u);
  for (std::size_t i = 0; i < written; ++i) ASSERT_EQ(lines[i].message, "U" + std::to_string(i) + filler) << i;
  EXPECT_EQ(lines.back().message,
            std::to_string(kLater - written) + " log records were dropped while the log file could not be opened.");
}

// Writes that stop after a budget of bytes, as a disk that fills up does (or a range another handle
// locked, which Wine does not enforce): the rest of the call fails.
std::atomic<DWORD> g_writeBudget{0};
BOOL WINAPI WriteWithinBudget(HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
  const DWORD allowed = std::min(size, g_writeBudget.load());
  *written = 0;
  if (allowed > 0 && !WriteFile(file, data, allowed, written, overlapped)) return FALSE;
  g_writeBudget -= *written;
  if (*written == size) return TRUE;
  SetLastError(ERROR_DISK_FULL);
  return FALSE;
}

// Nothing a failed write did not get into the file is lost, not even the rest of a line it cut:
// it waits, and follows in order once writes work again. A cut header is taken back and written
// whole by the next open.
TEST_F(ServiceLogTest, WhatAFailedWriteLeftOutFollowsOnceWritesWorkAgain) {
  struct RealWrites { ~RealWrites() { log::SetLogFileWriterForTest(nullptr); } } restore;
  const std::string header = logformat::NewFileHeaderBytes();
  g_writeBudget = 10;  // the new file's header is cut after 10 bytes
  log::SetLogFileWriterForTest(&WriteWithinBudget);
  log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("Full") << "before";
  EXPECT_EQ(ReadFileBytes(LogPath()), "");
  g_writeBudget = static_cast<DWORD>(header.size() + 10);  // at the retry, the first line is cut after 10 bytes
  for (int i = 0; i < 5; ++i) KLOG_INFO_AS("Full") << "T" << i;
  EXPECT_TRUE(WaitUntil([&] { return ReadFileBytes(LogPath()).size() == header.size() + 10; }, 10000));
  log::SetLogFileWriterForTest(nullptr);
  EXPECT_TRUE(WaitUntil([&] { return ReadFileBytes(LogPath()).find("] T4") != std::string::npos; }, 10000));
  log::ShutdownServiceLogger();
  EXPECT_EQ(ReadFileBytes(LogPath()).rfind(header, 0), 0u);
  std::vector<std::string> messages;
  for (const Line& line : ReadLines(LogPath())) messages.push_back(line.message);
  EXPECT_EQ(messages, (std::vector<std::string>{"before", "T0", "T1", "T2", "T3", "T4"}));
}

// A folder check set by the log's owner: it logs a record from inside, as the writer, and says what the test says.
std::atomic<bool> g_foldersPass{false};
bool LoggingFolderCheck(const std::wstring& /*logFile*/) noexcept {
  KLOG_INFO_AS("Check") << "checked";
  return g_foldersPass.load();
}

// A file's records of the tests below as "function message" lines; the check's own shown once per run of them.
std::string CheckedRecords(const std::string& bytes) {
  static const std::regex kRecord(R"(\[ (Check|Roll|ServiceLogger) \] ([^\r\n]*)\r\n)");
  std::string text;
  for (std::sregex_iterator it(bytes.begin(), bytes.end(), kRecord), end; it != end; ++it) {
    const std::string line = (*it)[1].str() + " " + (*it)[2].str() + "\n";
    const bool again = text.size() >= line.size() && text.compare(text.size() - line.size(), line.size(), line) == 0;
    if (line != "Check checked\n" || !again) text += line;
  }
  return text;
}
const std::string kRollRefused =
    "ServiceLogger The log files were not rolled: their folders did not pass the check for the agent's own; the roll "
    "is tried again.\n";
struct OwnFolderCheck {
  ~OwnFolderCheck() {
    log::ShutdownServiceLogger();
    log::SetServiceLogFolderCheck(nullptr);
  }
};

// The owner's folder check comes before each open and each roll. While it refuses, the records wait for the open,
// and a file past the limit is written on unrolled, told once. What the check logs itself follows in order: it
// neither waits for the write that waits for the check, nor is lost.
TEST_F(ServiceLogTest, TheOwnersFolderCheckGatesEachOpenAndEachRollAndMayLogItself) {
  const OwnFolderCheck restore;
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"a.b").c_str(), nullptr));
  const std::string old(5 * 1024 * 1024 + 1, 'o');
  WriteFileBytes(LogPath(), old);
  g_foldersPass = false;
  log::SetServiceLogFolderCheck(&LoggingFolderCheck);
  log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("Roll") << "R0";
  EXPECT_FALSE(log::FlushServiceLogger(0));
  EXPECT_EQ(ReadFileBytes(LogPath()), old);
  g_foldersPass = true;
  EXPECT_TRUE(log::FlushServiceLogger(10000));
  g_foldersPass = false;
  KLOG_INFO_AS("Roll") << "R1";  // the roll is due, and refused
  Sleep(1100);  // a refused roll is not tried again within a second
  KLOG_INFO_AS("Roll") << "R2";
  EXPECT_FALSE(FileExists(LogPath(1)));
  g_foldersPass = true;
  Sleep(1100);
  KLOG_INFO_AS("Roll") << "R3";
  log::ShutdownServiceLogger();
  const std::string rolled = ReadFileBytes(LogPath(1));
  EXPECT_EQ(rolled.compare(0, old.size(), old), 0);
  EXPECT_EQ(CheckedRecords(rolled),
            "Check checked\nRoll R0\nCheck checked\n" + kRollRefused + "Roll R1\nCheck checked\nRoll R2\n");
  EXPECT_EQ(CheckedRecords(ReadFileBytes(LogPath())), "Check checked\nRoll R3\n");
}

// Refused rolls let the file grow only up to the room of all five files; then it is closed, told once, and the
// records wait, bounded, for folders that pass: the full file then rolls before it takes them.
TEST_F(ServiceLogTest, AFileWhoseRollsAreRefusedStopsAtTheRoomOfAllTheFiles) {
  const OwnFolderCheck restore;
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"a.b").c_str(), nullptr));
  const std::string old(std::size_t{25} * 1024 * 1024 - 16, 'o');
  WriteFileBytes(LogPath(), old);
  g_foldersPass = true;
  log::SetServiceLogFolderCheck(&LoggingFolderCheck);
  log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("Roll") << "R0";  // the first record after an open never rolls; it fills the file
  g_foldersPass = false;
  KLOG_INFO_AS("Roll") << "R1";
  EXPECT_FALSE(log::FlushServiceLogger(0));
  g_foldersPass = true;
  EXPECT_TRUE(log::FlushServiceLogger(10000));
  log::ShutdownServiceLogger();
  EXPECT_EQ(CheckedRecords(ReadFileBytes(LogPath(1))), "Check checked\nRoll R0\n" + kRollRefused);
  EXPECT_EQ(CheckedRecords(ReadFileBytes(LogPath())), "Check checked\nRoll R1\nCheck checked\n");
}

// The move fails while a reader that does not share deletion holds the file: the records stay in the live file.
TEST_F(ServiceLogTest, ARollThatCannotMoveTheLiveFileDeletesNothingAndSucceedsOnceItIsReleased) {
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"a.b").c_str(), nullptr));
  for (int n = 1; n <= 4; ++n) WriteFileBytes(LogPath(n), "rolled " + std::to_string(n));
  WriteFileBytes(LogPath(0), std::string(5 * 1024 * 1024 + 1, 'o'));
  win::UniqueHandle reader = HoldFile(LogPath(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
  log::InitializeServiceLogger(LogPath(), 4);
  for (int i = 0; i < 4; ++i) KLOG_INFO_AS("Roll") << "T" << i;
  for (int n = 1; n <= 4; ++n) EXPECT_EQ(ReadFileBytes(LogPath(n)), "rolled " + std::to_string(n));
  const std::string live = ReadFileBytes(LogPath());
  EXPECT_EQ(CountOf(live, "[ Roll ] T"), 4u);
  EXPECT_EQ(CountOf(live, "[ ServiceLogger ] The log files could not be rolled (error "), 1u);
  reader.reset();
  Sleep(1100);  // the failed roll is not tried again within a second
  KLOG_INFO_AS("Roll") << "T4";
  log::ShutdownServiceLogger();
  EXPECT_EQ(ReadFileBytes(LogPath(1)), live);
  for (int n = 2; n <= 4; ++n) EXPECT_EQ(ReadFileBytes(LogPath(n)), "rolled " + std::to_string(n - 1));
  ASSERT_EQ(ReadLines(LogPath()).size(), 1u);
  EXPECT_EQ(ReadLines(LogPath())[0].message, "T4");
}

// A reader that never lets go of the live file cannot make it grow without bound: it takes the failure's line,
// then, holding the room of all five files, it is closed, and the records wait, bounded, for the roll that
// follows its release (tried again each second meanwhile, and writing nothing).
TEST_F(ServiceLogTest, ALiveFileKeptFromMovingStopsAtTheRoomOfAllTheFiles) {
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"a.b").c_str(), nullptr));
  const std::string old(std::size_t{25} * 1024 * 1024 - 16, 'o');
  WriteFileBytes(LogPath(), old);
  win::UniqueHandle reader = HoldFile(LogPath(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
  log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("Roll") << "T0";  // the first record after an open never rolls; it fills the file
  KLOG_INFO_AS("Roll") << "T1";
  Sleep(1100);  // the retry opens the file again, tries the roll in vain and closes it
  KLOG_INFO_AS("Roll") << "T2";
  EXPECT_FALSE(log::FlushServiceLogger(0));
  const std::string stuck = ReadFileBytes(LogPath());
  const std::string added = stuck.substr(std::min(old.size(), stuck.size()));
  EXPECT_EQ(CountOf(added, "\r\n"), 2u) << added;
  EXPECT_EQ(CountOf(added, "[ Roll ] T0\r\n"), 1u);
  EXPECT_EQ(CountOf(added, "[ ServiceLogger ] The log files could not be rolled (error "), 1u);
  reader.reset();
  EXPECT_TRUE(log::FlushServiceLogger(10000));
  log::ShutdownServiceLogger();
  EXPECT_EQ(ReadFileBytes(LogPath(1)), stuck);
  const std::vector<Line> lines = ReadLines(LogPath());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message, "T1");
  EXPECT_EQ(lines[1].message, "T2");
}

// A reader holding rolled file 1 stops the shift half-way: the file set aside waits, the live file
// grows past the limit, and the rolls tried again every second delete nothing more. The first
// failure is told once.
TEST_F(ServiceLogTest, AShiftStoppedByAHeldRolledFileLosesNoMoreFilesWhileTheRollIsTriedAgain) {
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"a.b").c_str(), nullptr));
  for (int n = 1; n <= 4; ++n) WriteFileBytes(LogPath(n), "rolled " + std::to_string(n));
  const std::string first(5 * 1024 * 1024 + 1, 'o');
  WriteFileBytes(LogPath(0), first);
  win::UniqueHandle reader = HoldFile(LogPath(1), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
  log::InitializeServiceLogger(LogPath(), 4);
  KLOG_INFO_AS("Roll") << "T0";
  KLOG_INFO_AS("Roll") << "T1";  // the roll: the oldest goes, the shift stops at the held file
  const std::string big(60000, 'x');
  for (int i = 0; i < 90; ++i) KLOG_INFO_AS("Roll") << big;  // past the limit again: the file set aside blocks it
  for (const char* record : {"T2", "T3"}) {
    Sleep(1100);
    KLOG_INFO_AS("Roll") << record;
  }
  EXPECT_EQ(GetFileAttributesW(LogPath(2).c_str()), INVALID_FILE_ATTRIBUTES);
  for (int n = 3; n <= 4; ++n) EXPECT_EQ(ReadFileBytes(LogPath(n)), "rolled " + std::to_string(n - 1));
  const std::string second = ReadFileBytes(LogPath());
  EXPECT_EQ(CountOf(second, "] [ WARNING ] [ ServiceLogger ] The log files could not be rolled (error "), 1u);
  reader.reset();
  Sleep(1100);
  KLOG_INFO_AS("Roll") << "T4";
  log::ShutdownServiceLogger();
  // Two rolls in all: the two oldest files went, no other.
  EXPECT_EQ(ReadFileBytes(LogPath(1)), second);
  EXPECT_EQ(ReadFileBytes(LogPath(2)).substr(0, first.size()), first);
  EXPECT_EQ(ReadFileBytes(LogPath(3)), "rolled 1");
  EXPECT_EQ(ReadFileBytes(LogPath(4)), "rolled 2");
  ASSERT_EQ(ReadLines(LogPath()).size(), 1u);
  EXPECT_EQ(ReadLines(LogPath())[0].message, "T4");
}

// Stored at the literal Wow6432Node path, as the installer does; an unreadable value leaves the caller's number.
TEST(LogLevel, ComponentValueOverridesLogLevelWhichOverridesTheDefault) {
  static const auto store = [](DWORD type, const std::string& data) {
    SetRawValue("SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\LogLevel", "korva_agentservice", type,
                data, KEY_WOW64_64KEY);
  };
  constexpr const char* kUnreadable =
      "ERROR ] [ ReadDwordRegistryData ] Unable to read the log level value korva_agentservice.";
  // Each case: the values, the level, the component value's read code and its line (none: no line).
  const struct { void (*store)(); int level; LONG code; const char* line; } cases[] = {
      {[] {}, 4, ERROR_FILE_NOT_FOUND, "DEBUG ] [ ReadDwordRegistryData ] Log level key is not present."},
      {[] { SetLogLevel("LogLevel", 6); }, 6, ERROR_FILE_NOT_FOUND,
       "DEBUG ] [ ReadDwordRegistryData ] Log level value korva_agentservice is not present."},
      {[] { store(REG_SZ, std::string("3\0\0\0", 4)), SetLogLevel("LogLevel", 5); }, 5, ERROR_UNSUPPORTED_TYPE,
       kUnreadable},
      {[] { store(REG_QWORD, std::string("\3\0\0\0\0\0\0\0", 8)); }, 4, ERROR_MORE_DATA, kUnreadable},
      {[] { SetLogLevel("korva_agentservice", 2), SetLogLevel("LogLevel", 6); }, 2, ERROR_SUCCESS, nullptr}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.level);
    CleanAgentRegistry();
    c.store();
    const LogLevelReading reading = ReadLogLevel();
    EXPECT_EQ(reading.severity, c.level);
    EXPECT_EQ(reading.componentRead, c.code);
    LogCapture log(6);
    ReportUnusableLogLevelValues(reading);  // once the log is open, a value it could not use is told
    const std::string told = "[ ERROR ] [ ReadLogLevel ] The log level value korva_agentservice could not "
                             "be read. Error code : " + std::to_string(c.code) + ". The log level in force is " +
                             std::to_string(c.level) + ".\r\n";
    EXPECT_EQ(log.Peek().find(told) != std::string::npos, c.line == kUnreadable) << told;
    DWORD value = 77;
    EXPECT_EQ(ReadDwordRegistryData("korva_agentservice", value), c.code);
    EXPECT_EQ(value, c.line ? 77u : DWORD(c.level));
    const std::string wanted =
        c.line ? "[ " + std::string(c.line) + " Error code : " + std::to_string(c.code) + "\r\n" : "Error code";
    EXPECT_EQ(log.Text().find(wanted) != std::string::npos, c.line != nullptr) << wanted;
  }
  CleanAgentRegistry();
}

constexpr const char* kInit = "InitializeAgentParameters";
constexpr const char* kLoad = "LoadGlobalVariablesJSON";
constexpr const char* kFullJson = R"({"agent_installed_dir": "C:\\Korva\\", "agent_registry_path_32": "SOFTWARE\\R32",
  "agent_registry_path_64": "SOFTWARE\\R64", "auth_token": "TOKEN-3f9a", "dynamic_key": "DYNKEY-77c1",
  "ProxyPassword": "PROXYPW-0b2e", "server_name": "srv.corp", "server_port": 80, "server_protocol": "https",
  "server_sec_port": 8443})";
const std::vector<LogLine> kStartUpCompleted = {{kInit, "Local Machine Details initialized successfully."},
                                                {kInit, "Agent Installation Mode          ->0(2->silent, 5->Manual)"},
                                                {kInit, "@@@ End of InitializeAgentParameters @@@"}};

std::string Text(const char* field) { return field == nullptr ? "<null>" : field; }
std::string Text(const RecordText& field) { return Text(field.get()); }

using AgentParametersTest = AgentTest;

// Without the sub-product flag no JSON is read; only "ImagedComputer" 1 marks an imaged computer.
// With it the file fills the record (64-bit Windows: the 64-bit path); the summary hides secrets.
// Another agent program holding the file at that moment: it is tried again, and loaded once free.
TEST_F(AgentParametersTest, TheSubProductFlagDecidesWhetherJsonFillsTheRecordOnceFreeAndTheSummaryHidesSecrets) {
  WriteFileBytes(dir_.File(L"agent.json"), kFullJson);
  ASSERT_EQ(writeValue(kAgentKey, "GlobalJsonPath", REG_SZ, dir_.NarrowPath() + "\\agent.json"), 0);
  ASSERT_EQ(writeValue(kAgentKey, "ImagedComputer", REG_DWORD, "1"), 0);
  InitializeAgentParameters();
  std::string out = log_->Peek();
  EXPECT_EQ(out.find("CRapidJSONClass"), std::string::npos);
  EXPECT_LOG_LINES(out, kStartUpCompleted);
  EXPECT_LOG_LINES(out,
                   {{kInit, "Going to load details from registry."}, {kInit, "Computer is detected as imaged One..."}});
  const auto& p = AgentParameters;
  EXPECT_EQ(Text(p.serverName) + "|" + Text(p.serverProtocol) + "|" + std::to_string(p.imagedComputer),
            "<null>|http|1");

  ResetAgentParametersForTest();
  const std::size_t mark = out.size();
  ASSERT_EQ(writeValue(kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
  ASSERT_EQ(writeValue(kAgentKey, "BasePath", REG_SZ, "C:\\KorvaData"), 0);
  ASSERT_EQ(writeValue(kAgentKey, "ImagedComputer", REG_DWORD, "2"), 0);
  win::UniqueFileHandle held(
      CreateFileW(dir_.File(L"agent.json").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(held);
  std::thread release([&] { Sleep(300), held.reset(); });
  InitializeAgentParameters();
  release.join();
  EXPECT_EQ(Text(p.serverName) + "|" + Text(p.registryBasePath) + "|" + Text(p.authToken) + "|" + Text(p.basePath) +
                "|" + std::to_string(p.effectiveServerPort) + "|" + std::to_string(p.imagedComputer),
            "srv.corp|SOFTWARE\\R64|TOKEN-3f9a|C:\\KorvaData|8443|0");
  out = log_->Text().substr(mark);
  EXPECT_LOG_LINES(out, kStartUpCompleted);
  EXPECT_LOG_LINES(out, {{kLoad, "The settings file [" + dir_.NarrowPath() +
                                     "\\agent.json] could not be loaded; trying again in 500 ms."},
                         {kInit, "Computer is not an imaged one..."}, {kInit, std::string(66, '*')},
                         {kInit, "Details successfully loaded from Json file."},
                         {kInit, "Server Name                      ->srv.corp"},
                         {kInit, "Server Port                      ->8443"}});
  for (const char* secret : {"TOKEN-3f9a", "DYNKEY-77c1", "PROXYPW-0b2e"})
    EXPECT_EQ(CountOf(out, secret), 0u) << secret;
}

// A settings path that is missing, not a full local path, or reached through a link or a missing
// folder is not read; a file a user gave a name there after the path was judged is not used; a load
// that does not end in time is left behind. The start-up goes on without the file each time.
TEST_F(AgentParametersTest, ASettingsFileThatIsMissingNotTheAgentsOrStalledIsLoggedAndStartUpContinues) {
  WriteFileBytes(dir_.File(L"agent.json"), kFullJson);
  ASSERT_TRUE(CreateDirectoryW(dir_.File(L"real").c_str(), nullptr));
  WriteFileBytes(dir_.File(L"real\\agent.json"), kFullJson);
  const FolderLink link(dir_.File(L"link"), dir_.File(L"real"));
  ASSERT_TRUE(link.made());
  const std::string inDir = dir_.NarrowPath() + "\\agent.json";
  const std::string viaLink = dir_.NarrowPath() + "\\link\\agent.json";
  const std::string viaMissing = dir_.NarrowPath() + "\\late\\agent.json";
  const std::string hardLink = dir_.NarrowPath() + "\\named.json";  // made a second name of real\agent.json
  const win::UniqueHandle release(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const std::function<void()> stall = [&] { WaitForSingleObject(release.get(), 10000); };
  const std::function<void()> race = [&] {
    EXPECT_TRUE(CreateHardLinkW(win::AnsiToWide(hardLink).c_str(), dir_.File(L"real\\agent.json").c_str(), nullptr));
  };
  const std::string notFull = "] is not a full local path; not read.";
  const std::string reached = "] is reached through [";
  const std::string because = "], a link or folder that users may change or replace, or that cannot be checked; ";
  const struct { const char* name; std::optional<std::string> path; std::string why;
                 LogLine::Match match = LogLine::kWhole; std::function<void()> beforeOpen = {}; DWORD limitMs = 10000;
  } cases[] = {
      {"missing", std::nullopt, "Unable to read GlobalJsonPath from registry with code : 2"},
      {"relative", "agent.json", "The settings file [agent.json" + notFull},
      {"pipe", "\\\\.\\pipe\\korva-settings", "The settings file [\\\\.\\pipe\\korva-settings" + notFull},
      {"drive root", "C:\\agent.json", "The settings file [C:\\agent.json" + notFull},
      {"line break", "C:\\a\r\nb\\agent.json", "The settings file [C:\\a??b\\agent.json" + notFull},
      {"link", viaLink, "The settings file [" + viaLink + reached, LogLine::kPrefix},
      {"missing folder", viaMissing,
       "The settings file [" + viaMissing + reached + dir_.NarrowPath() + "\\late" + because + "not read."},
      {"hard link made after the look", hardLink, "The settings file [" + hardLink + reached + hardLink + because +
       "not used.", LogLine::kWhole, race},
      {"stalled", inDir, "Loading the settings file [" + inDir + "] did not end within 300 ms; the service goes on "
                         "without it.", LogLine::kWhole, stall, 300},
  };
  ASSERT_EQ(writeValue(kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ResetAgentParametersForTest();
    if (c.path) {
      ASSERT_EQ(writeValue(kAgentKey, "GlobalJsonPath", REG_SZ, *c.path), 0);
    }
    SetSettingsLoadForTest(c.limitMs, c.beforeOpen);
    const std::string log = LoggedBy(&InitializeAgentParameters);
    SetSettingsLoadForTest(10000, {});
    std::vector<LogLine> lines = kStartUpCompleted;
    lines.push_back({kInit, "Unable to load details from Json file. So going to try with registry."});
    lines.push_back({kLoad, c.why, c.match});
    if (c.path) lines.push_back({kLoad, "Unable to load the JSON file with code : 13"});
    EXPECT_LOG_LINES(log, lines);
    EXPECT_EQ(log.find("CRapidJSONClass::FileToString"), std::string::npos) << "something of the file was read";
    EXPECT_EQ(AgentParameters.serverName.get(), nullptr);
  }
  // The stalled load ends unused, its last line in this test's log.
  SetEvent(release.get());
  const std::string readEnd = "@@@ End of CRapidJSONClass::LoadJsonFromFile @@@";
  EXPECT_TRUE(WaitUntil([&] { return log_->Peek().find(readEnd, log_->Peek().rfind("did not end within")) != std::string::npos; }, 10000));
  // A named pipe is no settings file: its server is never read from, whatever path names it.
  const win::UniqueHandle pipe(CreateNamedPipeW(L"\\\\.\\pipe\\korva-json-test", PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1,
                                                4096, 4096, 0, nullptr));
  ASSERT_TRUE(pipe);
  std::string text;
  const std::string log =
      LoggedBy([&] { EXPECT_NE(CRapidJSONClass::FileToString(L"\\\\.\\pipe\\korva-json-test", text), 0); });
  EXPECT_LOG_LINES(log, {{"CRapidJSONClass::FileToString", "The file [\\\\.\\pipe\\korva-json-test] open failed"}});
}

const std::string kKey = std::string(kAgentKey) + "\\RegistryTest";

using RegistryTest = AgentTest;  // its registry cleaning takes the 64-bit view's test key too

TEST_F(RegistryTest, NumbersAndStringsRoundTripAndWrongTypesAreRefused) {
  ASSERT_EQ(writeValue(kKey, "Number", REG_DWORD, " -1"), 0);
  DWORD value = 12345;
  ASSERT_EQ(ReadDwordRegValue(kKey, "Number", value), 0);
  EXPECT_EQ(value, 0xFFFFFFFFu);
  EXPECT_EQ(ReadDwordRegValue(kKey, "Absent", value), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ReadDwordRegValue(kKey + "\\NoSuchKey", "Absent", value), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(value, 0xFFFFFFFFu);

  std::string text;
  for (const auto& [length, code] : {std::pair{259, LONG{ERROR_SUCCESS}}, {300, LONG{ERROR_MORE_DATA}}}) {
    ASSERT_EQ(writeValue(kKey, "Text", REG_SZ, std::string(length, 'y')), 0);
    EXPECT_EQ(ReadRegSZ(kKey, "Text", text), code) << length;
    EXPECT_EQ(text, code == ERROR_SUCCESS ? std::string(length, 'y') : "") << length;
  }

  LogCapture log;
  ASSERT_EQ(writeValue(kKey, "Text", REG_SZ, "5"), 0);
  EXPECT_EQ(ReadDwordRegValue(kKey, "Text", value), ERROR_UNSUPPORTED_TYPE);
  EXPECT_EQ(value, 0xFFFFFFFFu);
  text = "stale";
  EXPECT_EQ(ReadRegSZ(kKey, "Number", text), ERROR_UNSUPPORTED_TYPE);
  EXPECT_EQ(text, "");
  EXPECT_LOG_LINES(log.Text(), {{"__ReadDwordRegistryData", "Registry value Text has the unexpected type 1"},
                                {"__ReadRegSZ", "Registry value Number has the unexpected type 4"}});
}

// A missing key is created (logged once); a multi-string gets 15 more bytes; is64 0: under Wow6432Node.
TEST_F(RegistryTest, WritesCreateTheKeyAndLandInTheAgentsView) {
  LogCapture log;
  EXPECT_EQ(__IsParentRegKeyPresent(kKey, 0), 0);
  const std::string list("alpha\0beta\0\0", 12);
  ASSERT_EQ(writeValue(kKey, "List", REG_MULTI_SZ, list), 0);
  EXPECT_EQ(__IsParentRegKeyPresent(kKey, 0), 1);
  ASSERT_EQ(writeValue(kKey, "Where", REG_SZ, "32"), 0);  // key exists now: no second creation line
  const std::string lines = log.Text();
  EXPECT_EQ(CountOf(lines, "] [ __writeValue ] While Adding Registry Key, returned with error code :0\r\n"), 1u);
  EXPECT_EQ(RawValue(kKey, "List", KEY_WOW64_32KEY), list + std::string(5 + 15 - list.size(), '\0'));

  const std::string redirected = "SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\RegistryTest";
  EXPECT_EQ(RawValue(redirected, "Where", KEY_WOW64_64KEY), std::string("32\0", 3));
  EXPECT_EQ(RawValue(kKey, "Where", KEY_WOW64_64KEY), std::nullopt);
  ASSERT_EQ(__writeValue(kKey, "Where", REG_SZ, 1, "64"), 0);
  EXPECT_EQ(RawValue(kKey, "Where", KEY_WOW64_64KEY), std::string("64\0", 3));
  std::string data;
  EXPECT_EQ(ReadRegSZ(kKey, "Where", data), 0);
  EXPECT_EQ(data, "32");
}

TEST_F(RegistryTest, RegistryStringsComeBackAsHeapCopiesAndConversionsLogTheirFailures) {
  win::UniqueMallocText<char> dir;
  EXPECT_EQ(AgentInstallDir(dir.put()), ERROR_FILE_NOT_FOUND);

  const char* utf8 = "Stra\xC3\x9F" "e \xE2\x82\xAC";
  win::UniqueMallocText<wchar_t> wide;
  ChangeToWideStr(utf8, wide.put());
  ASSERT_TRUE(wide);
  EXPECT_STREQ(wide.get(), L"Stra\u00DFe \u20AC");
  EXPECT_EQ(ChangeToMultiByteStr(wide.get()), utf8);

  win::UniqueMallocText<char> copy;
  AllocateAndDoStringCopyA(static_cast<const char*>(nullptr), copy.put());
  EXPECT_FALSE(copy);
  ChangeToWideStr(nullptr, wide.put());
  EXPECT_FALSE(wide);
  DisplayErrorInfo(ERROR_INVALID_PARAMETER);
  EXPECT_LOG_LINES(log_->Text(),
                   {{"AgentInstallDir", "Unable to read AgentInstallDir from registry with code : 2"},
                    {"AllocateAndDoStringCopyA", "Src is NULL."}, {"ChangeToWideStr", "AnsiString is empty!"},
                    {"DisplayErrorInfo", "Error Code    :87"}});
}

TEST(MachineDetails, TimeInSecondsCountsTheLeapDayAndRefusesAnInvalidTime) {
  LogCapture log;
  SYSTEMTIME leapDay{2024, 2, 4, 29, 23, 59, 59, 999};
  EXPECT_EQ(GetTimeInSeconds(leapDay), 1709251199);
  leapDay.wMonth = 13;
  EXPECT_EQ(GetTimeInSeconds(leapDay), 0);
  EXPECT_LOG_LINES(log.Text(), {{"GetTimeInSeconds", "Invalid system time", LogLine::kPrefix}});
}

// The domain controller's lookup has no time limit of its own, and it runs before the service reaches the
// service control manager: one that hangs (a domain that cannot be reached at boot) is waited for a bounded
// time and its name left empty; one that answers gives its name. Without a stand-in the local security
// authority says whether there is a domain to look in: Wine's machine is a workgroup's.
TEST(MachineDetailsTest, TheDomainControllersLookupIsWaitedForABoundedTime) {
  LogCapture log;
  const struct { DomainControllerLookupFn lookup; std::string name; bool toldLate; } cases[] = {
      {[](std::string& name) -> DWORD {
         name = "dc1.corp.example";
         return ERROR_SUCCESS;
       }, "dc1.corp.example", false},
      {[](std::string& name) -> DWORD {
         Sleep(3000);
         name = "late";
         return ERROR_SUCCESS;
       }, "", true}};
  for (const auto& c : cases) {
    SetDomainControllerLookupForTest(c.lookup, 300);
    const std::size_t mark = log.Peek().size();
    LocalMachineDetails details;
    (void)ReadLocalMachineDetails(details);
    EXPECT_EQ(details.domainController, c.name);
    EXPECT_EQ(HasLogLine(log.Peek().substr(mark), "ReadLocalMachineDetails",
                         "The domain controller was not found within 300 ms; it is left empty."), c.toldLate);
  }
  SetDomainControllerLookupForTest(nullptr, 0);
  const std::size_t mark = log.Peek().size();
  LocalMachineDetails details;
  (void)ReadLocalMachineDetails(details);
  EXPECT_EQ(details.domainController, "");
  const std::string written = log.Peek().substr(mark);
  EXPECT_TRUE(HasLogLine(written, "ReadLocalMachineDetails", "The computer is not joined to a domain.")) << written;
  EXPECT_EQ(written.find("failed"), std::string::npos) << written;
}

}  // namespace
}  // namespace korva::test
