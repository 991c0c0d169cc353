// The agent settings file: bounded parse, then every key read into plain values.
#include "fuzz_input.h"
#include "settings/core/agent_json.h"
#include "settings/core/json_text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  korva::fuzz::Input input(data, size);
  const bool on64BitWindows = (input.Number<std::uint8_t>() & 1) != 0;
  rapidjson::Document document;
  const korva::json::ParseOutcome outcome = korva::json::ParseBounded(input.Rest(), document);
  if (!outcome.ok || !document.IsObject()) return 0;
  const korva::agentjson::JsonSettings settings = korva::agentjson::ReadJsonSettings(document, on64BitWindows);
  korva::fuzz::Check(settings.effectiveServerPort == settings.serverPort ||
                     settings.effectiveServerPort == settings.serverSecPort);
  // The folder with its suffix, or none at all when the text holds a NUL (it would be cut short there).
  const std::string& folder = settings.installDirectory;
  const std::string_view suffix = korva::agentjson::kDeviceControlSuffix;
  korva::fuzz::Check(folder.empty() || (folder.size() >= suffix.size() && folder.find('\0') == std::string::npos &&
                                        folder.compare(folder.size() - suffix.size(), suffix.size(), suffix) == 0));
  return 0;
}
