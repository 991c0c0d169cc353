// The pipe control channel's wire format and reconnection pace.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace korva::pipe {

// Reconnection waits: the first after a failure, doubling up to the last.
inline constexpr unsigned kFirstBackoffMs = 1000;
inline constexpr unsigned kLastBackoffMs = 60000;
// The answer to a message that is not one control code.
inline constexpr std::uint32_t kMalformedMessage = 13;  // ERROR_INVALID_DATA

// The wait after `previousMs` (0: none yet).
unsigned NextBackoffMs(unsigned previousMs) noexcept;
// A message is one control code: exactly four bytes, little endian.
std::optional<std::uint32_t> DecodeControlCode(const unsigned char* bytes, std::size_t size) noexcept;
std::array<unsigned char, 4> EncodeResult(std::uint32_t result) noexcept;

}  // namespace korva::pipe
