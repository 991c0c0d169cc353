// The decisions behind the on-demand module lock, and the on-demand program's name.
#pragma once

#include <cstdint>
#include <string_view>

namespace korva::ondemand {

// The on-demand program gives up after this many retries.
inline constexpr std::uint32_t kRetryLimit = 5;

// The on-demand program, in the agent's bin folder.
inline constexpr std::wstring_view kOnDemandProgram = L"korvaOnDemand.exe";
inline constexpr std::string_view kOnDemandProgramA = "korvaOnDemand.exe";

// "ondemandlock": any non-zero value locks the module.
constexpr bool IsLockSet(std::uint32_t lockValue) noexcept { return lockValue != 0; }

// A count that cannot be read counts as complete: the on-demand program's own record is then
// unknown, and a lock that is set must not be lifted on a guess.
constexpr bool AreRetriesCompleted(bool countRead, std::uint32_t count) noexcept {
  return !countRead || count >= kRetryLimit;
}

// The module is blocked only while it is locked and has used up its retries.
constexpr bool MustBlockModule(bool locked, bool retriesCompleted) noexcept { return locked && retriesCompleted; }

// Whether a process image name (toolhelp's file name, with or without a folder) is the on-demand
// program. File names compare without regard to case; the name is plain ASCII, so folding ASCII
// letters is enough.
bool IsOnDemandProgramName(std::wstring_view imageName) noexcept;

}  // namespace korva::ondemand
