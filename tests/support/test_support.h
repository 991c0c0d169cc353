// Helpers shared by the Wine tests: temporary folders, whole-file reads, registry cleaning.
#pragma once

#include <string>

#include "win/unique_handle.h"

namespace korva::test {

// A fresh, empty folder under %TEMP% removed with everything in it when the object goes away.
class TempDir {
 public:
  TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir();
  const std::wstring& path() const { return path_; }
  std::wstring File(const std::wstring& name) const { return path_ + L"\\" + name; }
  std::string NarrowPath() const;

 private:
  std::wstring path_;
};

// The whole file as bytes; empty when it cannot be read.
std::string ReadFileBytes(const std::wstring& path);
bool FileExists(const std::wstring& path);
void WriteFileBytes(const std::wstring& path, const std::string& bytes);

// Folder holding the running test program (the build's bin folder).
std::wstring ProgramFolder();

// Deletes "SOFTWARE\Kestrelix" in the service's (32-bit) registry view and the log-level key.
void CleanAgentRegistry();

}  // namespace korva::test

namespace korva::test {

// Sends the service log to a fresh file at the given maximum severity for the object's lifetime.
class LogCapture {
 public:
  explicit LogCapture(int maxSeverity = 6);
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture();
  // Closes the log and returns everything written so far (later records are dropped).
  std::string Text();
  const std::wstring& path() const { return path_; }

 private:
  TempDir dir_;
  std::wstring path_;
};

// True when `text` holds a line whose function field is `function` and whose message is `message`.
bool HasLogLine(const std::string& text, const std::string& function, const std::string& message);
// The same with the message only starting with `prefix`.
bool HasLogLineStartingWith(const std::string& text, const std::string& function, const std::string& prefix);

}  // namespace korva::test

namespace korva::test {

struct ProgramResult {
  bool finished = false;   // false: still running at the time-out (it was then terminated)
  unsigned long exitCode = 0;
  std::string output;      // standard output and standard error
};
// Runs `commandLine` with its output captured; terminates it after `timeoutMs`.
ProgramResult RunProgram(const std::wstring& commandLine, unsigned long timeoutMs);

}  // namespace korva::test

namespace korva::test {

inline constexpr const char* kAgentKey = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent";
// HKLM `path` in the agent's registry view (the 32-bit one, from either build), opened for
// everything; the create form makes it when missing. Empty when that fails.
win::UniqueRegKey OpenAgentKey(const wchar_t* path);
win::UniqueRegKey CreateAgentKey(const wchar_t* path);
// Sets the service's maximum log severity where an installer on 64-bit Windows puts it.
void SetLogLevel(const char* valueName, unsigned long level);

}  // namespace korva::test

#include <vector>

namespace korva::test {

// One run of the stand-in helper as its journal records it.
struct JournalEntry {
  std::string name;
  std::string commandLine;
  std::string currentDirectory;
  unsigned long sessionId = 0;
  std::string user;
  unsigned long parentPid = 0;
};

// An agent "bin" folder of stand-in helpers: the stand-in program copied under helper names, a
// behaviour file per name, and the journal they all append to.
class StandInFolder {
 public:
  // `folder` must exist; nothing is removed when the object goes.
  explicit StandInFolder(std::wstring folder);
  // Copies the stand-in in as `<name>.exe`; returns its full path.
  std::wstring Add(const std::wstring& name) const;
  // Sets what `<name>` does: exit code, sleep in ms, text for standard output ("" for none).
  void SetBehaviour(const std::wstring& name, int exitCode, unsigned long sleepMs, const std::string& output = "") const;
  std::vector<JournalEntry> Journal() const;
  // Waits until the journal holds at least `count` entries, at most `timeoutMs`.
  std::vector<JournalEntry> WaitForJournal(std::size_t count, unsigned long timeoutMs) const;
  void ClearJournal() const;
  const std::wstring& folder() const { return folder_; }

 private:
  std::wstring folder_;
};

}  // namespace korva::test

namespace korva::test {
// REG_QWORD values in the service's 32-bit view (HKLM).
void WriteQword(const char* key, const char* name, long long value);
// 0 when missing or not a QWORD.
long long ReadQword(const char* key, const char* name);
}  // namespace korva::test
