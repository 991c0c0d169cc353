// Process-wide facts about the agent's installation and the system it runs on, shared by every
// subsystem. Each is written by initialize(), which the entry point runs on the main thread before
// the service dispatcher starts and ServiceMain runs again at its start (with the same answers),
// except where a line below says otherwise; readers never lock.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

#include "shared/core/agent_folders.h"

// The agent's installation folder (registry "AgentInstallDir"). Written by initialize().
extern std::string AgentInstallDirGlobal;
// <AgentInstallDirGlobal>\bin\korvaConfig.exe. Written by the entry point after initialize().
extern std::wstring ConfigProgramPath;
// IsWow64Process's answer for this process (0 when the call is unavailable): 1 only for the
// 32-bit build on 64-bit Windows. Written by initialize(), and again by the action program's
// launcher (ExecuteDeviceApplication) on the thread that launches, with the same answer: atomic, as
// launches run on several threads.
extern std::atomic<BOOL> IsWow64Flag;

using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);
using AttachConsoleFn = BOOL(WINAPI*)(DWORD);
// Resolved from kernel32 at run time by InitiateWow64, which a launch may call on any thread;
// either may stay null.
extern std::atomic<IsWow64ProcessFn> IsWow64ProcessEntry;
extern std::atomic<AttachConsoleFn> AttachConsoleEntry;

// Looks up IsWow64ProcessEntry and AttachConsoleEntry in kernel32.
void InitiateWow64();
// Fills the installation folder (when still empty) and the WOW64 answer, and logs both.
void initialize();

namespace korva {

// One of the agent's folders, read through its accessor below. `path` is the folder's text when it
// passes the folder rule (shared/core/agent_folders.h) and no step of it is a link or folder a
// user may change or replace (shared/path_links.h), and empty otherwise; `fault` says why not.
struct AgentFolder {
  const char* name = "";  // how the log names it: "the installation folder", ...
  std::string text;       // what the source holds, for the log line of a refusal
  std::string path;       // usable folder, or empty
  folders::FolderFault fault = folders::FolderFault::kEmpty;
};

// Whether the folder passed the folder rule.
[[nodiscard]] inline bool Usable(const AgentFolder& folder) noexcept {
  return folder.fault == folders::FolderFault::kNone;
}

// The device-control installation folder (the settings file's agent_installed_dir with
// "DeviceControl\" after it, so it ends in a backslash): the action, summary, filter setup, filter
// attach, file-shadow, filter user-mode and tray programs start from its "bin" folder. Usable only
// when it is, or lies inside, a usable AgentInstallDir or BasePath.
AgentFolder DeviceControlFolder();
// The agent's installation folder (registry "AgentInstallDir", AgentInstallDirGlobal): the
// configuration and on-demand programs start from its "bin" folder; the access log of an agent
// that is not a sub-product lives in its "logs" folder.
AgentFolder AgentInstallFolder();
// The agent's data root (registry "BasePath", read anew on each call): the log, the policy and grant
// files under "data\policy", the power history, and a sub-product's access log.
AgentFolder AgentBaseFolder();
// The folder of the running executable (inside the protected installation): where the log goes
// when BasePath is not usable.
AgentFolder ExecutableFolder();

}  // namespace korva
