// Every helper program's command line built from outside text (a folder, a drive, a device
// instance path, a user name, a count): the C runtime reads back exactly the intended arguments,
// or the builder refuses the text. No text can add, drop or merge an argument.
#include <string>
#include <vector>

#include "devicecontrol/core/device_action_text.h"
#include "fileaudit/core/driver_setup.h"
#include "fileaudit/core/filter_commands.h"
#include "fuzz_input.h"
#include "process/core/command_line.h"
#include "shared/core/agent_folders.h"
#include "tempaccess/core/grants.h"

namespace dc = korva::devicecontrol;
namespace fa = korva::fileaudit;
using korva::fuzz::Check;
using korva::process::SplitCommandLine;
using Words = std::vector<std::string>;

namespace {

// The words a user name gives the action program: it is not quoted, so blanks and tabs split it.
Words NameWords(const std::string& name) {
  Words words;
  std::string word;
  for (const char c : name + ' ') {
    if (c == ' ' || c == '\t') {
      if (!word.empty()) words.push_back(word);
      word.clear();
    } else {
      word += c;
    }
  }
  return words;
}

void CheckDriveCommands(const std::string& bin, const std::string& drive) {
  const auto attach = fa::AttachCommandLine(bin, drive);
  const auto shadow = fa::FileShadowCommandLine(bin, drive);
  Check(attach.has_value() && shadow.has_value());  // the input's texts hold no NUL
  const std::string argument = fa::DriveArgument(drive);
  Check(SplitCommandLine(*attach) == Words{bin + "\\korvaFaService.exe", "-attach", argument});
  Check(SplitCommandLine(*shadow) == Words{bin + "\\korvaFileShadow.exe", argument});
  // A drive without quotes keeps the bytes the control program has always been handed.
  if (drive.find('"') == std::string::npos) {
    Check(*attach == "\"" + bin + "\\korvaFaService.exe\" -attach \"" + fa::DoubledBackslashes(drive) + "\"");
  }
}

void CheckSetupCommands(const std::string& bin, int request, bool is64Bit) {
  const std::string prefix = fa::SetupCommandPrefix(bin, is64Bit);
  const fa::ReleaseFolder release = fa::ReleaseFolderForFamily(request);
  const std::string inf = fa::InfPath(bin, is64Bit, release.folder);
  const std::string program = bin + "\\" + fa::SetupProgram(is64Bit);
  const std::string infFile = inf.substr(1, inf.size() - 2);
  Words expected{program};
  if (request == fa::kDriverStart) expected.push_back("-start");
  if (request == fa::kDriverStop) expected.push_back("-stop");
  if (request == fa::kDriverInstall) expected.insert(expected.end(), {"-install", infFile});
  if (request == fa::kDriverUninstall) expected.insert(expected.end(), {"-uninstall", infFile});
  Check(SplitCommandLine(fa::RequestCommand(prefix, request, inf)) == expected);
  Check(SplitCommandLine(fa::InstallCommand(prefix, inf)) == Words{program, "-install", infFile});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  korva::fuzz::Input input(data, size);
  const int request = input.Number<int>();
  const bool is64Bit = (input.Number<std::uint8_t>() & 1) != 0;
  const int eventKind = input.Number<std::uint8_t>();
  const std::string folder = input.Text();
  const std::string drive = input.Text();
  const std::string instancePath = input.Text();
  const std::string user = input.Rest();

  // Folders come from the agent's accessors, which hand out only folders that pass the rule.
  if (korva::folders::CheckAgentFolder(folder) == korva::folders::FolderFault::kNone) {
    const std::string bin = fa::BinFolder(folder);
    CheckDriveCommands(bin, drive);
    CheckSetupCommands(bin, request, is64Bit);
    const std::string tray = korva::tempaccess::TrayFolder(folder);
    Check(SplitCommandLine(korva::tempaccess::TrayNoticeCommandLine(tray, request)) ==
          Words{tray + "\\korvaAgentTrayIcon.exe", "-ta", std::to_string(request)});
  }

  const auto summary = dc::SummaryArguments(dc::kDeviceInterfaceEventClass, eventKind, instancePath);
  Check(summary.has_value());
  Check(SplitCommandLine(*summary) == Words{"-s", "ET_COL", "1", std::to_string(eventKind), instancePath});

  const std::wstring wideUser(user.begin(), user.end());
  const auto action = dc::ActionProgramArguments(2, wideUser);
  Check(action.has_value() == (user.find_first_of(std::string{'"', '\0'}) == std::string::npos));
  if (action) {
    const std::string narrow(action->begin(), action->end());
    Words expected{"-c", "2", "-n"};
    for (const std::string& word : NameWords(user)) expected.push_back(word);
    Check(SplitCommandLine(narrow) == expected);
  }
  return 0;
}
