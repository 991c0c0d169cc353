// The pipe control channel against the stand-in pipe server, unsigned and signed the ways the
// client must tell apart; the test root is trusted in the prefix's machine root store meanwhile.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include "pipe/pipe_client.h"
#include "pipe/server_trust.h"
#include "support/agent_fixture.h"

namespace korva::test {
namespace {

// The test root as the only trusted root for the object's lifetime.
class TrustedTestRoot {
 public:
  TrustedTestRoot() : store_(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr)) {
    const std::string der = ReadFileBytes(ProgramFolder() + L"\\korva-test-root.cer");
    ok_ = store_ != nullptr && CertAddEncodedCertificateToStore(store_, X509_ASN_ENCODING,
                                                                reinterpret_cast<const BYTE*>(der.data()),
                                                                static_cast<DWORD>(der.size()),
                                                                CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
    pipe::SetTrustedRootsForTest(store_);
  }
  TrustedTestRoot(const TrustedTestRoot&) = delete;
  ~TrustedTestRoot() {
    pipe::SetTrustedRootsForTest(nullptr);
    if (store_ != nullptr) CertCloseStore(store_, 0);
  }
  bool ok() const { return ok_; }

 private:
  HCERTSTORE store_;
  bool ok_ = false;
};

TEST(ServerTrust, OnlyAnIntactImageSignedForTheMakerUnderATrustedRootIsTrusted) {
  const TrustedTestRoot root;
  ASSERT_TRUE(root.ok());
  const struct {
    const wchar_t* image;
    const char* reason;  // empty: trusted
  } cases[] = {{L"pipeserver-signed.exe", ""},
               {L"pipeserver.exe", "WinVerifyTrust: 0x800B0100"},
               {L"pipeserver-tampered.exe", "WinVerifyTrust: 0x80096010"},
               {L"pipeserver-untrusted.exe", "untrusted root"},
               {L"pipeserver-foreign.exe", "signed by another organisation (\"Other Corp\")"}};
  for (const auto& c : cases) {
    const pipe::TrustVerdict verdict = pipe::VerifyServerImage(ProgramFolder() + L"\\" + c.image);
    EXPECT_EQ(verdict.trusted, std::string(c.reason).empty()) << c.reason;
    EXPECT_NE(verdict.reason.find(c.reason), std::string::npos) << verdict.reason;
  }
}

}  // namespace
}  // namespace korva::test
