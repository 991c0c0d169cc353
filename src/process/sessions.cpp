// Finding the interactive session, its processes, its user and a token that belongs to it.
#include "process/sessions.h"

#include <tlhelp32.h>
#include <wtsapi32.h>

#include <vector>

#include "process/core/session_choice.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/machine_details.h"
#include "win/procedure.h"
#include "win/process_walk.h"
#include "win/unique_handle.h"

namespace {

using korva::process::SessionEntry;
using ProcessWalkStep = korva::win::ProcessWalkFailure::Step;

// A failed process walk: the step's own sentence, followed by the error number.
void LogWalkFailure(const char* function, const std::optional<korva::win::ProcessWalkFailure>& failure,
                    const char* snapshotText, const char* firstEntryText) {
  if (!failure) return;
  KLOG_ERROR_AS(function) << (failure->step == ProcessWalkStep::kSnapshot ? snapshotText : firstEntryText)
                          << failure->error;
}

constexpr DWORD kMaximumAllowed = 0x2000000;  // MAXIMUM_ALLOWED
constexpr DWORD kTokenAllAccess = 0xF01FF;    // TOKEN_ALL_ACCESS

bool SameExecutableName(const wchar_t* a, const wchar_t* b) {
  // File names compare as the file system does: ordinal, without regard to case.
  return CompareStringOrdinal(a, -1, b, -1, TRUE) == CSTR_EQUAL;
}

// The user name of `sessionId`; empty when the session has none or the query fails (a line of
// `function`'s).
std::wstring SessionUserName(DWORD sessionId, const char* function = "GetCurrentlyLoggedOnUser") {
  wchar_t* name = nullptr;
  DWORD bytes = 0;
  if (!WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, sessionId, WTSUserName, &name, &bytes)) {
    const DWORD error = GetLastError();
    KLOG_ERROR_AS(function) << "WTSQuerySessionInformationW failed for session " << sessionId
                            << " with error :" << error;
    return {};
  }
  const korva::win::UniqueWtsMemory owner(name);
  return name != nullptr ? std::wstring(name) : std::wstring();
}

// The local server's sessions; false (error in `*error`) when the list cannot be had.
[[nodiscard]] bool EnumerateSessions(std::vector<SessionEntry>& out, DWORD* error) {
  WTS_SESSION_INFOW* list = nullptr;
  DWORD count = 0;
  if (!WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &list, &count)) {
    *error = GetLastError();
    return false;
  }
  const korva::win::UniqueWtsMemory owner(list);
  out.clear();
  for (DWORD i = 0; list != nullptr && i < count; ++i) {
    out.push_back(SessionEntry{list[i].SessionId, static_cast<int>(list[i].State), std::wstring()});
  }
  return true;
}

}  // namespace

DWORD GetActiveConsoleSessionId() {
  return korva::log::ScopedGuarded(__func__, DWORD{0}, [] {
    using ConsoleSessionFn = DWORD(WINAPI*)();
    // Looked up at run time: systems older than XP lack it, and session 0 is their console.
    // kernel32 is mapped into every process: taken, not loaded, so no DLL search is involved.
    const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    const auto function = korva::win::LookUpProcedure<ConsoleSessionFn>(kernel, "WTSGetActiveConsoleSessionId");
    if (function == nullptr) {
      // The system's own line, ".lib" included.
      KLOG_ERROR_AS("GetActiveConsoleSessionId") << "WTSGetActiveConsoleSessionId Function not present in Kernel32.lib";
      return DWORD{0};
    }
    const DWORD session = function();
    KLOG_DEBUG_AS("GetActiveConsoleSessionId") << "WTSGetActiveConsoleSessionId :" << session;
    return session;
  });
}

DWORD GetActiveTerminalSessionId() {
  KLOG_SCOPE();
  const DWORD console = GetActiveConsoleSessionId();
  return korva::log::Guarded(__func__, console, [&] {
    std::vector<SessionEntry> sessions;
    DWORD error = 0;
    if (!EnumerateSessions(sessions, &error)) {
      // The two blanks before the colon are the system's own.
      KLOG_ERROR_AS("GetActiveTerminalSessionId")
          << "Unable to find the sessions present in the machine, with error code  :" << error;
      // Windows 2000 without terminal services has no session list, only its console session.
      if (korva::process::IsWindows2000(korva::GetOsName())) return console;
    }
    for (const SessionEntry& session : sessions) {
      KLOG_DEBUG_AS("GetActiveTerminalSessionId") << "The State of the Session is given by" << session.state;
      if (session.state == korva::process::kActiveSessionState) {
        KLOG_INFO_AS("GetActiveTerminalSessionId") << "SessionId :" << session.id;
      } else {
        KLOG_DEBUG_AS("GetActiveTerminalSessionId")
            << "The detected session is dummy Session & its value :" << session.id;
      }
    }
    return static_cast<DWORD>(korva::process::LastActiveSession(sessions, console));
  });
}

