// Which part of a thread's stack holds nothing the thread still needs.
#include "win/core/unused_stack.h"

#include <algorithm>

namespace korva::win {

AddressRange UnusedStackRange(const StackView& view) {
  const std::uintptr_t unit = view.unit;
  // A unit that is not a power of two, or a frame too low to keep room below: nothing.
  if (unit == 0 || (unit & (unit - 1)) != 0 || view.frame < kStackKeptBelowFrame) return {};
  // A frame outside the run it was said to be in: the view is not of this stack.
  if (view.frame < view.limit || view.frame >= view.committedEnd) return {};
  const std::uintptr_t top = std::min((view.frame - kStackKeptBelowFrame) & ~(unit - 1), view.committedEnd);
  if (top <= view.limit) return {};
  return {view.limit, top};
}

}  // namespace korva::win
