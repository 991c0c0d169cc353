// The environment of the programs the agent starts. They run as LocalSystem, and Windows looks for
// the DLLs a program loads in the folders of its PATH, after its own folder and the system's: a
// PATH folder that users may write (a tool installed at a drive's root, a folder of a user's own
// added to the machine's PATH) would run their DLL as LocalSystem. The programs get the environment
// they always had, but for PATH, which keeps only the folders no user may change.
#pragma once

#include <windows.h>

#include <string>

namespace korva::process {

// `source` (an environment block, as CreateEnvironmentBlock makes it; the service's own when null)
// with PATH keeping only the folders that pass the agent's folder rule (local, absolute, fully
// qualified, no drive's root), exist, and are reached through no link and no step a user may
// change or replace, the folder itself included (shared/path_links.h); the others are left out in
// their order, each logged once for the life of the service as `function`: "The folder [<folder>]
// is left out of the PATH of the programs the agent starts: <reason>.". For CreateProcess* with
// CREATE_UNICODE_ENVIRONMENT. Throws std::bad_alloc, or std::runtime_error when the service's own
// environment cannot be had: the launch then fails, rather than hand on a PATH nobody judged.
class ChildEnvironment {
 public:
  ChildEnvironment(const char* function, const void* source);
  [[nodiscard]] LPVOID get() noexcept { return block_.data(); }

 private:
  std::wstring block_;
};

// Forgets which folders were logged as left out, as at the start of a service run.
void ForgetLeftOutPathFoldersForTest();

}  // namespace korva::process
