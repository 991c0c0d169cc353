// The attach, file-shadow and driver setup command lines built from a folder and a drive: the
// drive's closing quote is never escaped, whatever backslashes the drive ends in.
#include <vector>

#include "fileaudit/core/driver_setup.h"
#include "fileaudit/core/filter_commands.h"
#include "fuzz_input.h"

namespace fa = korva::fileaudit;

namespace {

// The arguments as the C runtime splits a command line: 2n backslashes before a quote give n and
// the quote opens or closes, 2n+1 give n and a literal quote; other backslashes are literal.
std::vector<std::string> SplitArguments(const std::string& line) {
  std::vector<std::string> arguments;
  std::string current;
  bool quoted = false, inArgument = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    std::size_t slashes = 0;
    while (i < line.size() && line[i] == '\\') ++slashes, ++i;
    if (i < line.size() && line[i] == '"') {
      current.append(slashes / 2, '\\');
      inArgument = true;
      if (slashes % 2 == 1)
        current += '"';
      else
        quoted = !quoted;
      continue;
    }
    current.append(slashes, '\\');
    if (i == line.size()) break;
    if (line[i] == ' ' && !quoted) {
      if (inArgument || !current.empty()) arguments.push_back(current);
      current.clear();
      inArgument = false;
    } else {
      current += line[i];
      inArgument = true;
    }
  }
  if (inArgument || !current.empty()) arguments.push_back(current);
  return arguments;
}

bool Plain(const std::string& text) { return text.find('"') == std::string::npos; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  korva::fuzz::Input input(data, size);
  const int request = input.Number<int>();
  const bool is64Bit = input.Number<std::uint8_t>() & 1;
  const std::string folder = input.Text();
  const std::string drive = input.Rest();
  const std::string bin = fa::BinFolder(folder);
  const std::string attach = fa::AttachCommandLine(bin, drive);
  const std::string shadow = fa::FileShadowCommandLine(bin, drive);
  if (Plain(folder) && Plain(drive)) {
    const std::vector<std::string> attachArguments = SplitArguments(attach);
    korva::fuzz::Check(attachArguments.size() == 3 && attachArguments[1] == "-attach");
    korva::fuzz::Check(SplitArguments(shadow).size() == 2);
  }
  const std::string prefix = fa::SetupCommandPrefix(bin, is64Bit);
  const fa::ReleaseFolder release = fa::ReleaseFolderForFamily(request);
  const std::string inf = fa::InfPath(bin, is64Bit, release.folder);
  korva::fuzz::Check(fa::RequestCommand(prefix, request, inf).compare(0, prefix.size(), prefix) == 0);
  korva::fuzz::Check(fa::InstallCommand(prefix, inf).size() == prefix.size() + 10 + inf.size());
  return 0;
}
