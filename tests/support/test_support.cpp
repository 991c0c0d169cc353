// Helpers shared by the Wine tests.
#include "support/test_support.h"

#include <windows.h>
#include <shellapi.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <sstream>

#include "win/bitness.h"
#include "win/strings.h"

namespace korva::test {

namespace {
void RemoveTree(const std::wstring& path) {
  std::wstring from = path;
  from.push_back(L'\0');  // SHFileOperation takes a double-NUL-terminated list
  SHFILEOPSTRUCTW op{};
  op.wFunc = FO_DELETE;
  op.pFrom = from.c_str();
  op.fFlags = FOF_NOCONFIRMATION | FOF_NOERRORUI | FOF_SILENT;
  SHFileOperationW(&op);
}
}  // namespace

TempDir::TempDir() {
  static std::atomic<int> counter{0};
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  std::wstringstream name;
  name << temp << L"korva-test-" << GetCurrentProcessId() << L"-" << counter++;
  path_ = name.str();
  RemoveTree(path_);
  CreateDirectoryW(path_.c_str(), nullptr);
}

TempDir::~TempDir() { RemoveTree(path_); }

std::string TempDir::NarrowPath() const { return win::WideToAnsi(path_); }

std::string ReadFileBytes(const std::wstring& path) {
  std::ifstream in(path.c_str(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool FileExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void WriteFileBytes(const std::wstring& path, const std::string& bytes) {
  std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::wstring ProgramFolder() {
  wchar_t path[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring folder(path, n);
  return folder.substr(0, folder.find_last_of(L'\\'));
}

void CleanAgentRegistry() {
  // Both views: the agent's own, and the 64-bit one where nothing of the agent's should land.
  for (const REGSAM view : {KEY_WOW64_32KEY, KEY_WOW64_64KEY}) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE", 0, KEY_ALL_ACCESS | view, &key) == ERROR_SUCCESS) {
      RegDeleteTreeA(key, "Kestrelix");
      RegCloseKey(key);
    }
  }
}

win::UniqueRegKey OpenAgentKey(const wchar_t* path) {
  win::UniqueRegKey key;
  RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS | win::kAgentRegistryView, key.put());
  return key;
}

win::UniqueRegKey CreateAgentKey(const wchar_t* path) {
  win::UniqueRegKey key;
  RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS | win::kAgentRegistryView, nullptr,
                  key.put(), nullptr);
  return key;
}

}  // namespace korva::test

#include "settings/log.h"

namespace korva::test {

LogCapture::LogCapture(int maxSeverity) : path_(dir_.File(L"korva_agentservice.log")) {
  log::InitializeServiceLogger(path_, maxSeverity);
}

LogCapture::~LogCapture() { log::ShutdownServiceLogger(); }

std::string LogCapture::Text() {
  log::ShutdownServiceLogger();
  return ReadFileBytes(path_);
}

bool HasLogLineStartingWith(const std::string& text, const std::string& function, const std::string& prefix) {
  return text.find("] [ " + function + " ] " + prefix) != std::string::npos;
}

bool HasLogLine(const std::string& text, const std::string& function, const std::string& message) {
  const std::string needle = "] [ " + function + " ] " + message + "\r\n";
  return text.find(needle) != std::string::npos;
}

}  // namespace korva::test

#include <thread>

#include "win/unique_handle.h"

namespace korva::test {

ProgramResult RunProgram(const std::wstring& commandLine, unsigned long timeoutMs) {
  ProgramResult result;
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  win::UniqueHandle readEnd;
  win::UniqueHandle writeEnd;
  if (!CreatePipe(readEnd.put(), writeEnd.put(), &inherit, 0)) return result;
  SetHandleInformation(readEnd.get(), HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = writeEnd.get();
  startup.hStdError = writeEnd.get();
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  PROCESS_INFORMATION info{};
  std::wstring mutableLine = commandLine;
  if (!CreateProcessW(nullptr, mutableLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info)) {
    return result;
  }
  const win::UniqueHandle process(info.hProcess);
  const win::UniqueHandle thread(info.hThread);
  writeEnd.reset();
  // Drain the pipe on a thread so a chatty child can never block on a full pipe.
  std::thread reader([&] {
    char buffer[4096];
    DWORD n = 0;
    while (ReadFile(readEnd.get(), buffer, sizeof buffer, &n, nullptr) && n > 0) result.output.append(buffer, n);
  });
  result.finished = WaitForSingleObject(process.get(), timeoutMs) == WAIT_OBJECT_0;
  if (!result.finished) TerminateProcess(process.get(), 258);
  WaitForSingleObject(process.get(), 5000);
  reader.join();
  DWORD code = 0;
  GetExitCodeProcess(process.get(), &code);
  result.exitCode = code;
  return result;
}

}  // namespace korva::test

namespace korva::test {

void SetLogLevel(const char* valueName, unsigned long level) {
  HKEY key = nullptr;
  if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Wow6432Node\\Kestrelix\\Tallowmere\\KorvaAgent\\LogLevel", 0,
                      nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_64KEY, nullptr, &key, nullptr) != ERROR_SUCCESS) {
    return;
  }
  const DWORD value = level;
  RegSetValueExA(key, valueName, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
  RegCloseKey(key);
}

}  // namespace korva::test

namespace korva::test {

StandInFolder::StandInFolder(std::wstring folder) : folder_(std::move(folder)) {}

std::wstring StandInFolder::Add(const std::wstring& name) const {
  const std::wstring target = folder_ + L"\\" + name + L".exe";
  CopyFileW((ProgramFolder() + L"\\korvaStandIn.exe").c_str(), target.c_str(), FALSE);
  return target;
}

void StandInFolder::SetBehaviour(const std::wstring& name, int exitCode, unsigned long sleepMs,
                                 const std::string& output) const {
  std::string text = "exit=" + std::to_string(exitCode) + "\nsleep=" + std::to_string(sleepMs) + "\n";
  if (!output.empty()) text += "stdout=" + output + "\n";
  WriteFileBytes(folder_ + L"\\" + name + L".behaviour", text);
}

std::vector<JournalEntry> StandInFolder::Journal() const {
  std::vector<JournalEntry> entries;
  std::istringstream lines(ReadFileBytes(folder_ + L"\\standin-journal.txt"));
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t tab = line.find('\t'); tab != std::string::npos; tab = line.find('\t', start)) {
      fields.push_back(line.substr(start, tab - start));
      start = tab + 1;
    }
    fields.push_back(line.substr(start));
    if (fields.size() != 6) continue;
    entries.push_back(JournalEntry{fields[0], fields[1], fields[2], std::stoul(fields[3]), fields[4],
                                   std::stoul(fields[5])});
  }
  return entries;
}

