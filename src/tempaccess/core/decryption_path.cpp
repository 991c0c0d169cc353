// Where the maker's decryption library is looked for.
#include "tempaccess/core/decryption_path.h"

namespace korva::tempaccess {

std::wstring DecryptionLibraryPath(std::wstring_view executablePath) {
  const std::size_t slash = executablePath.find_last_of(L"\\/");
  const std::wstring_view folder =
      slash == std::wstring_view::npos ? std::wstring_view() : executablePath.substr(0, slash);
  return std::wstring(folder) + L"\\..\\..\\bin\\ClientAuthHandler.dll";
}

bool IsFullyQualifiedLocalPath(std::wstring_view path) {
  if (path.size() < 3 || path.find(L'\0') != std::wstring_view::npos) return false;
  const wchar_t drive = path[0];
  const bool letter = (drive >= L'A' && drive <= L'Z') || (drive >= L'a' && drive <= L'z');
  return letter && path[1] == L':' && path[2] == L'\\';
}

}  // namespace korva::tempaccess
