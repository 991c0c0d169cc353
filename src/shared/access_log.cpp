// The access log file: its place, its header and its rows.
#include "shared/access_log.h"

#include <windows.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "settings/agent_parameters.h"
#include "settings/log.h"
#include "settings/text_file.h"
#include "shared/agent_environment.h"
#include "shared/core/access_log_text.h"
#include "shared/held_file.h"
#include "shared/path_links.h"
#include "win/private_folder.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace korva {

bool CheckFileExists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::string AccessLogFilePath() {
  if (IsTESKSubProduct() != 0) {
    const AgentFolder base = AgentBaseFolder();
    if (Usable(base)) return accesslog::PathIn(base.path);
  }
  const AgentFolder install = AgentInstallFolder();
  return Usable(install) ? accesslog::PathIn(install.path) : std::string();
}

}  // namespace korva

namespace {

// The pause between the last tries before the process ends.
constexpr DWORD kFlushRetryMs = 100;

std::mutex g_accessLogMutex;  // one writer at a time, so held rows keep their place
// Rows that could not be written while the file was held or its folder could not be made: written
// before the next row, in their order. Bounded: rows beyond it are counted, and the count is logged.
korva::HeldText g_heldRows{std::size_t{64} * 1024};
bool g_failureTold = false;  // the current run of failures has its line in the log

// The "logs" folder of an agent folder that has none yet, made for SYSTEM and Administrators only.
void CreateLogsFolder(const std::string& path) {
  const std::size_t slash = path.find_last_of('\\');
  if (slash == std::string::npos) return;
  const std::wstring folder = korva::win::AnsiToWide(path.substr(0, slash));
  if (GetFileAttributesW(folder.c_str()) == INVALID_FILE_ATTRIBUTES)
    (void)korva::win::CreatePrivateFolder(folder.c_str());
}

// The file's size; none when it is not there, or (`absent` false then) could not be measured.
std::optional<ULONGLONG> FileSize(const std::string& path, bool* absent = nullptr) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) {
    const DWORD error = GetLastError();
    if (absent != nullptr) *absent = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
    return std::nullopt;
  }
  return (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

// Takes back what a failed append left in the file (a write that stopped part-way), so the rows it
// held are written once, whole, when they are written again; a file the append made goes again,
// so the next one starts with its header. False when the file could not be set back.
bool CutBack(const std::string& path, std::optional<ULONGLONG> before) {
  if (FileSize(path) == before) return true;
  if (!before) return DeleteFileA(path.c_str()) != FALSE;
  const korva::win::UniqueFileHandle file(CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER end{};
  end.QuadPart = static_cast<LONGLONG>(*before);
  return file && SetFilePointerEx(file.get(), end, nullptr, FILE_BEGIN) && SetEndOfFile(file.get());
}

// Appends `text` (a new file gets the header first), trying again a few times while another
// program holds the file. A failed append leaves the file as it found it; 0 or the errno.
int Append(const std::string& path, const std::string& text) {
  return korva::RetryWhileHeld(
      [&path, &text] {
        bool absent = false;
        const std::optional<ULONGLONG> before = FileSize(path, &absent);
        // Neither its size nor whether it is there: an append would not know whether the file
        // needs its header, and a failed one could not be taken back without deleting the file.
        if (!before && !absent) return EACCES;
        const std::string whole = before ? text : korva::accesslog::kHeader + text;
        const int result = korva::AppendText(path.c_str(), whole.c_str());
        if (result != 0 && !CutBack(path, before)) {
          KLOG_ERROR_AS("PrintAgentServiceAccessLog")
              << "The access log [" << path << "] keeps part of a failed write; those rows may appear twice.";
        }
        return result;
      },
      [](int result) { return result == EACCES; });
}

// Writes the held rows and then `row` (none: the held rows only); holds `row` when the file cannot
// be written. True when nothing is held any more. Called with the mutex held.
bool WriteRows(const std::string& path, const std::string& row) {
  constexpr const char* kName = "PrintAgentServiceAccessLog";
  if (g_heldRows.empty() && row.empty()) return true;
  // A link or folder a user may change, in the logs folder's place say, would send the rows
  // wherever that user likes: they are kept as for a held file until the path is the agent's own.
  const bool unsafe = !korva::FirstUnsafeStep(std::string_view(path)).empty();
  if (!unsafe) CreateLogsFolder(path);
  const int result = unsafe ? EACCES : Append(path, g_heldRows.text() + row);
  if (result == 0) {
    if (!g_heldRows.empty()) {
      KLOG_INFO_AS(kName) << "The " << g_heldRows.lines()
                          << " access-log rows kept while the file could not be written are in it now"
                          << (g_heldRows.dropped() != 0
                                  ? "; " + std::to_string(g_heldRows.dropped()) + " more were dropped."
                                  : ".");
    }
    g_heldRows.Clear();
    g_failureTold = false;
    return true;
  }
  g_heldRows.Hold(row);
  if (!g_failureTold) {
    KLOG_WARNING_AS(kName) << "The access log [" << path << "] cannot be written ("
                           << (unsafe ? std::string("it is reached through a link or folder users may change")
                                      : "errno " + std::to_string(result))
                           << "); its rows are kept until it can be.";
    g_failureTold = true;
  }
  return false;
}

}  // namespace

void PrintAgentServiceAccessLog(const std::string& name) {
  KLOG_SCOPE();
  korva::log::GuardedVoid("PrintAgentServiceAccessLog", [&name] {
    KLOG_INFO_AS("PrintAgentServiceAccessLog") << "Message :" << name;
    const std::string path = korva::AccessLogFilePath();
    // The time is read under the lock, so rows go in in the order of their times.
    const std::lock_guard<std::mutex> lock(g_accessLogMutex);
    SYSTEMTIME now{};
    GetLocalTime(&now);
    const std::string row = korva::accesslog::Row(korva::accesslog::Date(now.wDay, now.wMonth, now.wYear),
                                                  korva::accesslog::Time(now.wHour, now.wMinute, now.wSecond), name);
    if (!path.empty()) {
      (void)WriteRows(path, row);
      return;
    }
    // No folder of the agent's own for now (refused for a moment, or not set yet): the row waits
    // with the others for one.
    g_heldRows.Hold(row);
    if (!g_failureTold) {
      KLOG_WARNING_AS("PrintAgentServiceAccessLog")
          << "No folder of the agent's own for the access log; its rows are kept until there is one.";
      g_failureTold = true;
    }
  });
}

bool korva::FlushAccessLog(unsigned long waitMs) noexcept {
  return log::Guarded("FlushAccessLog", false, [waitMs] {
    const ULONGLONG deadline = GetTickCount64() + waitMs;
    const std::lock_guard<std::mutex> lock(g_accessLogMutex);
    for (;;) {
      if (g_heldRows.empty()) return true;
      const std::string path = AccessLogFilePath();
      if (!path.empty() && WriteRows(path, std::string())) return true;
      if (GetTickCount64() >= deadline) break;
      Sleep(kFlushRetryMs);
    }
    KLOG_ERROR_AS("FlushAccessLog") << g_heldRows.lines() + g_heldRows.dropped()
                                    << " access-log rows could not be written before the process ended.";
    return false;
  });
}
