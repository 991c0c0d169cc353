// The pipe control channel against stand-in pipe servers, signed and unsigned the ways the client tells apart.
#include <windows.h>
#include <sddl.h>
#include <wincrypt.h>

#include <optional>

#include "pipe/pipe_client.h"
#include "pipe/server_account.h"
#include "pipe/server_trust.h"
#include "support/agent_fixture.h"
#include "win/bitness.h"
#include "win/strings.h"

namespace korva::test {
namespace {

// Whether the stand-in server's pipe is there. Its start under a loaded machine (two Wine suites side
// by side) can take well over ten seconds; this waits for the server, it judges nothing of the agent.
bool ServerPipeUp() {
  return WaitUntil([] { return WaitNamedPipeW(L"\\\\.\\pipe\\qvpservice", 100) != FALSE; }, 30000);
}

// The SID that owns what this process makes, as its token says.
std::string DefaultOwner() {
  win::UniqueHandle token;
  BYTE buffer[SECURITY_MAX_SID_SIZE + sizeof(TOKEN_OWNER)];
  DWORD size = 0;
  wchar_t* text = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()) ||
      !GetTokenInformation(token.get(), TokenOwner, buffer, sizeof buffer, &size) ||
      !ConvertSidToStringSidW(reinterpret_cast<TOKEN_OWNER*>(buffer)->Owner, &text)) {
    ADD_FAILURE() << "the token's owner cannot be read: " << GetLastError();
    return "";
  }
  const win::UniqueLocalMemory textOwner(text);
  return win::WideToUtf8(text);
}

// Servers that run as LocalSystem (Wine runs every process as one interactive user: the account
// comes through the seam), the test root as the only trusted root while a test runs.
class PipeClientTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    pipe::SetServerAccountSourceForTest([](unsigned long) { return pipe::AccountReading{{"S-1-5-18", {}}, ""}; });
    const std::string der = ReadFileBytes(ProgramFolder() + L"\\korva-test-root.cer");
    ASSERT_TRUE(CertAddEncodedCertificateToStore(roots_, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                                 static_cast<DWORD>(der.size()), CERT_STORE_ADD_REPLACE_EXISTING,
                                                 nullptr));
    pipe::SetTrustedRootsForTest(roots_);
  }
  void TearDown() override {
    pipe::SetServerAccountSourceForTest(nullptr);
    pipe::SetTrustedRootsForTest(nullptr);
    CertCloseStore(roots_, 0);
    AgentTest::TearDown();
  }
  HCERTSTORE roots_ = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
};

TEST_F(PipeClientTest, OnlyAnIntactImageSignedForTheMakerUnderATrustedRootIsTrusted) {
  const struct { const wchar_t* image; const char* reason; } cases[] = {
      {L"pipeserver-signed.exe", ""},  // an empty reason: trusted
      {L"pipeserver.exe", "WinVerifyTrust: 0x800B0100"},
      {L"pipeserver-tampered.exe", "WinVerifyTrust: 0x80096010"},
      {L"pipeserver-untrusted.exe", "untrusted root"},
      {L"pipeserver-foreign.exe", "signed by another organisation (\"Other Corp\")"},
      {L"pipeserver-nousage.exe", "chain status: 0x00000010"}};  // a certificate not for code signing
  for (const auto& c : cases) {
    const pipe::TrustVerdict verdict = pipe::VerifyServerImage(ProgramFolder() + L"\\" + c.image);
    EXPECT_EQ(verdict.trusted, std::string(c.reason).empty()) << c.reason;
    EXPECT_NE(verdict.reason.find(c.reason), std::string::npos) << verdict.reason;
  }
}

