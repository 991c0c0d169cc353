// The one place that knows whether this is the 32-bit (PE32) or the 64-bit (PE32+) build, and
// what that decides: the registry view of agent data and whether the machine runs 64-bit Windows.
#pragma once

#include <windows.h>

namespace korva::win {

inline constexpr bool kIs64BitBuild = sizeof(void*) == 8;

// Access bits that keep every agent key in the 32-bit view, where the other agent programs write
// it: the PE32 is in that view already; the PE32+ has to ask for it.
inline constexpr REGSAM kAgentRegistryView = kIs64BitBuild ? KEY_WOW64_32KEY : 0;

// Whether the machine runs 64-bit Windows, given the process's IsWow64Process answer: a 64-bit
// process always does, a 32-bit one only under WOW64.
constexpr bool RunsOn64BitWindows(bool wow64) noexcept { return kIs64BitBuild || wow64; }

}  // namespace korva::win
