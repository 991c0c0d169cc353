// The gate every helper program passes before it starts: it starts only from a local, absolute
// folder of the agent's own. A refusal is logged once per program for the life of the service
// (a device event that repeats must not flood the log), naming the program and the reason.
#pragma once

#include <windows.h>

#include <string_view>

#include "shared/agent_environment.h"

namespace korva::process {

// What a launcher returns when the gate refuses its program (ERROR_PATH_NOT_FOUND).
inline constexpr DWORD kRefusedPathCode = ERROR_PATH_NOT_FOUND;

// Whether `program` (its file name) may start from `folder`. When not, logs at error level, once
// per program: "<program> is not started: <the folder's name> \"<text>\" is refused: <reason>."
[[nodiscard]] bool FolderAllowsStart(const char* function, std::string_view program, const AgentFolder& folder);

// The launchers' own check just before CreateProcess*: the program's full path passes the folder
// rule, and so does the working folder when one is given, and neither is reached through a link or
// folder a user may change or replace (shared/path_links.h). Logs a refusal as above, once per program.
// A step of either that does not exist is no refusal: `missing` gets the error CreateProcess* gives
// for it (ERROR_DIRECTORY for the working folder, which it looks at first; ERROR_PATH_NOT_FOUND for
// a folder on the program's way; ERROR_FILE_NOT_FOUND for the program), else ERROR_SUCCESS. The
// launcher then fails its creation with that error without making it (process/creation_retry.h):
// nothing on the way beyond the missing step was judged, and a user who may add folders to its
// parent could put a tree of their own there before the start.
[[nodiscard]] bool PathAllowsStart(const char* function, std::string_view programPath, const char* workingDir,
                                   DWORD& missing);
[[nodiscard]] bool PathAllowsStart(const char* function, std::wstring_view programPath, const wchar_t* workingDir,
                                   DWORD& missing);

// Forgets which programs were refused, as at the start of a service run.
void ForgetRefusalsForTest();

}  // namespace korva::process