// Answers: SendControl's result per code (1060: not installed; 87: outside 128-255), 13 for all but four bytes.
TEST_F(PipeClientTest, TrustedServersAreAnsweredPerMessageAndOthersAreHungUpOn) {
  const std::wstring answers = dir_.File(L"answers.txt");  // where the stand-in servers write their answers
  const std::wstring messages = L"80000000 c1000000 0d0000 empty silent:300 0102030405 big 05000000 close";
  const RunningProgram signedServer(ProgramFolder() + L"\\pipeserver-signed.exe", L"\"" + answers + L"\" " + messages);
  // The client's first look finds the server's pipe (an absent one would be the first outage logged).
  ASSERT_TRUE(ServerPipeUp());
  const win::UniqueHandle thread(CreateThread(nullptr, 0, PipeConnect, nullptr, 0, nullptr));
  ASSERT_EQ(WaitForSingleObject(signedServer.process(), 30000), WAIT_OBJECT_0);
  EXPECT_EQ(ReadFileBytes(answers), "80000000 1060 (4 bytes)\nc1000000 1060 (4 bytes)\n0d0000 13 (4 bytes)\n"
                                    "empty 13 (4 bytes)\n0102030405 13 (4 bytes)\nbig 13 (4 bytes)\n"
                                    "05000000 87 (4 bytes)\n");
  // The pipe is absent now: logged once, however often the client looks again.
  ASSERT_TRUE(WaitForLog("Unable to connect to the pipe with error code :2", 1, 15000));

  DeleteFileW(answers.c_str());
  const RunningProgram unsignedServer(ProgramFolder() + L"\\pipeserver.exe", L"\"" + answers + L"\" 80000000");
  ASSERT_EQ(WaitForSingleObject(unsignedServer.process(), 30000), WAIT_OBJECT_0);
  EXPECT_EQ(ReadFileBytes(answers).rfind("80000000 error ", 0), 0u) << ReadFileBytes(answers);
  ASSERT_TRUE(SetEvent(ServiceStopEvent));
  EXPECT_EQ(WaitForSingleObject(thread.get(), 10000), WAIT_OBJECT_0);
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "Unable to connect to the pipe"), 1u);
  EXPECT_EQ(CountOf(log, "Control code received :"), 3u);
  EXPECT_LOG_LINES(log, {{"PipeConnect", "Connected to the pipe server [", LogLine::kPrefix},
                         {"SendControl", "Control code 5 is outside 128-255; refused."},
                         {"PipeConnect", "A message of 4096 bytes is not a control code; refused."}});
  EXPECT_NE(log.find("is not trusted: WinVerifyTrust: 0x800B0100. Disconnecting."), std::string::npos);
}