DWORD GetProcessID(const wchar_t* processName, DWORD sessionId) {
  return korva::log::ScopedGuarded(__func__, DWORD{0}, [&] {
    if (processName == nullptr) return DWORD{0};
    DWORD found = 0;
    const auto failure = korva::win::WalkProcesses([&](const PROCESSENTRY32W& entry) {
      if (!SameExecutableName(entry.szExeFile, processName)) return false;
      DWORD processSession = 0;
      if (!ProcessIdToSessionId(entry.th32ProcessID, &processSession)) return false;  // it has just ended
      KLOG_DEBUG_AS("GetProcessID") << "Retrieved Session ID : " << processSession;
      KLOG_DEBUG_AS("GetProcessID") << "Compare Session ID : " << sessionId;
      if (processSession != sessionId) return false;
      KLOG_DEBUG_AS("GetProcessID") << "Process ID for" << processName << " : " << entry.th32ProcessID;
      found = entry.th32ProcessID;
      return true;
    });
    LogWalkFailure("GetProcessID", failure, "CreateToolhelp32Snapshot is failed due to the following error code : ",
                   "Process32First function failed : ");
    return found;
  });
}

bool GetProcessToken(DWORD sessionId, HANDLE* token) {
  return korva::log::ScopedGuarded(__func__, false, [&] {
    if (token == nullptr) return false;
    *token = nullptr;
    const DWORD pid = GetProcessID(L"winlogon.exe", sessionId);
    // With no winlogon.exe the id is 0, which OpenProcess refuses: that failure is the report.
    const korva::win::UniqueHandle process(OpenProcess(kMaximumAllowed, FALSE, pid));
    if (!process) {
      const DWORD error = GetLastError();
      korva::LogFailedCall("GetProcessToken", error, "OpenProcess Failed with error :", error);
      return false;
    }
    korva::win::UniqueHandle owned;
    if (!OpenProcessToken(process.get(), kTokenAllAccess, owned.put())) {
      const DWORD error = GetLastError();
      korva::LogFailedCall("GetProcessToken", error, "OpenProcessToken Failed with error :", error);
      return false;
    }
    KLOG_INFO_AS("GetProcessToken") << "The Process token for the process winlogon.exe (" << pid << ") is given by"
                                    << static_cast<const void*>(owned.get());
    *token = owned.release();
    return true;
  });
}

std::wstring GetCurrentlyLoggedOnUser() {
  return korva::log::ScopedGuarded(__func__, std::wstring(), [] {
    if (!IsUserLoggedOn()) return std::wstring();
    const std::wstring consoleUser = SessionUserName(GetActiveConsoleSessionId());
    std::vector<SessionEntry> sessions;
    DWORD error = 0;
    if (EnumerateSessions(sessions, &error)) {
      for (SessionEntry& session : sessions) {
        if (session.state == korva::process::kActiveSessionState) session.user = SessionUserName(session.id);
      }
    } else {
      // The same line as GetActiveTerminalSessionId's, its two blanks included.
      KLOG_ERROR_AS("GetCurrentlyLoggedOnUser")
          << "Unable to find the sessions present in the machine, with error code  :" << error;
    }
    std::wstring user = korva::process::ChooseLoggedOnUser(consoleUser, sessions);
    KLOG_DEBUG_AS("GetCurrentlyLoggedOnUser") << "Logged on user : " << user;
    return user;
  });
}

std::wstring GetSessionUserName(DWORD sessionId, const char* function) {
  return korva::log::Guarded(function, std::wstring(), [&] { return SessionUserName(sessionId, function); });
}

bool IsExplorerPresent() {
  // The entry and exit lines spell the name "IsExplorePresent": the system's own misspelling, kept
  // deliberately.
  const korva::log::Scope scope("IsExplorerPresent", "@@@ Inside IsExplorePresent @@@",
                                "@@@ End of IsExplorePresent @@@");
  return korva::log::Guarded(__func__, false, [] {
    bool present = false;
    const auto failure = korva::win::WalkProcesses([&](const PROCESSENTRY32W& entry) {
      present = SameExecutableName(entry.szExeFile, L"explorer.exe");
      return present;
    });
    LogWalkFailure("IsExplorerPresent", failure, "CreateToolhelp32Snapshot is failed due to the following error :",
                   "Process32First is failed due to the following error :");
    return present;
  });
}

bool IsUserLoggedOn() {
  return korva::log::ScopedGuarded(__func__, false, [] {
    // A user's shell runs in the console session only while someone is logged on there.
    const bool loggedOn = GetProcessID(L"explorer.exe", GetActiveConsoleSessionId()) != 0;
    KLOG_DEBUG_AS("IsUserLoggedOn") << "User logged on : " << loggedOn;
    return loggedOn;
  });
}
