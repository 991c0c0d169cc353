// System message texts for Win32 error codes, and the log lines that report a failed call.
#pragma once

#include <windows.h>

#include <string>

#include "settings/log.h"

// The system's text for `code` on one line (empty when the system has none).
std::string GetErrorMsgForID(DWORD code);
// The usual report of a failed system call: "Error ID      :" and "Error Message :" lines.
void printErrorMsgForID(DWORD code);
// The same pair of lines for the WMI layer.
void DisplayErrorInfo(DWORD code);

namespace korva {

// The usual report of a failed call: `sentence` (its parts streamed in order) at `severity`
// under `function`, then the "Error ID" and "Error Message" lines of `code`. Returns `code`.
// Without a sentence only those two lines are written.
template <typename... Parts>
DWORD LogFailedCallAt(int severity, const char* function, DWORD code, const Parts&... sentence) {
  if constexpr (sizeof...(Parts) > 0) {
    if (log::Enabled(severity)) {
      log::RecordStream record(severity, function);
      (record << ... << sentence);
    }
  }
  printErrorMsgForID(code);
  return code;
}

template <typename... Parts>
DWORD LogFailedCall(const char* function, DWORD code, const Parts&... sentence) {
  return LogFailedCallAt(log::kError, function, code, sentence...);
}

// The same for the error the failed call left on this thread. Call it straight after that call,
// with parts already computed, so nothing runs in between that could change the error.
template <typename... Parts>
DWORD LogLastError(const char* function, const Parts&... sentence) {
  return LogFailedCallAt(log::kError, function, GetLastError(), sentence...);
}

// The short form: the sentence and the system text of `code` on one error line (the sentence may
// carry the number itself). Returns `code`.
template <typename... Parts>
DWORD LogFailedCallInline(const char* function, DWORD code, const Parts&... sentence) {
  if (log::Enabled(log::kError)) {
    log::RecordStream record(log::kError, function);
    (record << ... << sentence) << GetErrorMsgForID(code);
  }
  return code;
}

// The short form for the error the failed call left on this thread.
inline DWORD LogLastErrorInline(const char* function, const char* sentence) {
  return LogFailedCallInline(function, GetLastError(), sentence);
}

}  // namespace korva
