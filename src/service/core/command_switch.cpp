// The command-line switch of the executable.
#include "service/core/command_switch.h"

namespace korva::service {

SwitchAction ClassifySwitch(std::string_view argument) noexcept {
  if (argument.size() != 2 || argument[0] != '/') return SwitchAction::kInvalid;
  switch (argument[1]) {
    case 'i':
    case 'I':
      return SwitchAction::kInstall;
    case 'u':
    case 'U':
      return SwitchAction::kUninstall;
    default:
      return SwitchAction::kInvalid;
  }
}

}  // namespace korva::service
