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

// The owner and access list of the pipe behind `pipe` into `security`; empty, or the failed call.
std::string ReadPipeSecurity(HANDLE pipe, PipeSecurity& security) {
  PSID owner = nullptr;
  PACL list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = GetSecurityInfo(pipe, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                      &owner, nullptr, &list, nullptr, &descriptor);
  if (error != ERROR_SUCCESS) return "GetSecurityInfo: error " + std::to_string(error);
  const win::UniqueLocalMemory held(descriptor);
  security.owner = owner != nullptr ? SidText(owner) : std::string();
  security.hasAccessList = list != nullptr;
  for (DWORD i = 0; list != nullptr && i < list->AceCount; ++i) {
    void* ace = nullptr;
    if (!GetAce(list, i, &ace)) return "GetAce: error " + std::to_string(GetLastError());
    const auto* header = static_cast<const ACE_HEADER*>(ace);
    PipeAccessEntry entry;
    entry.type = header->AceType;
    entry.inheritOnly = (header->AceFlags & INHERIT_ONLY_ACE) != 0;
    if (header->AceType == ACCESS_ALLOWED_ACE_TYPE || header->AceType == ACCESS_DENIED_ACE_TYPE) {
      // Both kinds lay out their mask and SID alike.
      auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
      entry.mask = allowed->Mask;
      entry.sid = SidText(&allowed->SidStart);
    }
    security.entries.push_back(std::move(entry));
  }
  return "";
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

TrustVerdict VerifyPipeAndServerAccount(HANDLE pipe, HANDLE process, unsigned long processId) {
  PipeSecurity security;
  const std::string failure = ReadPipeSecurity(pipe, security);
  if (!failure.empty()) return {false, "its pipe's security cannot be read (" + failure + ")"};
  AccountSource source;
  {
    const std::lock_guard<std::mutex> hold(g_sourceLock);
    source = g_source;
  }
  const AccountReading reading = source ? source(processId) : ReadProcessAccount(process);
  TrustVerdict pipeVerdict = JudgePipeSecurity(security, reading.account);
  if (!pipeVerdict.trusted) return pipeVerdict;
  if (!reading.failure.empty()) return {false, "its token cannot be read (" + reading.failure + ")"};
  return JudgeServerAccount(reading.account);
}

void SetServerAccountSourceForTest(AccountSource source) {
  const std::lock_guard<std::mutex> hold(g_sourceLock);
  g_source = std::move(source);
}

}  // namespace korva::pipe
