// The access list the agent's own folders carry; which folders get it is the folder rule of
// shared/core/agent_folders.h.
#pragma once

namespace korva::service {

// Owner Administrators; SYSTEM and Administrators full control, Users read and execute; protected
// (nothing inherited from the parent, which outside Program Files may let users create and append)
// and inherited by every subfolder and file.
inline constexpr const wchar_t* kAgentFolderSecurityDescriptor =
    L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

}  // namespace korva::service
