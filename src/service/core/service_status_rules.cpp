// What the service reports with each state, and its recovery policy.
#include "service/core/service_status_rules.h"

namespace korva::service {

bool IsPendingState(std::uint32_t state) noexcept {
  return state == kStartPending || state == kStopPending || state == kContinuePending || state == kPausePending;
}

StatusReport StatusReportFor(std::uint32_t state, std::uint32_t lastCheckPoint) noexcept {
  if (IsPendingState(state)) return StatusReport{0, lastCheckPoint + 1, kPendingWaitHintMs};
  if (state == kStopped) return StatusReport{0, 0, 0};
  return StatusReport{kAcceptStop | kAcceptShutdown | kAcceptPauseContinue | kAcceptPowerEvent | kAcceptSessionChange,
                      0, 0};
}

bool MayReportAfter(std::uint32_t last, std::uint32_t state) noexcept {
  if (last == kStopped) return false;
  return last != kStopPending || state == kStopPending || state == kStopped;
}

RecoveryPolicy AgentRecoveryPolicy() {
  constexpr std::uint32_t kOneDaySeconds = 24 * 60 * 60;
  constexpr std::uint32_t kOneMinuteMs = 60 * 1000;
  return RecoveryPolicy{kOneDaySeconds, {{true, kOneMinuteMs}, {true, kOneMinuteMs}, {true, kOneMinuteMs}}};
}

bool SameRecovery(const RecoveryPolicy& policy, const RecoveryPolicy& configured) noexcept {
  if (policy.resetPeriodSeconds != configured.resetPeriodSeconds) return false;
  if (policy.actions.size() != configured.actions.size()) return false;
  for (std::size_t i = 0; i < policy.actions.size(); ++i) {
    const RecoveryAction& a = policy.actions[i];
    const RecoveryAction& b = configured.actions[i];
    if (a.restart != b.restart || (a.restart && a.delayMs != b.delayMs)) return false;
  }
  return true;
}

}  // namespace korva::service