std::vector<JournalEntry> StandInFolder::WaitForJournal(std::size_t count, unsigned long timeoutMs) const {
  const ULONGLONG deadline = GetTickCount64() + timeoutMs;
  std::vector<JournalEntry> entries = Journal();
  while (entries.size() < count && GetTickCount64() < deadline) {
    Sleep(20);
    entries = Journal();
  }
  return entries;
}

void StandInFolder::ClearJournal() const { DeleteFileW((folder_ + L"\\standin-journal.txt").c_str()); }

}  // namespace korva::test

namespace korva::test {

void WriteQword(const char* key, const char* name, long long value) {
  HKEY handle = nullptr;
  if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, key, 0, nullptr, 0, KEY_ALL_ACCESS | win::kAgentRegistryView, nullptr,
                      &handle, nullptr) !=
      ERROR_SUCCESS) {
    return;
  }
  RegSetValueExA(handle, name, 0, REG_QWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
  RegCloseKey(handle);
}

long long ReadQword(const char* key, const char* name) {
  long long value = 0;
  DWORD size = sizeof value;
  DWORD type = 0;
  HKEY handle = nullptr;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key, 0, KEY_READ | win::kAgentRegistryView, &handle) != ERROR_SUCCESS) return 0;
  const LONG code = RegGetValueA(handle, nullptr, name, RRF_RT_QWORD, &type, &value, &size);
  RegCloseKey(handle);
  return code == ERROR_SUCCESS ? value : 0;
}

}  // namespace korva::test
