// System message texts for Win32 error codes, and the log lines that report a failed call.
#pragma once

#include <windows.h>

#include <string>

// The system's text for `code` on one line (empty when the system has none).
std::string GetErrorMsgForID(DWORD code);
// The usual report of a failed system call: "Error ID      :" and "Error Message :" lines.
void printErrorMsgForID(DWORD code);
// The same pair of lines for the WMI layer.
void DisplayErrorInfo(DWORD code);
