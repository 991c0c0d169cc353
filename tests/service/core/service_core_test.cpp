// The service host's pure core: the status reports by state.
#include <gtest/gtest.h>

#include <string>

#include "service/core/service_status_rules.h"

namespace svc = korva::service;

namespace {

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
