// Where the console drops the policies that make the file-audit filter wanted.
#pragma once

#include <string>
#include <string_view>

namespace korva::fileaudit {

inline constexpr std::string_view kDeviceControlPolicyFile = "devicecontrol.json";
inline constexpr std::string_view kSecureUsbPolicyFile = "secureusb.json";

// "<base>\data\policy\<file>"; a base that already ends in a backslash gets no second one.
std::string PolicyFilePath(std::string_view base, std::string_view file);

}  // namespace korva::fileaudit
