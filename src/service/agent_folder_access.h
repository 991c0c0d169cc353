// The agent's base and installation folders get an access list of their own: outside Program
// Files a folder would otherwise inherit what its parent allows (users may create and append in
// a drive's root).
#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "win/unique_handle.h"

namespace korva {

enum class FolderAccess { kApplied, kAlreadySet, kSkipped, kFailed };

// The agent folders' owner and protected DACL (service::kAgentFolderSecurityDescriptor); empty
// when it cannot be built, its error then the last one.
win::UniqueLocalMemory AgentFolderSecurityDescriptor();

// Whether `current` has the owner of `wanted` and its protected DACL, entry for entry.
bool HasAgentFolderAccess(PSECURITY_DESCRIPTOR current, PSECURITY_DESCRIPTOR wanted);

// Gives `folder` (the registry value `valueName`) the agent folders' access list, which reaches
// its existing subfolders and files too, unless it has it already; then its logs and data
// subfolders, where they exist, the list without Users (service::kAgentPrivateSubfolders). A
// folder that lies in such a subfolder of `otherFolder` (the other agent folder) gets the list
// without Users itself. A folder that is not a full local folder is logged and left alone
// (kSkipped); a failed read or write, a link or file in the folder's or a subfolder's place, or a
// folder reached through a link or folder a user may change or replace (shared/path_links.h), is
// logged (kFailed). Each folder is judged, read and set through one handle of its own, so a folder
// swapped for a link after a check by name is refused, never followed.
FolderAccess SecureAgentFolder(const char* valueName, const std::string& folder, const std::string& otherFolder = {});

// SecureAgentFolder for "BasePath" and for "AgentInstallDir" (AgentInstallDirGlobal); false when
// either failed. Called by /i and at every start, so a folder made by the installer gets the list.
[[nodiscard]] bool SecureAgentFolders();

// Runs `step` with the path of each folder SecureAgentFolder is about to open to set its list, after
// every judgement by name: a test puts there the swap a user would race in, which it cannot time.
// An empty `step` runs nothing.
void SetBeforeAgentFolderOpensForTest(std::function<void(const std::wstring&)> step);

}  // namespace korva
