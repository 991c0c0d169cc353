// One log record formatted from any time, thread, severity, function and message: one line,
// its fixed-width prefix intact, every line end CRLF; and the rolled file names of any path.
#include <memory>

#include "fuzz_input.h"
#include "settings/core/log_format.h"

namespace lf = korva::logformat;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  korva::fuzz::Input input(data, size);
  const auto time = input.Number<lf::LocalTime>();
  const auto milliseconds = input.Number<unsigned>() % 1000;
  const auto threadId = input.Number<std::uint32_t>();
  const auto severity = input.Number<int>();
  const auto number = input.Number<int>();
  const std::string function = input.Text();
  const std::string message = input.Text();
  // Exactly the documented 19 characters, on the heap so that one more is a finding.
  const std::unique_ptr<char[]> dateTime(new char[lf::kDateTimeLength]);
  lf::FormatDateTime(time, dateTime.get());
  std::string line;
  lf::AppendLine(line, std::string_view(dateTime.get(), lf::kDateTimeLength), milliseconds, threadId, severity,
                 function, message);
  korva::fuzz::Check(line.compare(0, 2, "[ ") == 0 && line.compare(21, 1, ":") == 0);
  korva::fuzz::Check(line.size() >= 2 && line.compare(line.size() - 2, 2, "\r\n") == 0);
  for (std::size_t at = line.find('\n'); at != std::string::npos; at = line.find('\n', at + 1)) {
    korva::fuzz::Check(at > 0 && line[at - 1] == '\r');
  }
  const std::wstring path = input.WideText();
  const lf::SplitName name = lf::SplitFileName(path);
  const std::wstring rolled = lf::RolledFileName(name, number);
  korva::fuzz::Check(rolled.compare(0, name.nameWithoutExtension.size(), name.nameWithoutExtension) == 0);
  return 0;
}
