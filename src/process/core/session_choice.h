// Choosing the interactive session and its user from what the session list says. No Win32 here.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace korva::process {

// The connect state the session list gives an interactive, logged-on session (WTSActive).
inline constexpr int kActiveSessionState = 0;

struct SessionEntry {
  std::uint32_t id = 0;
  int state = 0;      // WTS_CONNECTSTATE_CLASS value
  std::wstring user;  // its user name; empty when unknown or nobody
};

// The last active session in list order (a later active session beats an earlier one,
// deliberately), or `fallback` when none is active.
std::uint32_t LastActiveSession(const std::vector<SessionEntry>& sessions, std::uint32_t fallback) noexcept;

// The logged-on user: the console session's user when it has one, else the user of the first
// active session that has a name, else empty.
std::wstring ChooseLoggedOnUser(std::wstring_view consoleUser, const std::vector<SessionEntry>& sessions);

// True for the OS name of Windows 2000, however the name is spelt by the OS name routine.
bool IsWindows2000(std::string_view osName) noexcept;

}  // namespace korva::process
