// Where the maker's decryption library is looked for.
#pragma once

#include <string>
#include <string_view>

namespace korva::tempaccess {

// "<folder of the running executable>\..\..\bin\ClientAuthHandler.dll": always a full path built
// from the executable's own folder, never a bare name the DLL search path could answer.
std::wstring DecryptionLibraryPath(std::wstring_view executablePath);

// Whether `path` is fully qualified on a drive of this machine: a drive letter, a colon and a
// backslash, and no NUL. Relative, drive-relative ("C:x"), UNC and "\\?\" paths are not.
bool IsFullyQualifiedLocalPath(std::wstring_view path);

}  // namespace korva::tempaccess
