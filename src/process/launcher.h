// The launchers of the helper programs: in the service's own identity or in a user's session, with
// or without a window, with a time limit in minutes. Every launch is refused once the machine is
// shutting down (1237, ERROR_RETRY), and when its program or working folder is not in a folder of
// the agent's own (3, ERROR_PATH_NOT_FOUND; see process/launch_gate.h). One whose program or
// working folder has a step that does not exist is not created: it fails with the error its
// creation gives for that step. Remarks handed back through `remarks` are narrow heap blocks the
// caller owns (win::UniqueMallocText<char>); a null `remarks` asks for none. They are set on a refusal, on a failed
// creation and after a wait (the system text of the result); a launch that does not wait leaves `*remarks` as it was.
// An exception inside a launcher gives 574.
#pragma once

#include <windows.h>

#include "process/core/launch_text.h"  // korva::process::kNoWait
#include "win/unique_handle.h"

// The service's own identity, no window. waitMinutes 0 (korva::process::kNoWait): return 0 once
// the child has started. Otherwise wait waitMinutes x 60000 ms: the child's exit code, or 258
// after terminating it.
[[nodiscard]] DWORD executeFile(const char* workingDir, const char* commandLine, char** remarks, DWORD waitMinutes);
// As executeFile in a new process group; never waits. 0 when started, else the Win32 error.
[[nodiscard]] DWORD executeInfo(const char* workingDir, const char* commandLine, char** remarks);
// Narrow form: `application` with `arguments` in a new console, the service's own identity.
// The child's command line is the argument text alone (the application is named apart); the
// shutdown-refusal and time-out lines name the launch by the quoted application path and the
// arguments.
// Waits as executeFile (0 minutes: no wait); result 0 when started (and, when waited for, the exit
// code or 258), else the Win32 error.
[[nodiscard]] DWORD ExecuteAppWithArgs(const char* application, const char* workingDir, const char* arguments,
                                       DWORD waitMinutes);
// Wide form, same contract; a null `arguments` is logged as "(null)".
[[nodiscard]] DWORD ExecuteAppWithArgs(const wchar_t* workingDir, const wchar_t* application, const wchar_t* arguments,
                                       DWORD waitMinutes);
namespace korva::process {
// The narrow ExecuteAppWithArgs without a wait (the same checks, lines and result) that hands the
// started child's process handle to `process` (left empty when nothing started).
[[nodiscard]] DWORD StartApplicationKeepingProcess(const char* application, const char* workingDir,
                                                   const char* arguments, korva::win::UniqueHandle& process);
}  // namespace korva::process
// With the given user token on "winsta0\default", a new console, the user's environment, in
// `workingDir` (the service's own current directory is left alone). Waits as executeFile.
[[nodiscard]] DWORD ExecuteWithToken(HANDLE token, const char* commandLine, const char* workingDir, char** remarks,
                                     DWORD waitMinutes);
// With the token of "winlogon.exe" in `sessionId`; "Unable to get the Process token." and 1008
// (ERROR_NO_TOKEN) when there is none.
[[nodiscard]] DWORD ExecuteInSession(DWORD sessionId, const char* commandLine, const char* workingDir, char** remarks,
                                     DWORD waitMinutes);
// ExecuteInSession for the active console session.
[[nodiscard]] DWORD ExecuteInSystemSession(const char* commandLine, const char* workingDir, char** remarks,
                                           DWORD waitMinutes);
// The same for programs with a user interface; also logs the session's user name.
[[nodiscard]] DWORD ExecuteUIApplicationInSystemSession(const char* commandLine, const char* workingDir, char** remarks,
                                                        DWORD waitMinutes);
// The service's own identity, no window, standard output and standard error captured (read while
// the child runs, the first 64 KiB kept, a line counting the rest), written to the log line by line and handed back:
// `*outputObtained` tells whether any came, `*output` (may be null) gets a heap copy (free()).
// Waits as executeFile (0 minutes: no wait, no output). Result: the exit code, 258, or the Win32 error.
[[nodiscard]] DWORD ExecuteAndPrintMessage(const char* workingDir, const char* commandLine, DWORD waitMinutes,
                                           BOOL* outputObtained, char** output);
