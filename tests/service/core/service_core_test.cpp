// The service host's pure core: the revoke timer's due time and the status reports by state.
#include <gtest/gtest.h>

#include <limits>

#include "service/core/notification_text.h"
#include "service/core/service_status_rules.h"

namespace nt = korva::notify;
namespace svc = korva::service;

namespace {

TEST(RevokeDueTime, IsTheDistanceInMillisecondsKeptToThirtyTwoBits) {
  EXPECT_EQ(nt::RevokeDueTimeMs(1000, 990), 10000u);
  EXPECT_EQ(nt::RevokeDueTimeMs(5000000, 0), static_cast<std::uint32_t>(5000000000ull));  // truncated
  // A past revoke time and the "no grant" maximum wrap around instead of overflowing.
  EXPECT_EQ(nt::RevokeDueTimeMs(10, 11), static_cast<std::uint32_t>(0xFFFFFFFFFFFFFC18ull));
  const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(nt::RevokeDueTimeMs(max, 1700000000), static_cast<std::uint32_t>(max * 1000u - 1700000000000ull));
}


// Pending states accept nothing and count their checkpoint, with a wait hint longer than the
// handler's own 20 s waits; settled states reset both, and only a stopped service accepts nothing.
TEST(ServiceStatusRules, ControlsCheckpointAndWaitHintByState) {
  const std::uint32_t agents = svc::kAcceptStop | svc::kAcceptShutdown | svc::kAcceptPauseContinue |
                               svc::kAcceptPowerEvent | svc::kAcceptSessionChange;
  for (std::uint32_t state : {svc::kStartPending, svc::kStopPending, svc::kPausePending, svc::kContinuePending}) {
    const svc::StatusReport first = svc::StatusReportFor(state, 0);
    EXPECT_EQ(first.controlsAccepted, 0u) << state;
    EXPECT_EQ(first.checkPoint, 1u) << state;
    EXPECT_GT(first.waitHint, 20000u) << state;
    EXPECT_EQ(svc::StatusReportFor(state, first.checkPoint).checkPoint, 2u) << state;
  }
  for (const auto& [state, accepted] :
       {std::pair{svc::kRunning, agents}, {svc::kPaused, agents}, {svc::kStopped, 0u}}) {
    const svc::StatusReport report = svc::StatusReportFor(state, 7);
    EXPECT_EQ(report.controlsAccepted, accepted) << state;
    EXPECT_EQ(report.checkPoint + report.waitHint, 0u) << state;
  }
}

}  // namespace
