#include "win/time_limit.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <utility>

#include "win/unique_handle.h"

namespace korva::win {
namespace {

// Shared by the caller and the thread: whichever finishes last frees it.
struct TimedWork {
  std::function<bool()> work;
  std::atomic<bool> result{false};
};

DWORD WINAPI RunTimedWork(LPVOID parameter) {
  const std::unique_ptr<std::shared_ptr<TimedWork>> shared(static_cast<std::shared_ptr<TimedWork>*>(parameter));
  (*shared)->result.store((*shared)->work());
  return 0;
}

}  // namespace

std::optional<bool> RunWithTimeLimit(std::function<bool()> work, unsigned long limitMs) {
  const auto timed = std::make_shared<TimedWork>();
  timed->work = std::move(work);
  auto forThread = std::make_unique<std::shared_ptr<TimedWork>>(timed);
  const UniqueHandle thread(CreateThread(nullptr, 0, RunTimedWork, forThread.get(), 0, nullptr));
  if (!thread) return timed->work();
  (void)forThread.release();  // the thread owns its share now
  if (WaitForSingleObject(thread.get(), limitMs) == WAIT_OBJECT_0) return timed->result.load();
  (void)CancelSynchronousIo(thread.get());
  return std::nullopt;
}

}  // namespace korva::win
