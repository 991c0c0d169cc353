// How a registry value given as text becomes the bytes written for its type, and the view the
// registry helpers are asked for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace korva::registry {

// The `is64` argument of the registry helpers (settings/registry.h): the agent's own view (see
// win/bitness.h), or the 64-bit view.
inline constexpr int kAgentView = 0;
inline constexpr int k64BitView = 1;

struct ValueBytes {
  bool writable = false;           // false: the type is not one we write; nothing is stored
  std::vector<std::uint8_t> data;  // at least `size` bytes
  std::uint32_t size = 0;          // the size handed to the registry
};

// Signed decimal as the C library reads it: leading blanks and one sign accepted, digits up to
// the first non-digit, no digits gives 0. Out-of-range values wrap instead of overflowing.
std::int64_t ParseDecimal(const std::string& text) noexcept;

// REG_SZ, REG_EXPAND_SZ, REG_BINARY: the text and its NUL (length + 1 bytes).
// REG_DWORD / REG_QWORD: the text parsed as decimal, 4 / 8 bytes little-endian.
// REG_MULTI_SZ: the bytes as given, with length + 15 as the size (a fixed 15, kept deliberately);
// `text` may carry the list's inner NULs and its terminating pair within those bytes, the rest is
// zero-filled.
// Any other type: not writable.
ValueBytes ValueBytesForType(std::uint32_t type, const std::string& text);

}  // namespace korva::registry
