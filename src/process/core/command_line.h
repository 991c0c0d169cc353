// Command lines as the C runtime reads them: one routine puts an outside text (a device instance
// path, a drive, a folder) on a command line so that the child reads back exactly that text, and
// a parser of the same rules checks it. The first word of a command line (the program) follows
// CreateProcess's own rule instead.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korva::process {

// `text` in double quotes, with each run of backslashes before a quote (inside, or the closing
// one) doubled and each quote escaped, so that the C runtime reads `text` back as one argument.
// A text with no quote and no trailing backslash comes back as itself between quotes. Nothing
// (nullopt) for a text holding a NUL: no command line can carry it.
std::optional<std::string> QuoteArgument(std::string_view text);
std::optional<std::wstring> QuoteArgument(std::wstring_view text);

// The arguments of a command line as the C runtime splits it (the rules of Visual C++ 2008 and
// later): the first word ends at the first blank or tab outside quotes, its quotes only open and
// close quoted parts and it takes no escapes; in
// the others, 2n backslashes and a quote give n backslashes and open or close a quoted part,
// 2n+1 backslashes and a quote give n backslashes and a quote, other backslashes stay, and two
// quotes inside a quoted part give one quote.
std::vector<std::string> SplitCommandLine(std::string_view commandLine);
std::vector<std::wstring> SplitCommandLine(std::wstring_view commandLine);

// The program CreateProcess starts for a command line given without an application name: the
// text between the leading quotes, or the first word up to a blank or tab.
std::string ProgramOfCommandLine(std::string_view commandLine);
std::wstring ProgramOfCommandLine(std::wstring_view commandLine);

}  // namespace korva::process
