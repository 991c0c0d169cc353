// Giving back the stack pages a thread has no use for.
#include "win/thread_stack.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <optional>

#include "win/core/unused_stack.h"
#include "win/procedure.h"

namespace korva::win {
namespace {

struct Run {
  std::uintptr_t begin;
  std::uintptr_t end;
};

// The one place an address becomes a pointer: addresses the system gave for this thread's stack.
LPVOID AsPointer(std::uintptr_t address) {
  return reinterpret_cast<LPVOID>(address);  // NOLINT(performance-no-int-to-ptr): from the system's own queries
}

[[nodiscard]] bool IsCommittedWritable(const MEMORY_BASIC_INFORMATION& info) {
  return info.State == MEM_COMMIT && info.Type == MEM_PRIVATE && (info.Protect & (PAGE_GUARD | PAGE_NOACCESS)) == 0 &&
         (info.Protect & (PAGE_READWRITE | PAGE_EXECUTE_READWRITE)) != 0;
}

// The calling thread's stack as the system records it, [lowest reserved address, base); nothing
// where the system cannot say (before Windows 8).
std::optional<Run> ThreadStackBounds() {
  using GetLimitsFn = VOID(WINAPI*)(PULONG_PTR, PULONG_PTR);
  // kernel32 is loaded in every process: no library is loaded here.
  const auto getLimits = LookUpProcedure<GetLimitsFn>(GetModuleHandleW(L"kernel32.dll"), "GetCurrentThreadStackLimits");
  if (getLimits == nullptr) return std::nullopt;
  ULONG_PTR low = 0;
  ULONG_PTR high = 0;
  getLimits(&low, &high);
  if (low >= high) return std::nullopt;
  return Run{low, high};
}

// The run of committed, writable pages that holds `frame`, found by walking the stack's
// allocation from its lowest address (a stack is a handful of runs: reserved, guard, committed).
// Nothing when the frame's pages are not such a run.
std::optional<Run> CommittedRunHolding(std::uintptr_t frame, const Run& stack) {
  MEMORY_BASIC_INFORMATION info{};
  if (VirtualQuery(AsPointer(frame), &info, sizeof info) == 0 || info.AllocationBase != AsPointer(stack.begin)) {
    return std::nullopt;
  }
  std::uintptr_t address = stack.begin;
  constexpr int kMostRuns = 16;
  for (int i = 0; i < kMostRuns && address < stack.end; ++i) {
    if (VirtualQuery(AsPointer(address), &info, sizeof info) == 0 || info.AllocationBase != AsPointer(stack.begin) ||
        info.RegionSize == 0) {
      return std::nullopt;
    }
    const std::uintptr_t end = std::min<std::uintptr_t>(address + info.RegionSize, stack.end);
    if (frame < end) {
      if (!IsCommittedWritable(info)) return std::nullopt;
      return Run{address, end};
    }
    address = end;
  }
  return std::nullopt;
}

// Leaves the thread's last error as it found it: callers may be between a failed call and its log.
class LastErrorKept {
 public:
  LastErrorKept() : error_(GetLastError()) {}
  ~LastErrorKept() { SetLastError(error_); }
  LastErrorKept(const LastErrorKept&) = delete;
  LastErrorKept& operator=(const LastErrorKept&) = delete;

 private:
  DWORD error_;
};

}  // namespace

// Not inlined: the margin below this frame must cover only the calls made from here.
__attribute__((noinline)) void ReleaseUnusedStack() noexcept {
  const LastErrorKept lastError;
  volatile char marker = 0;
  const auto frame = reinterpret_cast<std::uintptr_t>(&marker);
  // Only the thread's own stack, as the system records it: never a block that merely looks like one.
  const std::optional<Run> stack = ThreadStackBounds();
  if (!stack || frame < stack->begin || frame >= stack->end) return;
  const std::optional<Run> run = CommittedRunHolding(frame, *stack);
  if (!run) return;
  SYSTEM_INFO system{};
  GetSystemInfo(&system);
  StackView view;
  view.limit = run->begin;
  view.frame = frame;
  view.committedEnd = run->end;
  view.unit = std::max<std::uintptr_t>(system.dwPageSize, system.dwAllocationGranularity);
  const AddressRange range = UnusedStackRange(view);
  if (range.end <= range.begin) return;
  // MEM_RESET keeps the pages committed and their protection as it is; a failure leaves them as
  // they were, which is only a missed saving.
  (void)VirtualAlloc(AsPointer(range.begin), range.end - range.begin, MEM_RESET, PAGE_READWRITE);
}

}  // namespace korva::win
