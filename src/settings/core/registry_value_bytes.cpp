// How a registry value given as text becomes the bytes written for its type.
#include "settings/core/registry_value_bytes.h"

#include <cstring>

namespace korva::registry {

namespace {
constexpr std::uint32_t kRegSz = 1;
constexpr std::uint32_t kRegExpandSz = 2;
constexpr std::uint32_t kRegBinary = 3;
constexpr std::uint32_t kRegDword = 4;
constexpr std::uint32_t kRegMultiSz = 7;
constexpr std::uint32_t kRegQword = 11;
// A multi-string's size is its first string's length plus this many bytes, enough for the
// callers' short lists and their terminating pair of NULs. The fixed 15 is deliberate: callers
// end their lists within it.
constexpr std::uint32_t kMultiSzExtraBytes = 15;

bool IsBlank(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

template <typename T>
ValueBytes LittleEndian(T value) {
  ValueBytes out;
  out.writable = true;
  out.size = sizeof(T);
  out.data.resize(sizeof(T));
  for (std::size_t i = 0; i < sizeof(T); ++i) out.data[i] = static_cast<std::uint8_t>((value >> (8 * i)) & 0xFF);
  return out;
}
}  // namespace

std::int64_t ParseDecimal(const std::string& text) noexcept {
  std::size_t i = 0;
  while (i < text.size() && IsBlank(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  std::uint64_t magnitude = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    magnitude = magnitude * 10 + static_cast<std::uint64_t>(text[i] - '0');
  }
  if (negative) magnitude = 0 - magnitude;
  return static_cast<std::int64_t>(magnitude);
}

ValueBytes ValueBytesForType(std::uint32_t type, const std::string& text) {
  const std::size_t length = std::strlen(text.c_str());
  switch (type) {
    case kRegSz:
    case kRegExpandSz:
    case kRegBinary: {
      ValueBytes out;
      out.writable = true;
      out.size = static_cast<std::uint32_t>(length + 1);
      out.data.assign(text.c_str(), text.c_str() + length + 1);
      return out;
    }
    case kRegDword:
      return LittleEndian(static_cast<std::uint32_t>(static_cast<std::uint64_t>(ParseDecimal(text))));
    case kRegQword:
      return LittleEndian(static_cast<std::uint64_t>(ParseDecimal(text)));
    case kRegMultiSz: {
      ValueBytes out;
      out.writable = true;
      out.size = static_cast<std::uint32_t>(length + kMultiSzExtraBytes);
      out.data.assign(out.size, 0);
      std::memcpy(out.data.data(), text.data(), text.size() < out.size ? text.size() : out.size);
      return out;
    }
    default:
      return ValueBytes{};
  }
}

}  // namespace korva::registry
