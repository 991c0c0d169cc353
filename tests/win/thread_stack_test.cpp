// Giving back a thread's unused stack: what it gives back is gone from memory, what the thread
// still holds is kept, and the stack works as before to its full depth.
#include <windows.h>
#include <psapi.h>

#include <gtest/gtest.h>

#include <cstdint>

#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace {

constexpr int kDeepFrames = 128;  // about 512 KB below the thread's entry
constexpr std::size_t kFrameBytes = 4096;

bool Resident(std::uintptr_t address) {
  PSAPI_WORKING_SET_EX_INFORMATION info{};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of this thread's own stack, only queried
  info.VirtualAddress = reinterpret_cast<void*>(address);
  return QueryWorkingSetEx(GetCurrentProcess(), &info, sizeof info) && info.VirtualAttributes.Valid;
}

// Goes `depth` frames down, writing each frame's bytes; returns the deepest frame's address and,
// in `sum`, the sum of what each frame read back.
__attribute__((noinline)) std::uintptr_t GoDeep(int depth, unsigned long long& sum) {
  volatile unsigned char frame[kFrameBytes];
  for (std::size_t i = 0; i < kFrameBytes; ++i) frame[i] = static_cast<unsigned char>(depth + i);
  const std::uintptr_t deepest = depth > 1 ? GoDeep(depth - 1, sum) : reinterpret_cast<std::uintptr_t>(&frame[0]);
  for (const volatile unsigned char& byte : frame) sum += byte;
  return deepest;
}

struct StackProbe {
  bool deepResidentBefore = false;
  bool deepResidentAfter = true;
  bool ownFrameKept = false;
  unsigned long long sumBefore = 0;
  unsigned long long sumAfter = 0;
};

DWORD WINAPI ReleaseAndProbe(LPVOID parameter) {
  auto& probe = *static_cast<StackProbe*>(parameter);
  volatile unsigned char own[kFrameBytes];
  for (std::size_t i = 0; i < kFrameBytes; ++i) own[i] = static_cast<unsigned char>(i * 7 + 1);
  const std::uintptr_t deep = GoDeep(kDeepFrames, probe.sumBefore);
  probe.deepResidentBefore = Resident(deep);
  korva::win::ReleaseUnusedStack();
  probe.deepResidentAfter = Resident(deep);
  probe.ownFrameKept = true;
  for (std::size_t i = 0; i < kFrameBytes; ++i) {
    if (own[i] != static_cast<unsigned char>(i * 7 + 1)) probe.ownFrameKept = false;
  }
  (void)GoDeep(kDeepFrames, probe.sumAfter);
  return 0;
}

TEST(ThreadStack, UnusedPagesAreGivenBackAndTheStackStillWorks) {
  StackProbe probe;
  const korva::win::UniqueHandle thread(CreateThread(nullptr, 0, ReleaseAndProbe, &probe, 0, nullptr));
  ASSERT_TRUE(thread);
  ASSERT_EQ(WaitForSingleObject(thread.get(), 30000), WAIT_OBJECT_0);
  ASSERT_TRUE(probe.deepResidentBefore) << "the deep frames were written just before";
  EXPECT_FALSE(probe.deepResidentAfter) << "a page far below the caller's frame is still resident";
  EXPECT_TRUE(probe.ownFrameKept) << "the caller's own frame changed";
  EXPECT_NE(probe.sumBefore, 0U);
  EXPECT_EQ(probe.sumAfter, probe.sumBefore) << "the stack no longer holds what is written to it";
}

}  // namespace
