// Soak driver: runs against the installed, running agent service for a bounded time and drives it
// the ways it is driven in the field, interleaved: settings changes with a grant that expires a few
// seconds later (each change gives one reaction, each grant one revocation), a stream of user
// control codes with pauses, continues and interrogations among them, and pipe connections from a
// stand-in server. Prints the service's resources at the start and the end and the helper programs
// started against those expected. Device events cannot be sent through Wine's service manager.
//   korva_soak <seconds> <agent folder> [<pipe server exe>]
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/process_resources.h"
#include "win/unique_handle.h"

namespace {

constexpr wchar_t kServiceName[] = L"Tallowmere Korva - Agent";
constexpr char kSettingsKey[] = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings";
constexpr DWORD kCycleMs = 7000;  // settle (2 s) + grant expiry (5 s) + room
constexpr long long kGrantLifeS = 5;
constexpr DWORD kTailMs = 10000;     // no new cycle this close to the end: the last one completes
constexpr DWORD kStopControl = 193;  // the user code that stops the service: never sent here

// The user codes in the order they are sent: 128..255 without the stop code. The log check after
// the run finds lost lines as breaks in this order.
DWORD NextCode(DWORD code) {
  DWORD next = code >= 255 ? 128 : code + 1;
  return next == kStopControl ? next + 1 : next;
}

long long UnixSeconds() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  const ULONGLONG ticks = (static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
  return static_cast<long long>(ticks / 10000000ULL) - 11644473600LL;
}

// One cycle: a grant that ends kGrantLifeS seconds from now, then a settings change that makes the
// service read it (the agent runs on UTC here, so its local-time seconds are Unix seconds).
void Cycle(const std::string& agent, int number) {
  std::ofstream(agent + "\\data\\policy\\ta.json_tmp", std::ios::binary | std::ios::trunc)
      << "[{\"ta_id\":" << number << ",\"policy_name\":\"soak\",\"expiry_time\":" << UnixSeconds() + kGrantLifeS
      << ",\"duration_type\":0,\"revoked\":0,\"duration_from\":0,\"duration_to\":4102444800}]";
  HKEY key = nullptr;
  if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, kSettingsKey, 0, nullptr, 0, KEY_SET_VALUE | KEY_WOW64_32KEY, nullptr, &key,
                      nullptr) == ERROR_SUCCESS) {
    const auto value = static_cast<DWORD>(number);
    RegSetValueExA(key, "SoakCycle", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
    RegCloseKey(key);
  }
}

// Lines of `journal` whose program name (the first field) is `name`.
int JournalCount(const std::string& journal, const std::string& name) {
  std::ifstream in(journal);
  int count = 0;
  for (std::string line; std::getline(in, line);) count += line.compare(0, name.size() + 1, name + "\t") == 0;
  return count;
}

// The stand-in pipe server, run again each time it ends; it answers on its own file.
class PipeServers {
 public:
  PipeServers(std::wstring exe, std::wstring answers) : exe_(std::move(exe)), answers_(std::move(answers)) {}
  ~PipeServers() {
    if (process_) TerminateProcess(process_.get(), 0);
  }
  void Tend() {
    if (exe_.empty()) return;
    if (process_) {
      if (WaitForSingleObject(process_.get(), 0) == WAIT_TIMEOUT) return;
      process_.reset();
      ++ended_;
    }
    // A code outside 128-255 (refused: 87), three bytes and 4,096 bytes (13 each), then hang up.
    std::wstring command = L"\"" + exe_ + L"\" \"" + answers_ + L"\" 05000000 0d0000 big close";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)) {
      CloseHandle(info.hThread);
      process_.reset(info.hProcess);
    }
  }
  [[nodiscard]] int ended() const { return ended_; }

 private:
  std::wstring exe_;
  std::wstring answers_;
  korva::win::UniqueHandle process_;
  int ended_ = 0;
};

int CountLinesWith(const std::wstring& path, const char* text) {
  std::ifstream in(path.c_str());
  int count = 0;
  for (std::string line; std::getline(in, line);) count += line.find(text) != std::string::npos;
  return count;
}

