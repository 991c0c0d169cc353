// The service host's pure core: the status reports by state.
#include <gtest/gtest.h>

#include <string>

#include "service/core/service_status_rules.h"

namespace svc = korva::service;

namespace {

// Pending states accept nothing and count their checkpoint, with a wait hint longer than the
// handler's own 20 s waits; settled states reset both, and only a stopped service accepts nothing.
TEST(ServiceStatusRules, ControlsCheckpointAndWaitHintByState) {
  // Stop 0x1, pause and continue 0x2, shutdown 0x4, power events 0x40, session changes 0x80.
  const std::uint32_t agents = 0xC7;
  for (std::uint32_t state : {2u, 3u, 5u, 6u}) {  // start, stop, continue and pause pending
    const svc::StatusReport first = svc::StatusReportFor(state, 0);
    EXPECT_EQ(first.controlsAccepted, 0u) << state;
    EXPECT_EQ(first.checkPoint, 1u) << state;
    EXPECT_GT(first.waitHint, 20000u) << state;
    EXPECT_EQ(svc::StatusReportFor(state, first.checkPoint).checkPoint, 2u) << state;
  }
  for (const auto& [state, accepted] : {std::pair{4u, agents}, {7u, agents}, {1u, 0u}}) {  // running, paused, stopped
    const svc::StatusReport report = svc::StatusReportFor(state, 7);
    EXPECT_EQ(report.controlsAccepted, accepted) << state;
    EXPECT_EQ(report.checkPoint + report.waitHint, 0u) << state;
  }
}

// Once the service has said it is stopping, it says nothing else: not running (an INTERROGATE behind the
// stop), not paused; once stopped, nothing at all; before that, every state may follow.
TEST(ServiceStatusRules, AfterStopPendingOrStoppedOnlyTheStopsStatesAreReported) {
  // {last reported, next}: start, run, pause and continue, stop pending (again), stopped.
  for (const auto& [last, state] : {std::pair{0u, 2u}, {2u, 4u}, {4u, 7u}, {7u, 4u}, {4u, 3u}, {3u, 3u}, {3u, 1u}}) {
    EXPECT_TRUE(svc::MayReportAfter(last, state)) << last << " " << state;
  }
  for (const auto& [last, state] : {std::pair{3u, 4u}, {3u, 7u}, {3u, 5u}, {1u, 4u}, {1u, 2u}, {1u, 3u}, {1u, 1u}}) {
    EXPECT_FALSE(svc::MayReportAfter(last, state)) << last << " " << state;
  }
}

// A service registered without the agent's recovery actions (a package installer), or with others,
// is given them; the delay of an action that does not restart does not count.
TEST(ServiceStatusRules, RecoveryActionsDifferUnlessTheyAreTheAgentsOwn) {
  const svc::RecoveryPolicy own = svc::AgentRecoveryPolicy();
  EXPECT_TRUE(svc::SameRecovery(own, own));
  const svc::RecoveryPolicy none{0, {}};
  svc::RecoveryPolicy otherReset = own;
  otherReset.resetPeriodSeconds = 3600;
  svc::RecoveryPolicy twoRestarts = own;
  twoRestarts.actions.pop_back();
  svc::RecoveryPolicy laterRestart = own;
  laterRestart.actions[1].delayMs = 120000;
  for (const svc::RecoveryPolicy& other : {none, otherReset, twoRestarts, laterRestart}) {
    EXPECT_FALSE(svc::SameRecovery(own, other));
  }
  const svc::RecoveryPolicy noRestart{1, {{false, 5}}};
  EXPECT_TRUE(svc::SameRecovery(noRestart, {1, {{false, 0}}}));
}

}  // namespace
