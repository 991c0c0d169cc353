// The decryption library interface: the maker's closed "ClientAuthHandler.dll", which deciphers
// the grant file.
#pragma once

#include <string>

namespace AgentUtil {

class ClientAuthHandlerUtil {
 public:
  // Deciphers `cipher` into `plain`. False, with `plain` empty and the reason logged, when the
  // library's path (from the executable's) is not fully qualified or not in a folder of the
  // agent's own, the library, a DLL it imports or its export is missing, or the library refuses
  // the text, or does not return within 10 s (or has not returned from an earlier call).
  static bool aes256Decrypt(const std::string& cipher, std::string& plain);
};

}  // namespace AgentUtil

namespace korva {
// Test seam: the executable path the library's folder is resolved against (empty: this process's).
void SetDecryptionExecutablePathForTest(const std::wstring& path);
// Test seam: how long a call may take before it counts as failed (0: the shipped 10 s).
void SetDecryptionTimeLimitForTest(unsigned long milliseconds);
}  // namespace korva
