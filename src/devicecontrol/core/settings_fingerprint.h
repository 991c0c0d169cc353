// What the settings reaction depends on, folded into one number: the values under the watched
// settings key (except the ones the agent writes there itself) and the stamps of the policy and
// grant files. A settled change whose fingerprint equals the last reaction's needs no reaction,
// so the agent's own writes (the logged-on user at a logon, the filter flag) start no program.
#pragma once

#include <cstdint>
#include <string_view>

namespace korva::devicecontrol {

// Values the agent itself writes under the settings key, as "<subkey path>\<name>" relative to it
// ("" for the key itself), compared without regard to ASCII case.
bool IsAgentsOwnSettingsValue(std::string_view subkey, std::string_view name) noexcept;

// FNV-1a, 64 bits: the fingerprint is built by feeding it each part in turn.
class Fingerprint {
 public:
  void Add(std::string_view bytes) noexcept;
  void Add(std::uint64_t number) noexcept;
  [[nodiscard]] std::uint64_t value() const noexcept { return hash_; }

 private:
  std::uint64_t hash_ = 14695981039346656037ull;
};

}  // namespace korva::devicecontrol
