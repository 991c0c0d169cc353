// Quoting and splitting command lines by the C runtime's rules.
#include "process/core/command_line.h"

#include <utility>

namespace korva::process {

namespace {

template <typename Char>
bool IsBlank(Char c) noexcept {
  return c == Char(' ') || c == Char('\t');
}

template <typename Char>
std::optional<std::basic_string<Char>> Quote(std::basic_string_view<Char> text) {
  std::basic_string<Char> quoted;
  quoted.reserve(text.size() + 2);
  quoted.push_back(Char('"'));
  std::size_t backslashes = 0;
  for (const Char c : text) {
    if (c == Char(0)) return std::nullopt;
    if (c == Char('\\')) {
      ++backslashes;
      continue;
    }
    if (c == Char('"')) {
      quoted.append(backslashes * 2 + 1, Char('\\'));
    } else {
      quoted.append(backslashes, Char('\\'));
    }
    backslashes = 0;
    quoted.push_back(c);
  }
  quoted.append(backslashes * 2, Char('\\'));  // they stand before the closing quote
  quoted.push_back(Char('"'));
  return quoted;
}

template <typename Char>
std::basic_string<Char> Program(std::basic_string_view<Char> line) {
  if (!line.empty() && line.front() == Char('"')) {
    const std::size_t close = line.find(Char('"'), 1);
    return std::basic_string<Char>(line.substr(1, close == line.npos ? line.npos : close - 1));
  }
  std::size_t end = 0;
  while (end < line.size() && !IsBlank(line[end])) ++end;
  return std::basic_string<Char>(line.substr(0, end));
}

// The first word as the C runtime reads it: every quote opens or closes a quoted part and is
// dropped, backslashes are plain, and a blank or tab outside quotes ends it. Returns the word and
// where the rest begins.
template <typename Char>
std::pair<std::basic_string<Char>, std::size_t> FirstWord(std::basic_string_view<Char> line) {
  std::basic_string<Char> word;
  bool quoted = false;
  std::size_t i = 0;
  for (; i < line.size() && (quoted || !IsBlank(line[i])); ++i) {
    if (line[i] == Char('"')) {
      quoted = !quoted;
    } else {
      word.push_back(line[i]);
    }
  }
  return {word, i};
}

template <typename Char>
std::vector<std::basic_string<Char>> Split(std::basic_string_view<Char> line) {
  std::vector<std::basic_string<Char>> words;
  if (line.empty()) return words;
  auto [first, i] = FirstWord(line);
  words.push_back(std::move(first));
  for (;;) {
    while (i < line.size() && IsBlank(line[i])) ++i;
    if (i >= line.size()) break;
    std::basic_string<Char> word;
    bool quoted = false;
    while (i < line.size() && (quoted || !IsBlank(line[i]))) {
      std::size_t backslashes = 0;
      while (i < line.size() && line[i] == Char('\\')) {
        ++backslashes;
        ++i;
      }
      if (i < line.size() && line[i] == Char('"')) {
        word.append(backslashes / 2, Char('\\'));
        if (backslashes % 2 == 1) {
          word.push_back(Char('"'));
        } else if (quoted && i + 1 < line.size() && line[i + 1] == Char('"')) {
          word.push_back(Char('"'));  // a doubled quote inside a quoted part
          ++i;
        } else {
          quoted = !quoted;
        }
        ++i;
      } else {
        word.append(backslashes, Char('\\'));
        if (i < line.size() && (quoted || !IsBlank(line[i]))) word.push_back(line[i++]);
      }
    }
    words.push_back(std::move(word));
  }
  return words;
}

}  // namespace

std::optional<std::string> QuoteArgument(std::string_view text) { return Quote(text); }
std::optional<std::wstring> QuoteArgument(std::wstring_view text) { return Quote(text); }
std::vector<std::string> SplitCommandLine(std::string_view commandLine) { return Split(commandLine); }
std::vector<std::wstring> SplitCommandLine(std::wstring_view commandLine) { return Split(commandLine); }
std::string ProgramOfCommandLine(std::string_view commandLine) { return Program(commandLine); }
std::wstring ProgramOfCommandLine(std::wstring_view commandLine) { return Program(commandLine); }

}  // namespace korva::process
