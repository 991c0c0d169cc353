// What the executable's one command-line argument asks for.
#pragma once

#include <string_view>

namespace korva::service {

enum class SwitchAction { kInstall, kUninstall, kInvalid };

// "/i" installs and "/u" uninstalls, in either case (ASCII only, as _stricmp in the C locale);
// anything else, the empty text included, is an invalid parameter.
SwitchAction ClassifySwitch(std::string_view argument) noexcept;

}  // namespace korva::service
