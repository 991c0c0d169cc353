// The executable's command-line switch.
#include <cctype>

#include "fuzz_input.h"
#include "service/core/command_switch.h"

using korva::service::SwitchAction;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  korva::fuzz::Input input(data, size);
  const std::string argument = input.Text();  // a command-line argument never holds a NUL
  const SwitchAction action = korva::service::ClassifySwitch(argument);
  std::string lower = argument;
  for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  korva::fuzz::Check((action == SwitchAction::kInstall) == (lower == "/i"));
  korva::fuzz::Check((action == SwitchAction::kUninstall) == (lower == "/u"));
  return 0;
}
