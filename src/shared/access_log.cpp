// The access log file: its place, its header and its rows.
#include "shared/access_log.h"

#include <windows.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "settings/agent_parameters.h"
#include "settings/log.h"
#include "settings/text_file.h"
#include "shared/agent_environment.h"
#include "shared/core/access_log_text.h"
#include "win/private_folder.h"
#include "win/strings.h"

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

// Rows that could not be written while the file was held or its folder could not be made: written
// before the next row, in their order. Bounded: rows beyond it are counted, and the count is logged.
constexpr std::size_t kMaxHeldBytes = std::size_t{64} * 1024;
// A reader that opens the file without sharing writes holds it for a moment: a few short retries
// before a row is held.
constexpr int kOpenAttempts = 4;
constexpr DWORD kOpenRetryMs = 25;

std::mutex g_accessLogMutex;  // one writer at a time, so held rows keep their place
std::string g_heldRows;
std::size_t g_droppedRows = 0;
bool g_failureTold = false;  // the current run of failures has its line in the log

// The "logs" folder of an agent folder that has none yet, made for SYSTEM and Administrators only.
void CreateLogsFolder(const std::string& path) {
  const std::size_t slash = path.find_last_of('\\');
  if (slash == std::string::npos) return;
  const std::wstring folder = korva::win::AnsiToWide(path.substr(0, slash));
  if (GetFileAttributesW(folder.c_str()) == INVALID_FILE_ATTRIBUTES) (void)korva::win::CreatePrivateFolder(folder.c_str());
}

int AppendWithRetries(const std::string& path, const std::string& text) {
  int result = 0;
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    if (attempt > 0) Sleep(kOpenRetryMs);
    result = korva::AppendText(path.c_str(), text.c_str());
    if (result != EACCES) break;
  }
  return result;
}

// Writes `row` after the rows held before it (the header first into a new file); holds it when the
// file cannot be written. Called with the mutex held.
void WriteRow(const std::string& path, const std::string& row) {
  constexpr const char* kName = "PrintAgentServiceAccessLog";
  CreateLogsFolder(path);
  std::string text = korva::CheckFileExists(path) ? std::string() : std::string(korva::accesslog::kHeader);
  text += g_heldRows;
  text += row;
  const int result = AppendWithRetries(path, text);
  if (result == 0) {
    if (!g_heldRows.empty() || g_droppedRows != 0) {
      KLOG_INFO_AS(kName) << "The access-log rows kept while the file could not be written are in it now"
                          << (g_droppedRows != 0 ? "; " + std::to_string(g_droppedRows) + " more were dropped." : ".");
    }
    std::string().swap(g_heldRows);
    g_droppedRows = 0;
    g_failureTold = false;
    return;
  }
  if (g_heldRows.size() + row.size() <= kMaxHeldBytes) {
    g_heldRows += row;
  } else {
    ++g_droppedRows;
  }
  if (!g_failureTold) {
    KLOG_WARNING_AS(kName) << "The access log [" << path << "] cannot be written (errno " << result
                           << "); its rows are kept until it can be.";
    g_failureTold = true;
  }
}

}  // namespace

void PrintAgentServiceAccessLog(const std::string& name) {
  KLOG_SCOPE();
  korva::log::GuardedVoid("PrintAgentServiceAccessLog", [&name] {
    KLOG_INFO_AS("PrintAgentServiceAccessLog") << "Message :" << name;
    const std::string path = korva::AccessLogFilePath();
    if (path.empty()) {
      KLOG_WARNING_AS("PrintAgentServiceAccessLog")
          << "No folder of the agent's own for the access log; row not written.";
      return;
    }
    SYSTEMTIME now{};
    GetLocalTime(&now);
    const std::string row = korva::accesslog::Row(korva::accesslog::Date(now.wDay, now.wMonth, now.wYear),
                                                  korva::accesslog::Time(now.wHour, now.wMinute, now.wSecond), name);
    const std::lock_guard<std::mutex> lock(g_accessLogMutex);
    WriteRow(path, row);
  });
}