DWORD ServiceProcessId(SC_HANDLE service) {
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  return QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status, &needed)
             ? status.dwProcessId
             : 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 3) {
    std::printf("usage: korva_soak <seconds> <agent folder> [<pipe server exe>]\n");
    return 2;
  }
  wchar_t* secondsEnd = nullptr;
  const auto seconds = static_cast<DWORD>(std::wcstoul(argv[1], &secondsEnd, 10));
  if (seconds == 0 || secondsEnd == argv[1] || *secondsEnd != L'\0' || seconds > 30U * 24 * 3600) {
    std::printf("korva_soak: <seconds> must be a number of seconds, at most 30 days\n");
    return 2;
  }
  const std::wstring agentWide = argv[2];
  const std::string agent(agentWide.begin(), agentWide.end());  // the agent folder is ASCII
  const std::wstring answers = agentWide + L"\\soak-pipe-answers.txt";
  DeleteFileW(answers.c_str());

  const korva::win::UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const korva::win::UniqueServiceHandle service(manager
                                                    ? OpenServiceW(manager.get(), kServiceName,
                                                                   SERVICE_USER_DEFINED_CONTROL | SERVICE_QUERY_STATUS |
                                                                       SERVICE_PAUSE_CONTINUE | SERVICE_INTERROGATE)
                                                    : nullptr);
  const DWORD pid = service ? ServiceProcessId(service.get()) : 0;
  const korva::win::UniqueHandle process(pid != 0 ? OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid)
                                                  : nullptr);
  if (!process) {
    std::printf("soak: the service is not running (error %lu)\n", GetLastError());
    return 1;
  }
  const korva::bench::Resources start = korva::bench::Measure(process.get(), pid);

  PipeServers servers(argc > 3 ? argv[3] : L"", answers);
  const ULONGLONG begin = GetTickCount64();
  const ULONGLONG end = begin + (seconds * 1000ULL);
  ULONGLONG nextCycle = begin;
  // A second reading once everything has run a few times: first uses (the trust check's providers,
  // the timer threads) take handles once; a leak keeps growing after it.
  const ULONGLONG warmedAt = begin + (seconds > 120 ? 60000ULL : seconds * 500ULL);
  korva::bench::Resources warmed;
  bool haveWarmed = false;
  int cycles = 0;
  unsigned long long codes = 0;
  unsigned long long failedCodes = 0;
  unsigned long long others = 0;
  DWORD code = 255;  // the first code sent is 128
  SERVICE_STATUS status{};
  while (GetTickCount64() < end) {
    const ULONGLONG now = GetTickCount64();
    if (now >= nextCycle && now + kTailMs < end) {
      Cycle(agent, ++cycles);
      nextCycle = now + kCycleMs;
    }
    servers.Tend();
    if (!haveWarmed && now >= warmedAt) {
      warmed = korva::bench::Measure(process.get(), pid);
      haveWarmed = true;
    }
    code = NextCode(code);
    if (!ControlService(service.get(), code, &status)) ++failedCodes;
    ++codes;
    if (codes % 500 == 0) {  // a pause and a continue, and an interrogation
      others += ControlService(service.get(), SERVICE_CONTROL_PAUSE, &status) ? 1 : 0;
      others += ControlService(service.get(), SERVICE_CONTROL_CONTINUE, &status) ? 1 : 0;
      others += ControlService(service.get(), SERVICE_CONTROL_INTERROGATE, &status) ? 1 : 0;
    }
    Sleep(1);
  }
  const korva::bench::Resources last = korva::bench::Measure(process.get(), pid);
  const DWORD pidNow = ServiceProcessId(service.get());

  const std::string bin = agent + "\\DeviceControl\\bin\\standin-journal.txt";
  const std::string base = agent + "\\standin-journal.txt";
  std::printf(
      "soak: %lu s; %d settings changes with a grant each; %llu user control codes (%llu refused by the "
      "manager), the last %lu; %llu pause, continue and interrogate controls; %d pipe servers run to their end, "
      "%d answers\n",
      static_cast<unsigned long>(seconds), cycles, codes, failedCodes, static_cast<unsigned long>(code), others,
      servers.ended(), CountLinesWith(answers, "bytes)"));
  std::printf("soak: the service process %s\n", pidNow == pid ? "ran throughout" : "changed: it was restarted");
  std::printf("                 start     warmed        end   (warmed: after %llu s)\n",
              static_cast<unsigned long long>((warmedAt - begin) / 1000));
  std::printf("handles     %10lu %10lu %10lu   (%s)\n", static_cast<unsigned long>(start.handles),
              static_cast<unsigned long>(warmed.handles), static_cast<unsigned long>(last.handles), last.handleSource);
  std::printf("private KB  %10lu %10lu %10lu   (%s)\n", static_cast<unsigned long>(start.privateBytes / 1024),
              static_cast<unsigned long>(warmed.privateBytes / 1024),
              static_cast<unsigned long>(last.privateBytes / 1024), last.memorySource);
  std::printf("threads     %10lu %10lu %10lu\n", static_cast<unsigned long>(start.threads),
              static_cast<unsigned long>(warmed.threads), static_cast<unsigned long>(last.threads));
  // Each cycle: one reaction (the summary program re-enumerates, the configuration program
  // re-applies policy), then the revocation (policy re-applied again, the tray told). The start-up
  // runs the summary program once more.
  const struct {
    const char* name;
    const std::string& journal;
    int expected;
  } helpers[] = {
      {"korvaDevCtrlSummary", bin, cycles + 1}, {"qvconfig", base, 2 * cycles}, {"korvaAgentTrayIcon", bin, cycles}};
  for (const auto& h : helpers) {
    std::printf("helper %-20s started %6d expected %6d\n", h.name, JournalCount(h.journal, h.name), h.expected);
  }
  std::printf("soak: last code %lu\n", static_cast<unsigned long>(code));
  return 0;
}
