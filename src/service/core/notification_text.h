// The revoke timer's due time.
#pragma once

#include <cstdint>

namespace korva::notify {

// Milliseconds from now to the next revoke, computed in unsigned 64-bit arithmetic (a revoke
// time in the past or the "no grant" maximum wraps instead of overflowing) and kept to 32 bits,
// as the timer takes them.
std::uint32_t RevokeDueTimeMs(std::uint64_t nextRevokeSeconds, std::uint64_t nowSeconds) noexcept;

}  // namespace korva::notify
