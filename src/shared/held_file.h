// A file another program holds for a moment: a few short retries, and text kept until it can be written.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace korva {

// A reader that opens a file without sharing writes (a virus scan, a backup agent) holds it for a
// moment: a write tries again a few times, 25 ms apart, so one write never waits more than 75 ms.
inline constexpr int kHeldFileAttempts = 4;
inline constexpr DWORD kHeldFileRetryMs = 25;

// Calls `attempt` until it gives 0 (written) or a result that `held` does not take for a held file,
// at most kHeldFileAttempts times, kHeldFileRetryMs apart; gives its last result.
template <typename Attempt, typename Held>
auto RetryWhileHeld(Attempt attempt, Held held) {
  auto result = attempt();
  for (int tried = 1; tried < kHeldFileAttempts && result != 0 && held(result); ++tried) {
    Sleep(kHeldFileRetryMs);
    result = attempt();
  }
  return result;
}

// Text that could not be written yet, in its order, up to `maxBytes`: pieces beyond that are
// counted, not kept. Takes no lock: its owner writes it under its own.
class HeldText {
 public:
  explicit HeldText(std::size_t maxBytes) noexcept : maxBytes_(maxBytes) {}
  void Hold(const std::string& piece);
  // Nothing kept and nothing counted.
  [[nodiscard]] bool empty() const { return text_.empty() && dropped_ == 0; }
  [[nodiscard]] const std::string& text() const { return text_; }
  // The lines kept (each ends in "\n"), and the pieces that did not fit.
  [[nodiscard]] std::size_t lines() const;
  [[nodiscard]] std::size_t dropped() const { return dropped_; }
  // Takes the first `bytes` of the text off: they are written now.
  void Consume(std::size_t bytes) { text_.erase(0, bytes); }
  void Clear();

 private:
  std::size_t maxBytes_;
  std::string text_;
  std::size_t dropped_ = 0;
};

}  // namespace korva
