// The access lists the agent's own folders carry; which folders get them is the folder rule of
// shared/core/agent_folders.h.
#pragma once

namespace korva::service {

// Owner Administrators; SYSTEM and Administrators full control, Users read and execute; protected
// (nothing inherited from the parent, which outside Program Files may let users create and append)
// and inherited by every subfolder and file.
inline constexpr const wchar_t* kAgentFolderSecurityDescriptor =
    L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

// The subfolders of each agent folder that get the list without Users (win/private_folder.h) when
// they exist: the logs (the service log and the access log) and the data (the policies, the
// temporary-access grants, the power history). Nothing the agent starts reads them as a user: its
// helper programs run with the service's own token or winlogon's.
inline constexpr const wchar_t* kAgentPrivateSubfolders[] = {L"logs", L"data"};

}  // namespace korva::service
