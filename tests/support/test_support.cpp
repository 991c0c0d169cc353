// Helpers shared by the Wine tests.
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "settings/log.h"
#include "shared/path_links.h"
#include "win/process_walk.h"
#include "win/services.h"
#include "win/strings.h"

namespace korva::test {

TempDir::TempDir() {
  static std::atomic<int> counter{0};
  // Wine reuses process ids from run to run: the time keeps a folder a killed run left apart.
  const std::string name = "korva-test-" + std::to_string(GetCurrentProcessId()) + "-" +
                           std::to_string(GetTickCount64()) + "-" + std::to_string(counter++);
  path_ = (std::filesystem::temp_directory_path() / name).wstring();
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
  std::filesystem::create_directory(path_, ignored);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

namespace {

// The host path Wine keeps `path` at (Wine's own kernel32 export); empty when there is none.
std::string HostPath(const std::wstring& path) {
  using HostPathFn = char*(__cdecl*)(const wchar_t*);
  const auto toHost = reinterpret_cast<HostPathFn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  if (toHost == nullptr) return {};
  char* host = toHost(path.c_str());
  if (host == nullptr) return {};
  std::string copy(host);
  HeapFree(GetProcessHeap(), 0, host);
  return copy;
}

// Runs the host program `program` with `arguments`, then waits up to 10 s for `done`. Wine's
// start.exe starts it: a 32-bit Wine process that starts a host program itself can lose its own
// standard output to the start (its gtest summary vanished in about half the runs), and Wine hands
// back no handle to wait on for one.
bool RunHostProgram(const std::string& program, const std::vector<std::string>& arguments,
                    const std::function<bool()>& done) {
  std::wstring line = L"C:\\windows\\system32\\start.exe /unix " + win::AnsiToWide(program);
  for (const std::string& argument : arguments) line += L" \"" + win::AnsiToWide(argument) + L"\"";
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION started{};
  if (!CreateProcessW(L"C:\\windows\\system32\\start.exe", line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                      nullptr, nullptr, &startup, &started)) {
    return false;
  }
  const win::UniqueHandle process(started.hProcess);
  const win::UniqueHandle thread(started.hThread);
  WaitForSingleObject(process.get(), 10000);
  return WaitUntil(done, 10000);
}

bool IsLink(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

}  // namespace

FolderLink::FolderLink(std::wstring link, const std::wstring& target, bool forgetVerdicts) : link_(std::move(link)) {
  const std::size_t cut = link_.find_last_of(L'\\');
  const std::string parent = cut == std::wstring::npos ? std::string() : HostPath(link_.substr(0, cut));
  const std::string to = HostPath(target);
  if (parent.empty() || to.empty()) return;
  hostLink_ = parent + "/" + win::WideToAnsi(link_.substr(cut + 1));
  made_ = RunHostProgram("/bin/ln", {"-s", to, hostLink_}, [this] { return IsLink(link_); });
  // Where a folder stood before, the walk would take its security as sound for a while yet: only an
  // administrator could have replaced it, as this test does.
  if (forgetVerdicts) ForgetSoundStepsForTest();
}

FolderLink::~FolderLink() {
  if (!hostLink_.empty()) {
    (void)RunHostProgram("/bin/rm", {"-f", hostLink_},
                         [this] { return GetFileAttributesW(link_.c_str()) == INVALID_FILE_ATTRIBUTES; });
  }
}

std::string TempDir::NarrowPath() const { return win::WideToAnsi(path_); }

std::string ReadFileBytes(const std::wstring& path) {
  std::ifstream in(path.c_str(), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFileBytes(const std::wstring& path, const std::string& bytes) {
  std::ofstream(path.c_str(), std::ios::binary | std::ios::trunc) << bytes;
}

SearchedFolder::SearchedFolder(const std::wstring& folder) {
  wchar_t buffer[32768];
  directory_.assign(buffer, GetCurrentDirectoryW(MAX_PATH, buffer));
  path_.assign(buffer, GetEnvironmentVariableW(L"PATH", buffer, 32768));
  SetCurrentDirectoryW(folder.c_str());
  SetEnvironmentVariableW(L"PATH", (folder + L";" + path_).c_str());
}

SearchedFolder::~SearchedFolder() {
  SetEnvironmentVariableW(L"PATH", path_.c_str());
  SetCurrentDirectoryW(directory_.c_str());
}

std::wstring ProgramFolder() {
  wchar_t path[MAX_PATH];
  const std::wstring program(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
  return program.substr(0, program.find_last_of(L'\\'));
}

std::wstring ServiceExecutable() {
  static const std::wstring executable = [] {
    // A copy inside the prefix's own drive, one a lane: the agent judges the folders on the way to
    // its executable (its log goes there when BasePath cannot take it), and a build folder under a
    // host folder anyone may write (/tmp) would fail that, as it should.
    const std::wstring shipped = ProgramFolder() + L"\\korvaAgentService.exe";
    wchar_t lane[64] = {};
    const DWORD length = GetEnvironmentVariableW(L"KORVA_WINE_LANE", lane, 64);
    const std::wstring name = length == 0 || length >= 64 ? std::wstring(L"main") : std::wstring(lane);
    CreateDirectoryW(L"C:\\korva-service", nullptr);
    const std::wstring folder = L"C:\\korva-service\\" + name;
    CreateDirectoryW(folder.c_str(), nullptr);
    const std::wstring copy = folder + L"\\korvaAgentService.exe";
    return CopyFileW(shipped.c_str(), copy.c_str(), FALSE) ? copy : shipped;
  }();
  return executable;
}

std::size_t CountOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

bool WaitUntil(const std::function<bool()>& done, unsigned long timeoutMs) {
  for (const ULONGLONG deadline = GetTickCount64() + timeoutMs; !done(); Sleep(20)) {
    if (GetTickCount64() >= deadline) return false;
  }
  return true;
}

std::string ToyEncipher(const std::string& plain) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string cipher;
  for (const char c : plain) {
    const auto byte = static_cast<unsigned char>(static_cast<unsigned char>(c) ^ 0x5A);
    cipher += {kHex[byte >> 4], kHex[byte & 0x0F]};
  }
  return cipher;
}

void CleanAgentRegistry() {
  for (const REGSAM view : {KEY_WOW64_32KEY, KEY_WOW64_64KEY}) {
    win::UniqueRegKey key;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE", 0, KEY_ALL_ACCESS | view, key.put()) == 0) {
      RegDeleteTreeA(key.get(), "Kestrelix");
    }
  }
}

win::UniqueRegKey AgentKey(const std::string& key, REGSAM view) {
  win::UniqueRegKey handle;
  RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, handle.put(),
                  nullptr);
  return handle;
}

void SetRawValue(const std::string& key, const char* name, DWORD type, const std::string& bytes, REGSAM view) {
  // The wide call, so that string data is stored as given, not converted.
  RegSetValueExW(AgentKey(key, view).get(), win::AnsiToWide(name).c_str(), 0, type,
                 reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size()));
}

std::optional<std::string> RawValue(const std::string& key, const char* name, REGSAM view) {
  const win::UniqueRegKey handle = AgentKey(key, view);
  DWORD size = 0;
  if (RegQueryValueExA(handle.get(), name, nullptr, nullptr, nullptr, &size) != 0) return std::nullopt;
  std::string data(size, '\0');
  RegQueryValueExA(handle.get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(data.data()), &size);
  return data;
}

std::optional<unsigned long long> ReadNumber(const std::string& key, const char* name, DWORD type, HKEY root) {
  unsigned long long value = 0;
  DWORD size = sizeof value;
  win::UniqueRegKey handle;
  if (RegOpenKeyExA(root, key.c_str(), 0, KEY_READ | KEY_WOW64_32KEY, handle.put()) != 0 ||
      RegGetValueA(handle.get(), nullptr, name, type == REG_QWORD ? RRF_RT_REG_QWORD : RRF_RT_REG_DWORD, nullptr,
                   &value, &size) != 0) {
    return std::nullopt;
  }
  return value;
}

LogCapture::LogCapture(int maxSeverity) : path_(dir_.File(L"korva_agentservice.log")) {
  log::InitializeServiceLogger(path_, maxSeverity);
}

LogCapture::~LogCapture() { log::ShutdownServiceLogger(); }

std::string LogCapture::Text() {
  log::ShutdownServiceLogger();
  return ReadFileBytes(path_);
}

std::vector<std::string> WrongLines(const std::string& text, const std::vector<LogLine>& expected, bool ordered) {
  std::vector<std::string> wrong;
  std::size_t from = 0;
  for (const LogLine& line : expected) {
    const bool absent = line.match == LogLine::kAbsent;
    const std::string needle = "] [ " + line.function + " ] " + line.message + (line.match ? "" : "\r\n");
    const std::size_t at = text.find(needle, ordered && !absent ? from : 0);
    if ((at == std::string::npos) != absent) {
      wrong.push_back((absent ? "present: " : ordered ? "missing or out of order: " : "missing: ") + needle);
    } else if (!absent) {
      from = at;
    }
  }
  return wrong;
}

std::wstring StandInFolder::Add(const std::wstring& name, int exitCode, unsigned long sleepMs) const {
  std::wstring target = folder_ + L"\\" + name + L".exe";
  CopyFileW((ProgramFolder() + L"\\korvaStandIn.exe").c_str(), target.c_str(), FALSE);
  WriteFileBytes(folder_ + L"\\" + name + L".behaviour",
                 "exit=" + std::to_string(exitCode) + "\nsleep=" + std::to_string(sleepMs) + "\n");
  return target;
}

EnvironmentVariable::EnvironmentVariable(std::wstring name, const std::wstring& value) : name_(std::move(name)) {
  const DWORD size = GetEnvironmentVariableW(name_.c_str(), nullptr, 0);
  if (size > 0) {
    std::wstring before(size, L'\0');
    before.resize(GetEnvironmentVariableW(name_.c_str(), before.data(), size));
    before_ = std::move(before);
  }
  if (!SetEnvironmentVariableW(name_.c_str(), value.c_str())) throw std::runtime_error("SetEnvironmentVariableW failed");
}

EnvironmentVariable::~EnvironmentVariable() {
  SetEnvironmentVariableW(name_.c_str(), before_ ? before_->c_str() : nullptr);
}

std::vector<JournalEntry> StandInFolder::Journal() const {
  std::vector<JournalEntry> entries;
  std::istringstream lines(ReadFileBytes(folder_ + L"\\standin-journal.txt"));
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::vector<std::string> f;
    std::istringstream fields(line);
    for (std::string field; std::getline(fields, field, '\t');) f.push_back(field);
    if (f.size() == 7) entries.push_back({f[0], f[1], f[2], std::stoul(f[3]), std::stoul(f[5]), f[6]});
  }
  return entries;
}

std::vector<JournalEntry> StandInFolder::WaitForJournal(std::size_t count, unsigned long timeoutMs) const {
  std::vector<JournalEntry> entries;
  WaitUntil([&] { return (entries = Journal()).size() >= count; }, timeoutMs);
  return entries;
}

PlantedBin::PlantedBin(const std::vector<std::string>& programs) : StandInFolder(L"C:\\bin") {
  CreateDirectoryW(folder().c_str(), nullptr);
  for (const std::string& program : programs) Add(win::AnsiToWide(program));
  ClearJournal();
}

PlantedBin::~PlantedBin() {
  std::error_code ignored;
  std::filesystem::remove_all(folder(), ignored);
}

RunningProgram::RunningProgram(const std::wstring& exe, const std::wstring& arguments, HANDLE output) {
  std::wstring line = L"\"" + exe + L"\" " + arguments;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  if (output != nullptr) {
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = output;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  }
  const auto create = [&] {
    return CreateProcessW(exe.c_str(), line.data(), nullptr, nullptr, output != nullptr, 0, nullptr, nullptr, &startup,
                          child_.put());
  };
  BOOL created = create();
  if (!created && GetLastError() == ERROR_INTERNAL_ERROR) {
    // Wine's new process died in its loader before any of the program ran (seen under load): once more.
    (void)std::fprintf(stderr, "RunningProgram: the process did not come up (error 1359); trying once more\n");
    Sleep(500);
    created = create();
  }
  if (created) {
    child_.closeThread();
  } else {
    startError_ = GetLastError();
  }
}

void RunningProgram::Stop() {
  if (child_.process() && TerminateProcess(child_.process(), 1)) WaitForSingleObject(child_.process(), 5000);
  child_.reset();
}

ProgramResult RunProgram(const std::wstring& exe, const std::wstring& arguments, unsigned long timeoutMs) {
  // Output goes to a file, which a chatty child can never fill up as it could a pipe.
  const TempDir dir;
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  win::UniqueFileHandle out(CreateFileW(dir.File(L"out").c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                                        CREATE_ALWAYS, 0, nullptr));
  std::optional<RunningProgram> program(std::in_place, exe, arguments, out.get());
  if (!program->process()) {
    // Seen once under load in a whole run (win64, a service's /i): CreateProcessW failed at once.
    // Said on the test's error output, and tried once more, so the next time it shows its error.
    (void)std::fprintf(stderr, "RunProgram: CreateProcessW failed with error %lu; trying once more\n",
                       program->startError());
    Sleep(500);
    program.emplace(exe, arguments, out.get());
  }
  DWORD code = WAIT_TIMEOUT;  // what a program that never finished, or never started, reports
  const bool started = program->process() != nullptr;
  const bool finished = started && WaitForSingleObject(program->process(), timeoutMs) == WAIT_OBJECT_0 &&
                        GetExitCodeProcess(program->process(), &code);
  program->Stop();
  out.reset();
  if (!started) return {false, code, "CreateProcessW failed with error " + std::to_string(program->startError()) + "\n"};
  return {finished, code, ReadFileBytes(dir.File(L"out"))};
}

std::wstring UserName() {
  wchar_t name[256];
  DWORD size = 256;
  return GetUserNameW(name, &size) ? name : L"";
}

std::vector<DWORD> ProcessesNamed(const wchar_t* name) {
  std::vector<DWORD> ids;
  win::WalkProcesses([&](const PROCESSENTRY32W& entry) {
    if (CompareStringOrdinal(entry.szExeFile, -1, name, -1, TRUE) == CSTR_EQUAL) ids.push_back(entry.th32ProcessID);
    return false;
  });
  return ids;
}

void EndProcessesNamed(const wchar_t* name) {
  for (const DWORD id : ProcessesNamed(name)) {
    const win::UniqueHandle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id));
    if (process && TerminateProcess(process.get(), 1)) WaitForSingleObject(process.get(), 5000);
  }
}

