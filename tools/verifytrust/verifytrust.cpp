// Test tool: the agent's own trust check of a program image, as its pipe client makes it of a
// server (WinVerifyTrust, the chain to a root the machine trusts, the maker's organisation).
//   korvaVerifyTrust <image>   prints "trusted" or "untrusted: <reason>"; exit code 0 or 1
#include <cstdio>
#include <string>

#include "pipe/server_trust.h"

int wmain(int argc, wchar_t* argv[]) {
  if (argc != 2) {
    std::printf("usage: korvaVerifyTrust <image>\n");
    return 2;
  }
  const korva::pipe::TrustVerdict verdict = korva::pipe::VerifyServerImage(argv[1]);
  if (verdict.trusted) {
    std::printf("trusted\n");
    return 0;
  }
  std::printf("untrusted: %s\n", verdict.reason.c_str());
  return 1;
}
