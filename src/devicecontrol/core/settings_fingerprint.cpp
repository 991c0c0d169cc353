// The settings reaction's fingerprint: which values count, and the hash that folds them.
#include "devicecontrol/core/settings_fingerprint.h"

#include "settings/core/agent_constants.h"

namespace korva::devicecontrol {

namespace {

bool SameText(std::string_view a, std::string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

}  // namespace

bool IsAgentsOwnSettingsValue(std::string_view subkey, std::string_view name) noexcept {
  if (subkey.empty()) return SameText(name, kFilterNeededValue);
  return SameText(subkey, "AuditSettings") && (SameText(name, "LoggedOnUser") || SameText(name, "IsSettingsModified"));
}

void Fingerprint::Add(std::string_view bytes) noexcept {
  for (const char c : bytes) {
    hash_ ^= static_cast<unsigned char>(c);
    hash_ *= 1099511628211ull;
  }
  Add(static_cast<std::uint64_t>(bytes.size()) ^ 0x9E3779B97F4A7C15ull);  // ends the part: "ab"+"c" != "a"+"bc"
}

void Fingerprint::Add(std::uint64_t number) noexcept {
  for (int i = 0; i < 8; ++i) {
    hash_ ^= static_cast<unsigned char>(number >> (8 * i));
    hash_ *= 1099511628211ull;
  }
}

}  // namespace korva::devicecontrol
