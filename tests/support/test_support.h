// Helpers shared by the Wine tests: folders, files, registry, log, waits, child programs, stand-ins, services.
#pragma once

#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "win/unique_handle.h"

namespace korva::test {

// A fresh, empty folder under %TEMP%, removed with everything in it when the object goes away.
class TempDir {
 public:
  TempDir();
  TempDir(const TempDir&) = delete;
  ~TempDir();
  [[nodiscard]] const std::wstring& path() const { return path_; }
  [[nodiscard]] std::wstring File(const std::wstring& name) const { return path_ + L"\\" + name; }
  [[nodiscard]] std::string NarrowPath() const;

 private:
  std::wstring path_;
};

// While it lives, `folder` is this process's current directory and the first folder on its PATH:
// where a DLL named without a path is looked for unless the search was narrowed.
class SearchedFolder {
 public:
  explicit SearchedFolder(const std::wstring& folder);
  SearchedFolder(const SearchedFolder&) = delete;
  ~SearchedFolder();

 private:
  std::wstring directory_, path_;
};

// While it lives, `link` is a link to the folder `target`, as a user's junction would be: under Wine
// a host symbolic link, which Windows programs see as a reparse point owned by the test's account
// (Wine can neither make nor remove one itself).
class FolderLink {
 public:
  // `forgetVerdicts` false keeps what the walk found sound before (a test of what it then reads anew).
  FolderLink(std::wstring link, const std::wstring& target, bool forgetVerdicts = true);
  FolderLink(const FolderLink&) = delete;
  ~FolderLink();
  [[nodiscard]] bool made() const { return made_; }

 private:
  std::wstring link_;
  std::string hostLink_;
  bool made_ = false;
};
// While it lives, the process's environment variable `name` is `value`; then as it was (or unset).
class EnvironmentVariable {
 public:
  EnvironmentVariable(std::wstring name, const std::wstring& value);
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;
  ~EnvironmentVariable();

 private:
  std::wstring name_;
  std::optional<std::wstring> before_;
};
std::string ReadFileBytes(const std::wstring& path);  // "" when the file cannot be read
void WriteFileBytes(const std::wstring& path, const std::string& bytes);
inline bool FileExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }
std::wstring ProgramFolder();  // the build's bin folder, which holds the test programs
std::size_t CountOf(const std::string& text, const std::string& part);
// Polls `done` until it holds or `timeoutMs` passes; returns its last answer.
bool WaitUntil(const std::function<bool()>& done, unsigned long timeoutMs);
// `plain` enciphered as the stand-in decryption library (tools/clientauth) deciphers it.
std::string ToyEncipher(const std::string& plain);

inline constexpr const char* kAgentKey = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent";
// Deletes "SOFTWARE\Kestrelix" in both registry views (the log-level key with it).
void CleanAgentRegistry();
// The tests' own registry access, apart from the code under test: HKLM `key` in `view`, created when
// missing; bytes stored as given; numbers read under `root`, nothing when missing or of another type.
win::UniqueRegKey AgentKey(const std::string& key, REGSAM view = KEY_WOW64_32KEY);
void SetRawValue(const std::string& key, const char* name, DWORD type, const std::string& bytes,
                 REGSAM view = KEY_WOW64_32KEY);
inline void SetDword(const std::string& key, const char* name, DWORD value, REGSAM view = KEY_WOW64_32KEY) {
  SetRawValue(key, name, REG_DWORD, std::string(reinterpret_cast<const char*>(&value), sizeof value), view);
}
std::optional<std::string> RawValue(const std::string& key, const char* name, REGSAM view = KEY_WOW64_32KEY);
std::optional<unsigned long long> ReadNumber(const std::string& key, const char* name, DWORD type = REG_DWORD,
                                             HKEY root = HKEY_LOCAL_MACHINE);
// Sets a log level where a 32-bit installer on 64-bit Windows puts it: the literal Wow6432Node path.
inline void SetLogLevel(const char* valueName, unsigned long level) {
  SetDword("SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\LogLevel", valueName, level, KEY_WOW64_64KEY);
}

// Sends the service log to a fresh file at the given maximum severity for the object's lifetime.
class LogCapture {
 public:
  explicit LogCapture(int maxSeverity = 6);
  LogCapture(const LogCapture&) = delete;
  ~LogCapture();
  std::string Text();  // closes the log and returns everything written (later records are dropped)
  [[nodiscard]] std::string Peek() const { return ReadFileBytes(path_); }  // what is written so far; the log stays open

 private:
  TempDir dir_;
  std::wstring path_;
};

// True when `text` holds a line whose function field is `function` and whose message is `message`.
inline bool HasLogLine(const std::string& text, const std::string& function, const std::string& message) {
  return text.find("] [ " + function + " ] " + message + "\r\n") != std::string::npos;
}
// An expected line: function and whole message; kPrefix: a message starting so; kAbsent: none such.
struct LogLine {
  enum Match { kWhole, kPrefix, kAbsent };
  std::string function, message;
  Match match = kWhole;
};
inline LogLine Entered(const std::string& function) { return {function, "@@@ Inside " + function + " @@@"}; }
// The entries of `expected` that `text` contradicts; when `ordered`, each follows the one before.
std::vector<std::string> WrongLines(const std::string& text, const std::vector<LogLine>& expected,
                                    bool ordered = false);
