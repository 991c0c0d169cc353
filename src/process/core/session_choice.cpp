// Choosing the interactive session and its user from the session list.
#include "process/core/session_choice.h"

namespace korva::process {

std::uint32_t LastActiveSession(const std::vector<SessionEntry>& sessions, std::uint32_t fallback) noexcept {
  std::uint32_t result = fallback;
  for (const SessionEntry& session : sessions) {
    if (session.state == kActiveSessionState) result = session.id;
  }
  return result;
}

std::wstring ChooseLoggedOnUser(std::wstring_view consoleUser, const std::vector<SessionEntry>& sessions) {
  if (!consoleUser.empty()) return std::wstring(consoleUser);
  for (const SessionEntry& session : sessions) {
    if (session.state == kActiveSessionState && !session.user.empty()) return session.user;
  }
  return {};
}

bool IsWindows2000(std::string_view osName) noexcept {
  return osName == "Microsoft Windows 2000" || osName == "Windows 2000";
}

}  // namespace korva::process