// Each row: a signed server offering one code, its account as the seam gives it (none: its real token), the
// security it gives its pipe (empty: a service's default), and where its image is: with kHeld renamed and
// replaced, once it runs, by a file held open for writing; with kSystem32 an unsigned server run from the
// 64-bit System32, whose SysWOW64 namesake (what a PE32's open of that path would find) is the signed one.
// A pipe its own account owns, or one anyone may add an instance to, is what a user's program that made the
// pipe, or an instance of it, then handed it on to another and ended, leaves behind: its process ID may
// meanwhile belong to a service.
TEST_F(PipeClientTest, AServerNotRunningAsAServiceOrFromAnImageSomeoneWritesIsHungUpOn) {
  BYTE sid[SECURITY_MAX_SID_SIZE];  // this process's user as the account database names it
  DWORD sidSize = sizeof sid;
  DWORD domainSize = 256;
  wchar_t domain[256];
  SID_NAME_USE use;
  ASSERT_TRUE(LookupAccountNameW(nullptr, UserName().c_str(), sid, &sidSize, domain, &domainSize, &use));
  wchar_t* text = nullptr;
  ASSERT_TRUE(ConvertSidToStringSidW(sid, &text));
  const win::UniqueLocalMemory textOwner(text);
  const std::string user = win::WideToUtf8(text);
  const std::string owner = DefaultOwner();  // what this account's objects belong to
  const pipe::AccountReading system{{"S-1-5-18", {}}, ""};
  enum Image { kOwn, kHeld, kSystem32 };
  const struct {
    const char* what;
    std::optional<pipe::AccountReading> account;
    const wchar_t* security;
    Image image;
    std::string reason;
  } cases[] = {
      {"Wine's own account, from the token", std::nullopt, L"", kOwn, "it runs as " + user + ", not as a service"},
      {"token unreadable", pipe::AccountReading{{}, "OpenProcessToken: error 5"}, L"", kOwn,
       "its token cannot be read (OpenProcessToken: error 5)"},
      {"image held for writing", system, L"", kHeld, "its image cannot be opened with writing shut out (error 32)"},
      {"pipe owned by its account", system, L"sd:D:(A;;GA;;;SY)(A;;GA;;;BA)", kOwn,
       "its pipe belongs to " + owner + ", not to SYSTEM, Administrators or a service"},
      {"pipe anyone may add to", system, L"sd:O:SYD:(A;;GA;;;WD)", kOwn,
       "its pipe lets S-1-1-0 add an instance of it or change its access list"},
      {"unsigned in System32", system, L"", kSystem32, "WinVerifyTrust: 0x800B0100"}};
  const std::wstring answers = dir_.File(L"answers.txt");
  const std::wstring signedImage = ProgramFolder() + L"\\pipeserver-signed.exe";
  // The 64-bit System32 as this process reaches it (a PE32 through Sysnative) and as the system names it.
  wchar_t folder[MAX_PATH] = {};
  ASSERT_GT(GetWindowsDirectoryW(folder, MAX_PATH), 0u);
  const std::wstring native = std::wstring(folder) + (win::kIs64BitBuild ? L"\\System32\\" : L"\\Sysnative\\");
  ASSERT_GT(GetSystemDirectoryW(folder, MAX_PATH), 0u);
  const std::wstring system32 = std::wstring(folder) + L"\\";
  ASSERT_GT(GetSystemWow64DirectoryW(folder, MAX_PATH), 0u);
  const std::wstring sysWow64 = std::wstring(folder) + L"\\";
  const std::wstring name = L"korva-" + std::to_wstring(GetCurrentProcessId()) + L"-pipeserver.exe";
  unsigned long asked = 0;  // the process the seam was asked about
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    DeleteFileW(answers.c_str());
    asked = 0;
    pipe::SetServerAccountSourceForTest(nullptr);  // the real token
    if (c.account) {
      pipe::SetServerAccountSourceForTest([&asked, reading = *c.account](unsigned long pid) {
        asked = pid;
        return reading;
      });
    }
    const std::wstring started = c.image == kSystem32 ? native + name : dir_.File(win::Utf8ToWide(c.what) + L".exe");
    const std::wstring image = c.image == kSystem32 ? system32 + name : started;  // as the client finds it
    if (c.image == kSystem32) {
      ASSERT_TRUE(CopyFileW((ProgramFolder() + L"\\pipeserver.exe").c_str(), started.c_str(), FALSE));
      ASSERT_TRUE(CopyFileW(signedImage.c_str(), (sysWow64 + name).c_str(), FALSE));
    } else {
      ASSERT_TRUE(CopyFileW(signedImage.c_str(), image.c_str(), FALSE));
    }
    const RunningProgram server(started, L"\"" + answers + L"\" " + c.security + L" 80000000");
    ASSERT_TRUE(ServerPipeUp());
    win::UniqueFileHandle holder;
    if (c.image == kHeld) {  // the file at the image's path is no longer the one that runs, and may still change
      ASSERT_TRUE(MoveFileW(image.c_str(), (image + L".old").c_str()));
      ASSERT_TRUE(CopyFileW(signedImage.c_str(), image.c_str(), FALSE));
      holder.reset(CreateFileW(image.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
      ASSERT_TRUE(holder);
    }
    const std::string log = LoggedBy([&] {
      const win::UniqueHandle client(CreateThread(nullptr, 0, PipeConnect, nullptr, 0, nullptr));
      EXPECT_EQ(WaitForSingleObject(server.process(), 30000), WAIT_OBJECT_0);
      ASSERT_TRUE(SetEvent(ServiceStopEvent));
      EXPECT_EQ(WaitForSingleObject(client.get(), 10000), WAIT_OBJECT_0);
      ASSERT_TRUE(ResetEvent(ServiceStopEvent));
    });
    const std::string who = "[" + win::WideToUtf8(image) + "] (process " + std::to_string(server.pid()) + ")";
    EXPECT_EQ(asked, c.account ? server.pid() : 0);
    EXPECT_EQ(ReadFileBytes(answers).rfind("80000000 error ", 0), 0u) << ReadFileBytes(answers);
    const std::string refusal = "The pipe server " + who + " is not trusted: " + c.reason + ". Disconnecting.";
    EXPECT_LOG_ORDER(log, {{"PipeConnect", refusal}, {"PipeConnect", "Connecting again in 1000 ms."},
                           {"PipeConnect", "Control code received :", LogLine::kAbsent}});
    if (c.image == kSystem32) {  // the prefix's system folders keep nothing of the test
      EXPECT_TRUE(DeleteFileW(started.c_str()));
      EXPECT_TRUE(DeleteFileW((sysWow64 + name).c_str()));
    }
  }
}

}  // namespace
}  // namespace korva::test
