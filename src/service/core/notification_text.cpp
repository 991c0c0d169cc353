// The revoke timer's due time.
#include "service/core/notification_text.h"

namespace korva::notify {

std::uint32_t RevokeDueTimeMs(std::uint64_t nextRevokeSeconds, std::uint64_t nowSeconds) noexcept {
  const std::uint64_t dueMs = nextRevokeSeconds * 1000u - nowSeconds * 1000u;
  return static_cast<std::uint32_t>(dueMs);
}

}  // namespace korva::notify
