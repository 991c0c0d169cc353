// What the service reports with each state: accepted controls, checkpoints and wait hints; the
// service's access rules and its recovery actions.
#pragma once

#include <cstdint>
#include <vector>

namespace korva::service {

// Numeric values of the service manager's states and control flags (winsvc.h).
inline constexpr std::uint32_t kStopped = 1, kStartPending = 2, kStopPending = 3, kRunning = 4, kContinuePending = 5,
                               kPausePending = 6, kPaused = 7;
inline constexpr std::uint32_t kAcceptStop = 0x1, kAcceptPauseContinue = 0x2, kAcceptShutdown = 0x4,
                               kAcceptPowerEvent = 0x40, kAcceptSessionChange = 0x80;

// A pending state tells the manager how long to wait before it may give up on the service.
// Stopping waits up to 20 s for the stop notification program, so the hint leaves room above that.
inline constexpr std::uint32_t kPendingWaitHintMs = 30000;

struct StatusReport {
  std::uint32_t controlsAccepted;
  std::uint32_t checkPoint;
  std::uint32_t waitHint;
};

bool IsPendingState(std::uint32_t state) noexcept;

// The report for `state`, given the checkpoint last reported. Pending states accept no control
// and count their checkpoint up; settled states reset it and accept the agent's controls, but
// STOPPED, which accepts none.
StatusReport StatusReportFor(std::uint32_t state, std::uint32_t lastCheckPoint) noexcept;

// Whether `state` may be reported after `last` (the last state reported, 0 before the first). Once
// the service has said it is stopping, only STOP_PENDING and STOPPED follow: a control handled
// behind the stop (an INTERROGATE the manager queued) must not report it running again, which the
// manager would take for a crash once the process ends.
// After STOPPED nothing is reported any more: a shutdown carried out behind a stop would otherwise
// say STOP_PENDING of a service that has stopped.
bool MayReportAfter(std::uint32_t last, std::uint32_t state) noexcept;

// Service DACL: SYSTEM and Administrators full control, no one else anything. Whoever may send user
// control 193 may stop the agent; and whoever may open the service at all, even only to read its
// status, may keep that handle open, and a service deleted while a handle to it is open is only
// marked for deletion: an upgrade's removal of the older version would then leave a name the newer
// version cannot register, and no agent once the handle is closed.
inline constexpr const wchar_t* kServiceSecurityDescriptor = L"D:(A;;GA;;;SY)(A;;GA;;;BA)";

struct RecoveryAction {
  bool restart;
  std::uint32_t delayMs;
};
struct RecoveryPolicy {
  std::uint32_t resetPeriodSeconds;
  std::vector<RecoveryAction> actions;
};
// After a crash: restart after a minute, three times; the count resets after a day.
RecoveryPolicy AgentRecoveryPolicy();
// Whether the recovery actions a service has are `policy`'s.
bool SameRecovery(const RecoveryPolicy& policy, const RecoveryPolicy& configured) noexcept;

}  // namespace korva::service