#define EXPECT_LOG_LINES(text, ...) EXPECT_EQ(::korva::test::WrongLines(text, __VA_ARGS__), std::vector<std::string>())
#define EXPECT_LOG_ORDER(text, ...) EXPECT_EQ(::korva::test::WrongLines(text, __VA_ARGS__, true), std::vector<std::string>())

// A "bin" folder of stand-in helpers (a behaviour file each) and their journal, one entry per run.
struct JournalEntry {
  std::string name, commandLine, currentDirectory;
  unsigned long sessionId = 0;  // the stand-in also records its user, which no test reads
  unsigned long parentPid = 0;
  std::string path;  // its PATH
};
class StandInFolder {
 public:
  explicit StandInFolder(std::wstring folder) : folder_(std::move(folder)) {}
  // Copies the stand-in in as `<name>.exe` and sets what it does (exit code, sleep); returns its full path.
  // NOLINTNEXTLINE(modernize-use-nodiscard): most callers need the stand-in, not its path
  std::wstring Add(const std::wstring& name, int exitCode = 0, unsigned long sleepMs = 0) const;
  [[nodiscard]] std::vector<JournalEntry> Journal() const;
  // Waits until the journal holds at least `count` entries, at most `timeoutMs`.
  // NOLINTNEXTLINE(modernize-use-nodiscard): a caller may only wait
  std::vector<JournalEntry> WaitForJournal(std::size_t count, unsigned long timeoutMs) const;
  void ClearJournal() const { DeleteFileW((folder_ + L"\\standin-journal.txt").c_str()); }
  [[nodiscard]] const std::wstring& folder() const { return folder_; }

 private:
  std::wstring folder_;
};

// C:\bin, where "%s\bin\..." leads with an empty or drive-root folder (any user may create it), holding
// stand-ins named `programs` (no ".exe"); removed with all it holds when the object goes.
class PlantedBin : public StandInFolder {
 public:
  explicit PlantedBin(const std::vector<std::string>& programs);
  PlantedBin(const PlantedBin&) = delete;
  ~PlantedBin();
};

// A program the test starts, killed when the object goes. It shares this console: Wine can leave a
// killed child's console host running, holding the test runner's output pipe open.
class RunningProgram {
 public:
  // `output`, when given, is inherited as the program's standard output and error.
  explicit RunningProgram(const std::wstring& exe, const std::wstring& arguments = L"", HANDLE output = nullptr);
  ~RunningProgram() { Stop(); }
  void Stop();
  [[nodiscard]] DWORD pid() const { return child_.processId(); }
  [[nodiscard]] HANDLE process() const { return child_.process(); }
  [[nodiscard]] DWORD startError() const { return startError_; }  // CreateProcessW's, when it failed

 private:
  win::UniqueProcessInformation child_;
  DWORD startError_ = ERROR_SUCCESS;
};
// Runs a program to its end (terminated after `timeoutMs`) with its standard output and error caught.
// A program that did not start reports WAIT_TIMEOUT and, as its output, CreateProcessW's error.
struct ProgramResult {
  bool finished = false;
  unsigned long exitCode = 0;
  std::string output;
};
ProgramResult RunProgram(const std::wstring& exe, const std::wstring& arguments, unsigned long timeoutMs);
std::wstring UserName();                                  // this process's user, as GetUserNameW gives it
std::vector<DWORD> ProcessesNamed(const wchar_t* name);  // in any session, the name in any case
void EndProcessesNamed(const wchar_t* name);              // each waited for (bounded)

inline constexpr wchar_t kAgentServiceName[] = L"Tallowmere Korva - Agent";
// The service's program: a copy in "C:\korva-service\<lane>" (KORVA_WINE_LANE, "main" without one)
// of the prefix's own drive. A service with no usable BasePath logs beside its program, in a folder
// the agent judges as its own: not one under a build folder that anyone may write (/tmp), nor one
// another lane's service writes at the same time.
std::wstring ServiceExecutable();
// Empty when the service is not registered.
win::UniqueServiceHandle OpenAgentService(DWORD access, const wchar_t* name = kAgentServiceName);
void DeleteServiceIfPresent(const wchar_t* name = kAgentServiceName);  // stopped first, gone after (bounded waits)
// StartServiceW's error, 0 on success. A start whose process Wine could not bring up at all
// (ERROR_INTERNAL_ERROR: it ended before its first instruction, so none of its code ran) is made
// once more, and said on the test's error output; every other failure is the start's own.
DWORD StartServiceOnce(SC_HANDLE service);
// Polls until the service reports `state` or `timeoutMs` passes; returns the last state seen.
DWORD WaitForServiceState(SC_HANDLE service, DWORD state, DWORD timeoutMs);
inline DWORD SendControl(SC_HANDLE service, DWORD control) {  // the Win32 error, 0 on success
  SERVICE_STATUS status{};
  return ControlService(service, control, &status) ? 0 : GetLastError();
}
// "<binary path>|<start type>|<service type>|<account>", or "error <code>" (1060: not registered).
std::wstring AgentServiceConfig();

}  // namespace korva::test
