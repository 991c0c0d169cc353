// Device instance paths and the device helpers' folders and argument texts.
#include "devicecontrol/core/device_action_text.h"

#include <algorithm>
#include <map>

#include "process/core/command_line.h"

namespace korva::devicecontrol {

namespace {

// The "\\?\" that starts every device interface path.
constexpr std::size_t kInterfacePrefixLength = 4;

}  // namespace

InstancePath DeviceInstancePathFromInterfacePath(std::wstring_view interfacePath) {
  InstancePath result;
  const std::wstring_view rest = interfacePath.size() > kInterfacePrefixLength
                                     ? interfacePath.substr(kInterfacePrefixLength)
                                     : std::wstring_view();
  const std::size_t lastHash = rest.rfind(L'#');
  if (lastHash == std::wstring_view::npos) {
    result.status = InstancePathStatus::kNoHash;
    return result;
  }
  std::wstring path(rest.substr(0, lastHash));
  for (wchar_t& c : path) {
    if (c == L'#') {
      c = L'\\';
    } else if (c >= L'a' && c <= L'z') {
      c = static_cast<wchar_t>(c - L'a' + L'A');
    }
  }
  if (path.find(L'\\') == std::wstring::npos) {
    result.status = InstancePathStatus::kNoSlash;
    return result;
  }
  result.status = InstancePathStatus::kFound;
  result.path = std::move(path);
  return result;
}

int EffectiveActionCode(int actionCode) noexcept { return actionCode == 0 ? 1 : actionCode; }

std::optional<std::wstring> ActionProgramArguments(int actionCode, std::wstring_view userName) {
  const int code = EffectiveActionCode(actionCode);
  std::wstring arguments = L"-c " + std::to_wstring(code);
  if (code == 2 || code == 3 || code == 7) {
    if (userName.find_first_of(std::wstring_view(L"\"\0", 2)) != std::wstring_view::npos) return std::nullopt;
    arguments += L" ";
    arguments += L"-n";
    arguments += L" ";
    arguments += userName;
  }
  return arguments;
}

const wchar_t* ActionProgramName(bool on64BitWindows) noexcept {
  return on64BitWindows ? L"devctrlaction64.exe" : L"devctrlaction32.exe";
}

std::wstring ActionProgramFolder(std::wstring_view installationFolder) {
  std::wstring folder(installationFolder);
  folder += L"\\";
  folder += L"bin";
  folder += L"\\";
  return folder;
}

std::string SummaryProgramFolder(std::string_view installationFolder) {
  std::string folder(installationFolder);
  folder += "bin";
  return folder;
}

std::string SummaryProgramPath(std::string_view folder) {
  std::string path(folder);
  path += "\\";
  path += "korvaDevCtrlSummary.exe";
  return path;
}

std::optional<std::string> SummaryArguments(int eventClass, int eventKind, std::string_view instancePathUtf8) {
  const std::optional<std::string> quotedPath = process::QuoteArgument(instancePathUtf8);
  if (!quotedPath) return std::nullopt;
  std::string arguments = "-s";
  arguments += " ";
  arguments += eventClass == kEnumerationEventClass ? "ET_ENUM" : "ET_COL";
  arguments += " ";
  arguments += std::to_string(eventClass);
  arguments += " ";
  arguments += std::to_string(eventKind);
  arguments += " ";
  arguments += *quotedPath;
  return arguments;
}

SummaryTurn TurnOfNewSummary(std::size_t placesTaken, std::size_t waiting) noexcept {
  if (placesTaken < kMaxRunningSummaries && waiting == 0) return SummaryTurn::kStartNow;
  return waiting < kMaxWaitingSummaries ? SummaryTurn::kWait : SummaryTurn::kMakeRoom;
}

bool SummaryGivesUpPlace(bool ended, std::uint64_t ranMs, std::size_t overdueRunning) noexcept {
  return ended || (ranMs >= kSummaryPlaceMs && overdueRunning < kMaxOverdueSummaries);
}

std::size_t WaitingSummaryToDrop(const std::vector<std::string_view>& waiting, std::string_view newDevice) {
  // Each device's count and its oldest place; the new summary comes last.
  std::map<std::string_view, std::pair<std::size_t, std::size_t>> devices;
  for (std::size_t i = 0; i <= waiting.size(); ++i) {
    const std::string_view device = i < waiting.size() ? waiting[i] : newDevice;
    auto [entry, added] = devices.try_emplace(device, 0, i);
    ++entry->second.first;
  }
  std::pair<std::size_t, std::size_t> most{0, waiting.size()};
  for (const auto& [device, countAndOldest] : devices) {
    const auto [count, oldest] = countAndOldest;
    if (count > most.first || (count == most.first && oldest < most.second)) most = {count, oldest};
  }
  return most.second;
}

std::string_view SummaryDeviceKey(std::string_view instancePath) noexcept {
  const std::size_t last = instancePath.rfind('\\');
  std::string_view device = last == std::string_view::npos ? instancePath : instancePath.substr(0, last);
  // A composite device's interfaces and a HID device's collections are the one device.
  for (const std::string_view part : {std::string_view("&MI_"), std::string_view("&COL")}) {
    device = device.substr(0, std::min(device.size(), device.find(part)));
  }
  return device;
}

}  // namespace korva::devicecontrol
