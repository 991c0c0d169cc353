// Where the maker's decryption library is looked for.
#include "tempaccess/core/decryption_path.h"

namespace korva::tempaccess {

std::wstring DecryptionLibraryPath(std::wstring_view executablePath) {
  const std::size_t slash = executablePath.find_last_of(L"\\/");
  const std::wstring_view folder =
      slash == std::wstring_view::npos ? std::wstring_view() : executablePath.substr(0, slash);
  return std::wstring(folder) + L"\\..\\..\\bin\\ClientAuthHandler.dll";
}

}  // namespace korva::tempaccess
