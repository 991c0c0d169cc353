// Where the console drops the agent's policies: the device-control and secure-USB policies that
// make the file-audit filter wanted, and the temporary-access grant file with its plain stand-in.
#pragma once

#include <string>
#include <string_view>

namespace korva {

inline constexpr std::string_view kDeviceControlPolicyFile = "devicecontrol.json";
inline constexpr std::string_view kSecureUsbPolicyFile = "secureusb.json";
// The grants, enciphered, and the plain file read when that one is absent or unreadable.
inline constexpr std::string_view kGrantPolicyFile = "ta.json";
inline constexpr std::string_view kPlainGrantPolicyFile = "ta.json_tmp";

// "<base>\data\policy\<file>"; a base that already ends in a backslash gets no second one.
std::string PolicyFilePath(std::string_view base, std::string_view file);

}  // namespace korva
