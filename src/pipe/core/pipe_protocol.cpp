// The pipe control channel's wire format and reconnection pace.
#include "pipe/core/pipe_protocol.h"

namespace korva::pipe {

unsigned NextBackoffMs(unsigned previousMs) noexcept {
  if (previousMs == 0) return kFirstBackoffMs;
  return previousMs >= kLastBackoffMs / 2 ? kLastBackoffMs : previousMs * 2;
}

std::optional<std::uint32_t> DecodeControlCode(const unsigned char* bytes, std::size_t size) noexcept {
  if (bytes == nullptr || size != 4) return std::nullopt;
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

std::array<unsigned char, 4> EncodeResult(std::uint32_t result) noexcept {
  return {static_cast<unsigned char>(result), static_cast<unsigned char>(result >> 8),
          static_cast<unsigned char>(result >> 16), static_cast<unsigned char>(result >> 24)};
}

}  // namespace korva::pipe
