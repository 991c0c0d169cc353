// Whether the program behind the pipe runs as a service.
#include "pipe/server_account.h"

#include <aclapi.h>
#include <sddl.h>

#include <mutex>
#include <utility>
#include <vector>

#include "win/strings.h"
#include "win/unique_handle.h"

namespace korva::pipe {

static_assert(kGroupEnabled == SE_GROUP_ENABLED && kGroupDenyOnly == SE_GROUP_USE_FOR_DENY_ONLY);

namespace {

std::mutex g_sourceLock;
AccountSource g_source;

AccountReading Failed(const char* call, DWORD error) {
  return {{}, std::string(call) + ": error " + std::to_string(error)};
}

// One class of `token`'s information into `buffer`; 0 or the call's error.
[[nodiscard]] DWORD TokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS kind, std::vector<BYTE>& buffer) {
  DWORD size = 0;
  if (!GetTokenInformation(token, kind, nullptr, 0, &size)) {
    const DWORD error = GetLastError();
    if (error != ERROR_INSUFFICIENT_BUFFER) return error;
  }
  buffer.resize(size);
  return GetTokenInformation(token, kind, buffer.data(), size, &size) ? ERROR_SUCCESS : GetLastError();
}

// "S-1-..."; empty when the SID cannot be put in text, which the rule refuses for the user and
// never matches for a group.
std::string SidText(PSID sid) {
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(sid, &text)) return "";
  const win::UniqueLocalMemory owner(text);
  return win::WideToUtf8(text);
}

}  // namespace

AccountReading ReadProcessAccount(HANDLE process) {
  win::UniqueHandle token;
  if (!OpenProcessToken(process, TOKEN_QUERY, token.put())) return Failed("OpenProcessToken", GetLastError());
  std::vector<BYTE> user;
  std::vector<BYTE> groups;
  if (const DWORD error = TokenInformation(token.get(), TokenUser, user)) {
    return Failed("GetTokenInformation(TokenUser)", error);
  }
  if (const DWORD error = TokenInformation(token.get(), TokenGroups, groups)) {
    return Failed("GetTokenInformation(TokenGroups)", error);
  }
  AccountReading reading;
  reading.account.user = SidText(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid);
  const auto* list = reinterpret_cast<const TOKEN_GROUPS*>(groups.data());
  for (DWORD i = 0; i < list->GroupCount; ++i) {
    reading.account.groups.push_back({SidText(list->Groups[i].Sid), list->Groups[i].Attributes});
  }
  return reading;
}

TrustVerdict VerifyPipeOwner(HANDLE pipe) {
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = GetSecurityInfo(pipe, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                                      nullptr, &descriptor);
  if (error != ERROR_SUCCESS)
    return {false, "its pipe's owner cannot be read (GetSecurityInfo: error " + std::to_string(error) + ")"};
  const win::UniqueLocalMemory held(descriptor);
  return JudgePipeOwner(owner != nullptr ? SidText(owner) : std::string());
}

TrustVerdict VerifyServerAccount(HANDLE process, unsigned long processId) {
  AccountSource source;
  {
    const std::lock_guard<std::mutex> hold(g_sourceLock);
    source = g_source;
  }
  const AccountReading reading = source ? source(processId) : ReadProcessAccount(process);
  if (!reading.failure.empty()) return {false, "its token cannot be read (" + reading.failure + ")"};
  return JudgeServerAccount(reading.account);
}

void SetServerAccountSourceForTest(AccountSource source) {
  const std::lock_guard<std::mutex> hold(g_sourceLock);
  g_source = std::move(source);
}

}  // namespace korva::pipe
