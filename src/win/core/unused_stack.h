// Which part of a thread's stack holds nothing the thread still needs.
#pragma once

#include <cstdint>

namespace korva::win {

// A half-open range of addresses, [begin, end); empty when begin == end.
struct AddressRange {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

// Where a thread's stack stands, as the thread itself sees it. The stack grows down: `frame` is an
// address in the caller's own frame, and [limit, committedEnd) the run of committed, writable pages
// that holds it (found by the caller; `limit` is where the stack's committed part begins). `unit`
// is what the range's end is rounded down to: at least a page, and more where the pages of the
// system under the agent may be larger than those Windows reports (Wine hands the range to its
// host in the host's pages), so that no rounding of the host's can reach into the kept margin.
struct StackView {
  std::uintptr_t limit = 0;
  std::uintptr_t frame = 0;
  std::uintptr_t committedEnd = 0;
  std::uintptr_t unit = 0;
};

// How much room below the caller's frame is left alone: the calls that give the rest back run
// there, and need far less.
inline constexpr std::uintptr_t kStackKeptBelowFrame = std::uintptr_t{32} * 1024;

// The stack below the caller's frame, less `kStackKeptBelowFrame`, from `limit` to an end on a
// `unit` boundary: nothing above the frame, nothing the range's release itself uses, nothing
// outside the run of committed pages. Empty when there is no such page or the view makes no sense.
[[nodiscard]] AddressRange UnusedStackRange(const StackView& view);

}  // namespace korva::win
