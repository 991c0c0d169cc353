// Appending text to small text files.
#include "settings/text_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "settings/log.h"

namespace korva {
namespace {

int LastErrno() noexcept { return errno != 0 ? errno : EIO; }

// Only for a file left open by a step that failed: the write's own close is checked.
struct FileCloser {
  void operator()(std::FILE* file) const noexcept { static_cast<void>(std::fclose(file)); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

[[nodiscard]] int Append(const char* path, const char* text) {
  errno = 0;
  UniqueFile file(std::fopen(path, "a"));
  // A file that cannot be opened is the caller's to report: the access log skips it silently.
  if (!file) return LastErrno();
  const std::size_t length = std::strlen(text);
  errno = 0;
  const bool written = std::fwrite(text, 1, length, file.get()) == length;
  const bool closed = std::fclose(file.release()) == 0;
  if (written && closed) return 0;
  const int error = LastErrno();
  KLOG_ERROR_AS("AppendText") << "Unable to write " << path << ". errno : " << error;
  return error;
}

}  // namespace

int AppendText(const char* path, const char* text) {
  if (path == nullptr || text == nullptr) return EINVAL;
  return log::Guarded("AppendText", ENOMEM, [&] { return Append(path, text); });
}

}  // namespace korva
