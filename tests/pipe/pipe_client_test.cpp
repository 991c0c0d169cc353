// The pipe control channel against stand-in pipe servers, signed and unsigned the ways the client tells apart.
#include <windows.h>
#include <wincrypt.h>

#include "pipe/pipe_client.h"
#include "pipe/server_trust.h"
#include "support/agent_fixture.h"

namespace korva::test {
namespace {

// The test root as the only trusted root while a test runs.
class PipeClientTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    const std::string der = ReadFileBytes(ProgramFolder() + L"\\korva-test-root.cer");
    ASSERT_TRUE(CertAddEncodedCertificateToStore(roots_, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                                 static_cast<DWORD>(der.size()), CERT_STORE_ADD_REPLACE_EXISTING,
                                                 nullptr));
    pipe::SetTrustedRootsForTest(roots_);
  }
  void TearDown() override {
    pipe::SetTrustedRootsForTest(nullptr);
    CertCloseStore(roots_, 0);
    AgentTest::TearDown();
  }
  HCERTSTORE roots_ = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
};

TEST_F(PipeClientTest, OnlyAnIntactImageSignedForTheMakerUnderATrustedRootIsTrusted) {
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

// The stand-in pipe server `image` serving `messages`; its answers go to `answers`.
RunningProgram Server(const wchar_t* image, const std::wstring& answers, const std::wstring& messages) {
  return RunningProgram(ProgramFolder() + L"\\" + image, L"\"" + answers + L"\" " + messages);
}

// A trusted server gets SendControl's result per code (1060: not installed; 87 outside 128-255) and
// 13 for anything but four bytes; an unsigned one is hung up on unread. The client ends with the stop.
TEST_F(PipeClientTest, TrustedServersAreAnsweredPerMessageAndOthersAreHungUpOn) {
  const std::wstring answers = dir_.File(L"answers.txt");
  const RunningProgram signedServer = Server(
      L"pipeserver-signed.exe", answers, L"80000000 c1000000 0d0000 empty silent:300 0102030405 big 05000000 close");
  ASSERT_NE(signedServer.pid(), 0u);
  const win::UniqueHandle thread(CreateThread(nullptr, 0, PipeConnect, nullptr, 0, nullptr));
  ASSERT_EQ(WaitForSingleObject(signedServer.process(), 30000), WAIT_OBJECT_0);
  EXPECT_EQ(ReadFileBytes(answers), "80000000 1060 (4 bytes)\nc1000000 1060 (4 bytes)\n0d0000 13 (4 bytes)\n"
                                    "empty 13 (4 bytes)\n0102030405 13 (4 bytes)\nbig 13 (4 bytes)\n"
                                    "05000000 87 (4 bytes)\n");
  // The pipe is absent now: logged once, however often the client looks again.
  ASSERT_TRUE(WaitForLog("Unable to connect to the pipe with error code :2", 1, 15000));

  DeleteFileW(answers.c_str());
  const RunningProgram unsignedServer = Server(L"pipeserver.exe", answers, L"80000000");
  ASSERT_EQ(WaitForSingleObject(unsignedServer.process(), 30000), WAIT_OBJECT_0);
  EXPECT_EQ(ReadFileBytes(answers).rfind("80000000 error ", 0), 0u) << ReadFileBytes(answers);
  ASSERT_TRUE(SetEvent(ServiceStopEvent));
  EXPECT_EQ(WaitForSingleObject(thread.get(), 10000), WAIT_OBJECT_0);
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "Unable to connect to the pipe"), 1u);
  EXPECT_EQ(CountOf(log, "Control code received :"), 3u);
  EXPECT_LOG_LINES(log, {{"PipeConnect", "Connected to the pipe server [", LogLine::kPrefix},
                         {"SendControl", "Control code 5 is outside 128-255; refused."},
                         {"PipeConnect", "A message of 4096 bytes is not a control code; refused."},
                         {"PipeConnect", "The pipe server [", LogLine::kPrefix},
                         {"PipeConnect", "@@@ End of PipeConnect @@@"}});
  EXPECT_NE(log.find("is not trusted: WinVerifyTrust: 0x800B0100. Disconnecting."), std::string::npos);
}

}  // namespace
}  // namespace korva::test
