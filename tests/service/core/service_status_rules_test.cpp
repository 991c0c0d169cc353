// Reports for each service state, and the recovery actions.
#include "service/core/service_status_rules.h"

#include <gtest/gtest.h>

namespace svc = korva::service;

namespace {

TEST(ServiceStatusRules, PendingStatesAcceptNothingAndCountTheirCheckpoint) {
  for (std::uint32_t state : {svc::kStartPending, svc::kStopPending, svc::kPausePending, svc::kContinuePending}) {
    const svc::StatusReport first = svc::StatusReportFor(state, 0);
    EXPECT_EQ(first.controlsAccepted, 0u) << state;
    EXPECT_EQ(first.checkPoint, 1u) << state;
    EXPECT_GT(first.waitHint, 20000u) << state;  // longer than the handler's own 20 s waits
    EXPECT_EQ(svc::StatusReportFor(state, first.checkPoint).checkPoint, 2u) << state;
  }
}

TEST(ServiceStatusRules, SettledStatesResetTheCheckpointAndOnlyStoppedAcceptsNothing) {
  const std::uint32_t agents = svc::kAcceptStop | svc::kAcceptShutdown | svc::kAcceptPauseContinue |
                               svc::kAcceptPowerEvent | svc::kAcceptSessionChange;
  const std::pair<std::uint32_t, std::uint32_t> cases[] = {
      {svc::kRunning, agents}, {svc::kPaused, agents}, {svc::kStopped, 0u}};
  for (const auto& [state, accepted] : cases) {
    const svc::StatusReport report = svc::StatusReportFor(state, 7);
    EXPECT_EQ(report.controlsAccepted, accepted) << state;
    EXPECT_EQ(report.checkPoint + report.waitHint, 0u) << state;
  }
}

TEST(ServiceStatusRules, RecoveryRestartsThreeTimesAfterAMinuteAndResetsDaily) {
  const svc::RecoveryPolicy policy = svc::AgentRecoveryPolicy();
  EXPECT_EQ(policy.resetPeriodSeconds, 86400u);
  ASSERT_EQ(policy.actions.size(), 3u);
  for (const svc::RecoveryAction& action : policy.actions) {
    EXPECT_TRUE(action.restart);
    EXPECT_EQ(action.delayMs, 60000u);
  }
}

}  // namespace
