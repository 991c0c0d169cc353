// Where the maker's decryption library is looked for.
#pragma once

#include <string>
#include <string_view>

namespace korva::tempaccess {

// "<folder of the running executable>\..\..\bin\ClientAuthHandler.dll": always a full path built
// from the executable's own folder, never a bare name the DLL search path could answer.
std::wstring DecryptionLibraryPath(std::wstring_view executablePath);

}  // namespace korva::tempaccess
