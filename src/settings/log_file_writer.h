// The call that writes the log file's bytes: WriteFile, replaceable by tests that need a write to
// fail the way a full disk or another handle's byte-range lock makes it fail.
#pragma once

#include <windows.h>

namespace korva::log {

using LogFileWriter = BOOL(WINAPI*)(HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped);

// nullptr puts WriteFile back. Takes effect from the next write.
void SetLogFileWriterForTest(LogFileWriter writer) noexcept;

}  // namespace korva::log
