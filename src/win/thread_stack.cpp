// Giving back the stack pages a thread has no use for.
#include "win/thread_stack.h"

#include <windows.h>

#include <cstdint>
#include <optional>

#include "win/core/unused_stack.h"

namespace korva::win {
namespace {

struct Run {
  std::uintptr_t begin;
  std::uintptr_t end;
};

[[nodiscard]] bool IsCommittedWritable(const MEMORY_BASIC_INFORMATION& info) {
  return info.State == MEM_COMMIT && info.Type == MEM_PRIVATE && (info.Protect & (PAGE_GUARD | PAGE_NOACCESS)) == 0 &&
         (info.Protect & (PAGE_READWRITE | PAGE_EXECUTE_READWRITE)) != 0;
}

// The run of committed, writable pages of the stack that holds `frame`, found by walking the
// stack's allocation from its lowest address (a stack is a handful of runs: reserved, guard,
// committed). Nothing when the frame's pages are not such a run.
std::optional<Run> CommittedRunHolding(std::uintptr_t frame) {
  MEMORY_BASIC_INFORMATION info{};
  if (VirtualQuery(reinterpret_cast<LPCVOID>(frame), &info, sizeof info) == 0 || info.AllocationBase == nullptr) {
    return std::nullopt;
  }
  const LPVOID allocation = info.AllocationBase;
  auto address = reinterpret_cast<std::uintptr_t>(allocation);
  constexpr int kMostRuns = 16;
  for (int i = 0; i < kMostRuns; ++i) {
    if (VirtualQuery(reinterpret_cast<LPCVOID>(address), &info, sizeof info) == 0 ||
        info.AllocationBase != allocation || info.RegionSize == 0) {
      return std::nullopt;
    }
    const std::uintptr_t end = address + info.RegionSize;
    if (frame < end) {
      if (!IsCommittedWritable(info)) return std::nullopt;
      return Run{address, end};
    }
    address = end;
  }
  return std::nullopt;
}

}  // namespace

// Not inlined: the margin below this frame must cover only the calls made from here.
__attribute__((noinline)) void ReleaseUnusedStack() noexcept {
  volatile char marker = 0;
  const auto frame = reinterpret_cast<std::uintptr_t>(&marker);
  const std::optional<Run> run = CommittedRunHolding(frame);
  if (!run) return;
  SYSTEM_INFO system{};
  GetSystemInfo(&system);
  StackView view;
  view.limit = run->begin;
  view.frame = frame;
  view.committedEnd = run->end;
  view.pageSize = system.dwPageSize;
  const AddressRange range = UnusedStackRange(view);
  if (range.empty()) return;
  // MEM_RESET keeps the pages committed and their protection as it is; a failure leaves them as
  // they were, which is only a missed saving.
  (void)VirtualAlloc(reinterpret_cast<LPVOID>(range.begin), range.end - range.begin, MEM_RESET, PAGE_READWRITE);
}

}  // namespace korva::win
