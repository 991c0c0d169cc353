// Watching other services' states: what a query answer means and which changes are worth a line.
#include "devicecontrol/core/service_watch.h"

namespace korva::devicecontrol {

namespace {
constexpr unsigned long kServiceDoesNotExist = 1060;
constexpr unsigned long kStopped = 1;  // SERVICE_STOPPED
constexpr unsigned long kRunning = 4;  // SERVICE_RUNNING
}  // namespace

WatchedState StateOf(unsigned long queryError, unsigned long currentState) noexcept {
  if (queryError == kServiceDoesNotExist) return WatchedState::kAbsent;
  if (queryError != 0) return WatchedState::kPending;
  if (currentState == kStopped) return WatchedState::kStopped;
  return currentState == kRunning ? WatchedState::kRunning : WatchedState::kPending;
}

std::optional<std::string> ChangeLine(std::string_view service, WatchedState before, WatchedState after) {
  if (after == before || after == WatchedState::kPending) return std::nullopt;
  const std::string name = "The " + std::string(service) + " service ";
  if (after == WatchedState::kAbsent) return name + "was removed.";
  const char* now = after == WatchedState::kRunning ? "running" : "stopped";
  if (before == WatchedState::kAbsent) return name + "was installed (" + now + ").";
  return name + (after == WatchedState::kRunning ? "started." : "stopped.");
}

}  // namespace korva::devicecontrol