win::UniqueServiceHandle OpenAgentService(DWORD access, const wchar_t* name) {
  return win::OpenServiceByName(name, access);
}

void DeleteServiceIfPresent(const wchar_t* name) {
  {
    const win::UniqueServiceHandle service = OpenAgentService(SERVICE_ALL_ACCESS, name);
    if (!service) return;
    SendControl(service.get(), SERVICE_CONTROL_STOP);
    WaitForServiceState(service.get(), SERVICE_STOPPED, 30000);
    DeleteService(service.get());
  }
  // A deleted service stays registered until its process has ended: an install made before then
  // would update the entry that is about to go, and the next test would find no service.
  if (!WaitUntil([name] { return !OpenAgentService(SERVICE_QUERY_STATUS, name); }, 30000)) {
    ADD_FAILURE() << "the service is still registered 30 s after it was deleted";
  }
}

DWORD StartServiceOnce(SC_HANDLE service) {
  if (StartServiceW(service, 0, nullptr)) return 0;
  const DWORD error = GetLastError();
  // Seen once under load in a whole run (win64): Wine's new process died in its loader, before the
  // service's own code, and the service control manager reported the start as failed.
  if (error != ERROR_INTERNAL_ERROR) return error;
  (void)std::fprintf(stderr, "StartServiceOnce: the service's process did not come up (error %lu); trying once more\n",
                     error);
  Sleep(500);
  return StartServiceW(service, 0, nullptr) ? 0 : GetLastError();
}

DWORD WaitForServiceState(SC_HANDLE service, DWORD state, DWORD timeoutMs) {
  SERVICE_STATUS status{};
  WaitUntil([&] { return !QueryServiceStatus(service, &status) || status.dwCurrentState == state; }, timeoutMs);
  return status.dwCurrentState;
}

std::wstring AgentServiceConfig() {
  const win::UniqueServiceHandle service = OpenAgentService(SERVICE_QUERY_CONFIG);
  DWORD needed = 0;
  if (service) QueryServiceConfigW(service.get(), nullptr, 0, &needed);
  std::vector<BYTE> buffer(needed);
  auto* c = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  if (!service || needed == 0 || !QueryServiceConfigW(service.get(), c, needed, &needed)) {
    return L"error " + std::to_wstring(GetLastError());
  }
  return std::wstring(c->lpBinaryPathName) + L"|" + std::to_wstring(c->dwStartType) + L"|" +
         std::to_wstring(c->dwServiceType) + L"|" + (c->lpServiceStartName ? c->lpServiceStartName : L"");
}

}  // namespace korva::test
