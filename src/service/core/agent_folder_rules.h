// The access list the agent's own folders carry, and which folders may be given it.
#pragma once

#include <string_view>

namespace korva::service {

// Owner Administrators; SYSTEM and Administrators full control, Users read and execute; protected
// (nothing inherited from the parent, which outside Program Files may let users create and append)
// and inherited by every subfolder and file.
inline constexpr const wchar_t* kAgentFolderSecurityDescriptor =
    L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

// Whether `folder` may be given that list: absolute on a drive ("X:\..."), not the drive's root,
// no NUL, no ".." step. UNC, relative and "\\?\" paths may not.
bool IsAgentFolderToSecure(std::wstring_view folder);

}  // namespace korva::service
