// Helpers of the process tests: stand-ins kept running for a test (a fake winlogon.exe or
// explorer.exe), and the usual folder of stand-ins with a log capture.
#pragma once

#include <gtest/gtest.h>
#include <tlhelp32.h>
#include <windows.h>

#include <cstdlib>
#include <string>

#include "service/control_handler.h"
#include "support/test_support.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace korva::test {

// A stand-in started by the test itself and killed when the object goes (bounded wait). It shares
// this program's console: Wine can leave the console host of a child killed while it starts up
// running, and that host keeps the test runner's output pipe open.
class RunningStandIn {
 public:
  explicit RunningStandIn(const std::wstring& exe) {
    std::wstring line = L"\"" + exe + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (CreateProcessW(exe.c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)) {
      process_.reset(info.hProcess);
      CloseHandle(info.hThread);
      pid_ = info.dwProcessId;
    }
  }
  ~RunningStandIn() { Stop(); }
  void Stop() {
    if (!process_) return;
    TerminateProcess(process_.get(), 1);
    WaitForSingleObject(process_.get(), 5000);
    process_.reset();
  }
  DWORD pid() const { return pid_; }
  bool started() const { return pid_ != 0; }

 private:
  win::UniqueHandle process_;
  DWORD pid_ = 0;
};

// Calls `visit` with the id of every process named `name` (any case), in any session.
template <typename Visit>
void ForEachProcessNamed(const wchar_t* name, Visit visit) {
  const win::UniqueFileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(snapshot.get(), &entry); more; more = Process32NextW(snapshot.get(), &entry)) {
    if (CompareStringOrdinal(entry.szExeFile, -1, name, -1, TRUE) == CSTR_EQUAL) visit(entry.th32ProcessID);
  }
}

// The tests' own look, apart from the code under test.
inline bool AnyProcessNamed(const wchar_t* name) {
  bool found = false;
  ForEachProcessNamed(name, [&](DWORD) { found = true; });
  return found;
}

// Ends every process named `name` whose image lies in the Windows folder (Wine's own
// "explorer.exe /desktop", which Wine restarts when a child needs the desktop), then waits until
// none of that name is left; false if one outlives `timeoutMs`. Not used by the process tests.
inline bool EndSystemProcessesNamed(const wchar_t* name, DWORD timeoutMs) {
  wchar_t windows[MAX_PATH] = {};
  GetWindowsDirectoryW(windows, MAX_PATH);
  const std::wstring folder = std::wstring(windows) + L"\\";
  const int prefix = static_cast<int>(folder.size());
  const ULONGLONG deadline = GetTickCount64() + timeoutMs;
  for (;;) {
    bool found = false;
    ForEachProcessNamed(name, [&](DWORD pid) {
      found = true;
      const win::UniqueHandle process(
          OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid));
      wchar_t image[MAX_PATH] = {};
      DWORD size = MAX_PATH;
      if (!process || !QueryFullProcessImageNameW(process.get(), 0, image, &size)) return;
      // Not under the Windows folder: a test's stand-in, left to its owner.
      if (size < folder.size() || CompareStringOrdinal(image, prefix, folder.c_str(), prefix, TRUE) != CSTR_EQUAL)
        return;
      TerminateProcess(process.get(), 0);
      WaitForSingleObject(process.get(), 5000);
    });
    if (!found) return true;
    if (GetTickCount64() >= deadline) return false;
    Sleep(100);
  }
}

// A fresh folder of stand-ins, the log captured at verbose level, the shutdown flag clear.
class ProcessTest : public ::testing::Test {
 protected:
  ProcessTest() : bin_(dir_.path()) {}
  void TearDown() override { ShutdownInProgressFlag.store(0); }
  // Adds the stand-in `name` with its behaviour; returns its full path in the ANSI code page.
  std::string AddStandIn(const std::wstring& name, int exitCode = 0, unsigned long sleepMs = 0,
                         const std::string& output = "") {
    const std::wstring exe = bin_.Add(name);
    bin_.SetBehaviour(name, exitCode, sleepMs, output);
    return win::WideToAnsi(exe);
  }

  TempDir dir_;
  StandInFolder bin_;
  LogCapture log_{6};
};

// A heap text a launcher hands back, freed with free() as the launchers' callers do.
struct HeapText {
  HeapText() = default;
  HeapText(const HeapText&) = delete;
  ~HeapText() { std::free(text); }
  std::string str() const { return text != nullptr ? text : ""; }
  char* text = nullptr;
};

inline std::string Quoted(const std::string& path) { return "\"" + path + "\""; }

}  // namespace korva::test
