// Refusal texts, wait lengths, command lines and log lines of the launchers.
#include "process/core/launch_text.h"

namespace korva::process {

namespace {

constexpr std::uint32_t kMillisecondsPerMinute = 60000;
constexpr std::uint32_t kLongestWait = 0xFFFFFFFEu;  // one below INFINITE

template <typename Char>
std::basic_string<Char> Quoted(std::basic_string_view<Char> application, const Char* arguments) {
  std::basic_string<Char> line;
  const bool quoted = application.size() >= 2 && application.front() == Char('"') && application.back() == Char('"');
  if (quoted) {
    line.assign(application);
  } else {
    line.reserve(application.size() + 2);
    line.push_back(Char('"'));
    line.append(application);
    line.push_back(Char('"'));
  }
  if (arguments != nullptr && arguments[0] != Char(0)) {
    line.push_back(Char(' '));
    line.append(arguments);
  }
  return line;
}

}  // namespace

std::uint32_t WaitMillisecondsForMinutes(std::uint32_t minutes) noexcept {
  const std::uint64_t ms = static_cast<std::uint64_t>(minutes) * kMillisecondsPerMinute;
  return ms > kLongestWait ? kLongestWait : static_cast<std::uint32_t>(ms);
}

std::string AppLaunchText(std::string_view application, const char* arguments) {
  return Quoted<char>(application, arguments);
}

std::wstring AppLaunchText(std::wstring_view application, const wchar_t* arguments) {
  return Quoted<wchar_t>(application, arguments);
}

std::wstring TimeExceededLine(std::wstring_view commandLine, std::uint32_t minutes) {
  std::wstring line = L"Terminating the Process for application ";
  line.append(commandLine);
  line.append(L" as time is exceeded ");
  line.append(std::to_wstring(minutes));
  line.append(L" Minutes ");
  return line;
}

std::string CurrentDirectoryOverflowLine(std::size_t needed) {
  return "CurrentWorkingDirectory Buffer overflow. Need to allocate the length for " + std::to_string(needed) +
         " chars";
}

std::vector<std::string> OutputLines(std::string_view output) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < output.size()) {
    std::size_t end = output.find('\n', start);
    if (end == std::string_view::npos) end = output.size();
    std::string_view line = output.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty()) {
      // A control character left inside (a lone carriage return, which some viewers take for a line
      // break) would let the output show a line of its own that looks like the agent's.
      std::string& kept = lines.emplace_back(line);
      for (char& c : kept) {
        const auto code = static_cast<unsigned char>(c);
        if ((code < 0x20 && c != '\t') || code == 0x7F) c = '?';
      }
    }
    start = end + 1;
  }
  return lines;
}

}  // namespace korva::process
