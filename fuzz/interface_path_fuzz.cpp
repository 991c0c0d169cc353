// A device interface name as the system hands it over, turned into a device instance path.
#include <cwctype>

#include "devicecontrol/core/device_action_text.h"
#include "fuzz_input.h"

namespace dc = korva::devicecontrol;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  korva::fuzz::Input input(data, size);
  const std::wstring name = input.WideText();
  const dc::InstancePath result = dc::DeviceInstancePathFromInterfacePath(name);
  if (result.status != dc::InstancePathStatus::kFound) {
    korva::fuzz::Check(result.path.empty());
    return 0;
  }
  // The path is a piece of the name: no longer, no '#' left, at least one '\', no lower-case a-z.
  korva::fuzz::Check(result.path.size() + 4 < name.size() + 1);
  korva::fuzz::Check(result.path.find(L'#') == std::wstring::npos);
  korva::fuzz::Check(result.path.find(L'\\') != std::wstring::npos);
  for (const wchar_t c : result.path) korva::fuzz::Check(c < L'a' || c > L'z');
  return 0;
}
