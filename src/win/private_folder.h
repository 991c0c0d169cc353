// Folders and files only SYSTEM and Administrators may open: the agent's logs and data.
#pragma once

#include <windows.h>

namespace korva::win {

// Owner Administrators; SYSTEM and Administrators full control; protected and inherited by all
// inside. A user who can open a file can also hold it: an opportunistic lock stalls the agent's
// next open, rename or delete of it until the user lets go, a byte-range lock makes its writes
// fail, and an open without delete sharing stops the log from rolling.
inline constexpr const wchar_t* kPrivateFolderSecurityDescriptor = L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

// The same for a file the agent makes in such a folder: its own list, not inherited, so a file
// made there while the folder still carries an inherited list is never open to users either.
inline constexpr const wchar_t* kPrivateFileSecurityDescriptor = L"O:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";

// CreateDirectoryW with that list, so a folder the agent makes while it runs is never open to
// users until the next start secures it. Its result and last error are CreateDirectoryW's; when the
// list cannot be built, the folder is not made (FALSE, the conversion's error).
BOOL CreatePrivateFolder(const wchar_t* path);

// CreateFileW that gives a file it makes the private file list (one that is there keeps its own).
// Its result and last error are CreateFileW's; when the list cannot be built, nothing is opened
// (INVALID_HANDLE_VALUE, the conversion's error).
HANDLE CreatePrivateFile(const wchar_t* path, DWORD access, DWORD share, DWORD disposition, DWORD flags);

}  // namespace korva::win
