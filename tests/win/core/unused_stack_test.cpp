// Which part of a thread's stack is given back: whole pages below the caller's frame and its margin.
#include <gtest/gtest.h>

#include "win/core/unused_stack.h"

namespace korva::win {
namespace {

constexpr std::uintptr_t kPage = 0x1000;
constexpr std::uintptr_t kGranule = 0x10000;
constexpr std::uintptr_t kKeep = kStackKeptBelowFrame;

TEST(UnusedStack, WholePagesBetweenTheLimitAndTheMarginBelowTheFrame) {
  // A Wine stack: 2 MB committed from 0x400000, the frame near its top.
  const StackView wine{0x400000, 0x5FF8A4, 0x600000, kPage};
  const struct { const char* what; StackView view; AddressRange range; } cases[] = {
      {"Wine's thread", wine, {0x400000, (0x5FF8A4 - kKeep) & ~(kPage - 1)}},
      {"a frame on a page boundary", {0x400000, 0x500000, 0x600000, kPage}, {0x400000, 0x500000 - kKeep}},
      {"Windows: little committed below the frame", {0x5F8000, 0x5FF8A4, 0x600000, kPage}, {}},
      {"just one page below the margin", {0x5F4000, 0x5F5000 + kKeep, 0x600000, kPage}, {0x5F4000, 0x5F5000}},
      {"a run that ends below the frame", {0x400000, 0x5FF8A4, 0x5FF000, kPage}, {}},
      {"a frame below the run", {0x400000, 0x3FF000, 0x600000, kPage}, {}},
      {"a frame too low for the margin", {0, kKeep - 1, 0x600000, kPage}, {}},
      {"no unit", {0x400000, 0x5FF8A4, 0x600000, 0}, {}},
      {"a unit that is no power of two", {0x400000, 0x5FF8A4, 0x600000, 0x1800}, {}},
      {"64 KB units: the margin grows, never shrinks", {0x400000, 0x5FF8A4, 0x600000, kGranule}, {0x400000, 0x5F0000}},
      {"64 KB units, a frame just above a boundary", {0x400000, 0x5F0000 + kKeep, 0x600000, kGranule},
       {0x400000, 0x5F0000}},
  };
  for (const auto& c : cases) {
    const AddressRange range = UnusedStackRange(c.view);
    EXPECT_TRUE(range.begin == c.range.begin && range.end == c.range.end)
        << c.what << ": got [" << std::hex << range.begin << ", " << range.end << ")";
  }
}

}  // namespace
}  // namespace korva::win
