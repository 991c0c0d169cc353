// The decryption library interface: the maker's closed "ClientAuthHandler.dll", which deciphers
// the grant file.
#pragma once

#include <string>

namespace AgentUtil {

class ClientAuthHandlerUtil {
 public:
  // Deciphers `cipher` into `plain`. False, with `plain` empty and the reason logged, when the
  // library's path (from the executable's) is not fully qualified, the library, a DLL it imports
  // or its export is missing, or the library refuses the text.
  static bool aes256Decrypt(const std::string& cipher, std::string& plain);
};

}  // namespace AgentUtil

namespace korva {
// Test seam: the executable path the library's folder is resolved against (empty: this process's).
void SetDecryptionExecutablePathForTest(const std::wstring& path);
}  // namespace korva
