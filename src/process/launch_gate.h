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
[[nodiscard]] bool PathAllowsStart(const char* function, std::string_view programPath, const char* workingDir);
[[nodiscard]] bool PathAllowsStart(const char* function, std::wstring_view programPath, const wchar_t* workingDir);

// Forgets which programs were refused, as at the start of a service run.
void ForgetRefusalsForTest();

}  // namespace korva::process
