// Names of the agent's own threads, as debuggers, crash dumps and process tools show them.
#pragma once

namespace korva::win {

// Names the calling thread where the system can (SetThreadDescription, Windows 10 version 1607 and
// later; looked up, as the agent also runs on older systems); elsewhere it does nothing. The name
// is for the people who read a dump or a thread list; nothing in the agent reads it back.
void NameCurrentThread(const wchar_t* name) noexcept;

}  // namespace korva::win
