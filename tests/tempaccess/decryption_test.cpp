// The decryption library interface against the stand-in "ClientAuthHandler.dll" (its cipher: the
// text's bytes XOR 0x5A in hex), placed in "..\..\bin" of a pretended executable folder.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/test_support.h"
#include "tempaccess/decryption.h"

namespace {

using AgentUtil::ClientAuthHandlerUtil;
using korva::test::HasLogLine;

std::string ToyEncipher(const std::string& plain) {
  std::string cipher;
  char hex[3];
  for (const char c : plain) {
    std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(c) ^ 0x5A);
    cipher += hex;
  }
  return cipher;
}

class DecryptionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const wchar_t* folder : {L"app", L"app\\bin", L"app\\DeviceControl", L"app\\DeviceControl\\bin"}) {
      CreateDirectoryW(dir_.File(folder).c_str(), nullptr);
    }
    // The library sits two levels above the executable's folder, in "bin".
    korva::SetDecryptionExecutablePathForTest(dir_.File(L"app\\DeviceControl\\bin\\korvaAgentService.exe"));
  }
  void TearDown() override { korva::SetDecryptionExecutablePathForTest(L""); }
  void Place(const wchar_t* source) const {
    ASSERT_TRUE(CopyFileW((korva::test::ProgramFolder() + L"\\" + source).c_str(),
                          dir_.File(L"app\\bin\\ClientAuthHandler.dll").c_str(), FALSE));
  }

  korva::test::TempDir dir_;
};

TEST_F(DecryptionTest, DecipheredTextComesBackWhateverItsSize) {
  Place(L"ClientAuthHandler.dll");
  for (const std::string& text : {std::string("{\"ta\":[]}"), std::string(100000, 'g'), std::string()}) {
    std::string plain = "unset";
    EXPECT_TRUE(ClientAuthHandlerUtil::aes256Decrypt(ToyEncipher(text), plain));
    EXPECT_EQ(plain, text);
  }
}

TEST_F(DecryptionTest, EveryFailureGivesEmptyTextAndItsReason) {
  const struct {
    const wchar_t* library;  // copied in as the library, or null for none
    const char* cipher;
    const char* reason;
  } cases[] = {{L"ClientAuthHandler.dll", "zz", "The decryption library refused the text (result 0)."},
               {L"korvaStandIn.exe", "00", "has no GetDecryptedStrDll."},
               {nullptr, "00", "Unable to load the decryption library ["}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    DeleteFileW(dir_.File(L"app\\bin\\ClientAuthHandler.dll").c_str());
    if (c.library != nullptr) Place(c.library);
    // A library in the current directory must never stand in for a missing one.
    wchar_t previous[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, previous);
    SetCurrentDirectoryW(korva::test::ProgramFolder().c_str());
    korva::test::LogCapture log;
    std::string plain = "unset";
    EXPECT_FALSE(ClientAuthHandlerUtil::aes256Decrypt(c.cipher, plain));
    SetCurrentDirectoryW(previous);
    EXPECT_EQ(plain, "");
    EXPECT_NE(log.Text().find(c.reason), std::string::npos);
  }
}

}  // namespace
