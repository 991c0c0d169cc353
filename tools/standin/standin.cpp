// Test-only stand-in for every helper program the service starts. Copied under a helper's name
// (devctrlaction64.exe, korvaConfig.exe, winlogon.exe, ...), each run appends one line to
// "standin-journal.txt" beside it:
//   name <TAB> command line <TAB> current directory <TAB> session id <TAB> user <TAB> parent pid <TAB> PATH
// and then behaves as "<name>.behaviour" beside it says, one setting per line:
//   exit=<code>      exit code (default 0)
//   sleep=<ms>       wait this long before exiting (default 0)
//   stdout=<text>    write this text and a line end to standard output
//   flood=1          then write lines to standard output from two threads, without end
//   service=1        run as a service of its own process: RUNNING until a STOP control
#include <windows.h>
#include <tlhelp32.h>
#include <wtsapi32.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/minimal_service.h"

namespace {

std::wstring ModulePath() {
  wchar_t path[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  return {path, n};
}

std::wstring FolderOf(const std::wstring& path) { return path.substr(0, path.find_last_of(L'\\')); }

std::wstring BaseNameWithoutExtension(const std::wstring& path) {
  std::wstring name = path.substr(path.find_last_of(L'\\') + 1);
  const std::size_t dot = name.find_last_of(L'.');
  return dot == std::wstring::npos ? name : name.substr(0, dot);
}

std::string ToUtf8(const std::wstring& text) {
  if (text.empty()) return {};
  const int n =
      WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<std::size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr, nullptr);
  return out;
}

// The PATH this run was given; "(none)" when it has none, "(empty)" when it is empty.
std::wstring EnvironmentPath() {
  const DWORD size = GetEnvironmentVariableW(L"PATH", nullptr, 0);
  if (size == 0) return GetLastError() == ERROR_ENVVAR_NOT_FOUND ? L"(none)" : L"(empty)";
  std::wstring path(size, L'\0');
  const DWORD n = GetEnvironmentVariableW(L"PATH", path.data(), size);
  if (n == 0 || n >= size) return L"(empty)";
  path.resize(n);
  return path;
}

DWORD ParentProcessId() {
  const DWORD self = GetCurrentProcessId();
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return 0;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  DWORD parent = 0;
  for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
    if (entry.th32ProcessID == self) {
      parent = entry.th32ParentProcessID;
      break;
    }
  }
  CloseHandle(snapshot);
  return parent;
}

std::wstring UserName() {
  wchar_t name[256];
  DWORD size = 256;
  return GetUserNameW(name, &size) ? std::wstring(name) : std::wstring();
}

std::wstring CurrentDirectory() {
  wchar_t dir[MAX_PATH];
  const DWORD n = GetCurrentDirectoryW(MAX_PATH, dir);
  return {dir, n};
}

// One write per line, under a machine-wide mutex so concurrent helpers never interleave.
void AppendJournalLine(const std::wstring& folder, const std::string& line) {
  HANDLE mutex = CreateMutexW(nullptr, FALSE, L"Global\\korvaStandInJournal");
  if (mutex != nullptr) WaitForSingleObject(mutex, 10000);
  const std::wstring journal = folder + L"\\standin-journal.txt";
  HANDLE file = CreateFileW(journal.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                            nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file != INVALID_HANDLE_VALUE) {
    DWORD written = 0;
    WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    CloseHandle(file);
  }
  if (mutex != nullptr) {
    ReleaseMutex(mutex);
    CloseHandle(mutex);
  }
}

struct Behaviour {
  int exitCode = 0;
  DWORD sleepMs = 0;
  std::string stdoutText;
  bool writesStdout = false;
  bool service = false;
  bool flood = false;
};

// Writes to standard output until the process is ended; it blocks only while the pipe is full.
DWORD WINAPI Flood(LPVOID /*parameter*/) {
  // Large writes, so the pipe always holds more than a reader takes in one go.
  std::string block;
  while (block.size() < std::size_t{256} * 1024) block += std::string(127, 'x') + "\n";
  const HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
  for (;;) {
    DWORD written = 0;
    if (!WriteFile(out, block.data(), static_cast<DWORD>(block.size()), &written, nullptr)) Sleep(10);
  }
}

Behaviour ReadBehaviour(const std::wstring& path) {
  Behaviour behaviour;
  FILE* file = _wfopen(path.c_str(), L"r");
  if (file == nullptr) return behaviour;
  char line[4096];
  while (std::fgets(line, sizeof line, file) != nullptr) {
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    if (text.rfind("exit=", 0) == 0) behaviour.exitCode = static_cast<int>(std::strtol(text.c_str() + 5, nullptr, 10));
    if (text.rfind("sleep=", 0) == 0)
      behaviour.sleepMs = static_cast<DWORD>(std::strtoul(text.c_str() + 6, nullptr, 10));
    if (text == "service=1") behaviour.service = true;
    if (text == "flood=1") behaviour.flood = true;
    if (text.rfind("stdout=", 0) == 0) {
      behaviour.stdoutText = text.substr(7);
      behaviour.writesStdout = true;
    }
  }
  static_cast<void>(std::fclose(file));  // read only: nothing to lose
  return behaviour;
}

}  // namespace

int wmain() {
  const std::wstring self = ModulePath();
  const std::wstring folder = FolderOf(self);
  const std::wstring name = BaseNameWithoutExtension(self);
  DWORD session = 0;
  ProcessIdToSessionId(GetCurrentProcessId(), &session);
  const std::string line = ToUtf8(name) + "\t" + ToUtf8(GetCommandLineW()) + "\t" + ToUtf8(CurrentDirectory()) + "\t" +
                           std::to_string(session) + "\t" + ToUtf8(UserName()) + "\t" +
                           std::to_string(ParentProcessId()) + "\t" + ToUtf8(EnvironmentPath()) + "\r\n";
  AppendJournalLine(folder, line);
  const Behaviour behaviour = ReadBehaviour(folder + L"\\" + name + L".behaviour");
  if (behaviour.service) return korva::tools::RunMinimalService();
  if (behaviour.writesStdout) {
    // A reader that went away is the test's to notice: it reads what this wrote.
    static_cast<void>(std::fputs(behaviour.stdoutText.c_str(), stdout));
    static_cast<void>(std::fputs("\n", stdout));
    static_cast<void>(std::fflush(stdout));
  }
  if (behaviour.flood) {
    CloseHandle(CreateThread(nullptr, 0, Flood, nullptr, 0, nullptr));
    Flood(nullptr);
  }
  if (behaviour.sleepMs > 0) Sleep(behaviour.sleepMs);
  return behaviour.exitCode;
}
