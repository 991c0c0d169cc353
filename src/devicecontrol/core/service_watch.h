// Watching other services' states (the Bluetooth RFCOMM transport): what a query answer means and
// which changes are worth a line.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korva::devicecontrol {

enum class WatchedState { kAbsent, kStopped, kRunning, kPending };

// A query's answer as a watched state: error 1060 is an absent service, any other error or a
// state on its way somewhere is pending (it settles on a later look).
WatchedState StateOf(unsigned long queryError, unsigned long currentState) noexcept;
// The line for a settled change of `service` from `before` to `after`, or nothing when it did not
// change or has not settled yet.
std::optional<std::string> ChangeLine(std::string_view service, WatchedState before, WatchedState after);

}  // namespace korva::devicecontrol
