// Appending printf-formatted text to small text files.
#include "settings/text_file.h"

#include <cerrno>
#include <memory>
#include <string>

#include "settings/log.h"

namespace korva {
namespace {

int LastErrno() noexcept { return errno != 0 ? errno : EIO; }

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

// The whole message: a first pass measures it, the second fills a buffer of that size.
[[nodiscard]] int Format(std::string& out, const char* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length < 0) return EINVAL;
  out.assign(static_cast<std::size_t>(length) + 1, '\0');
  if (std::vsnprintf(out.data(), out.size(), format, args) != length) return EINVAL;
  out.resize(static_cast<std::size_t>(length));
  return 0;
}

[[nodiscard]] int Append(const char* path, const char* format, va_list args) {
  errno = 0;
  UniqueFile file(std::fopen(path, "a"));
  // A file that cannot be opened is the caller's to report: the access log skips it silently.
  if (!file) return LastErrno();
  std::string text;
  if (const int error = Format(text, format, args); error != 0) {
    KLOG_ERROR_AS("AppendFormattedText") << "Unable to format the text for " << path << ". errno : " << error;
    return error;
  }
  errno = 0;
  const bool written = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size();
  const bool closed = std::fclose(file.release()) == 0;
  if (written && closed) return 0;
  const int error = LastErrno();
  KLOG_ERROR_AS("AppendFormattedText") << "Unable to write " << path << ". errno : " << error;
  return error;
}

}  // namespace

int AppendFormattedTextV(const char* path, const char* format, va_list args) {
  if (path == nullptr || format == nullptr) return EINVAL;
  return log::Guarded("AppendFormattedText", ENOMEM, [&] { return Append(path, format, args); });
}

int AppendFormattedText(const char* path, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = AppendFormattedTextV(path, format, args);
  va_end(args);
  return result;
}

}  // namespace korva
