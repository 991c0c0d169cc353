// Work the caller must not wait for without end: an open that breaks a user's opportunistic lock
// waits until the user lets go, with no time limit of its own.
#pragma once

#include <functional>
#include <optional>

namespace korva::win {

// Runs `work` on a thread of its own and waits for it at most `limitMs`; its result, or nothing when
// the limit passed first. The thread's synchronous I/O is then cancelled (an open waiting for an
// opportunistic lock's release ends with it), and the work goes on alone: what it uses must outlive
// the call (owned by `work` itself, or the process's). When no thread can be started, `work` runs
// on the caller's thread.
std::optional<bool> RunWithTimeLimit(std::function<bool()> work, unsigned long limitMs);

}  // namespace korva::win
