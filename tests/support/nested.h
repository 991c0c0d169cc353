// `depth` openings, then as many closings: JSON nested that deep. Free of Windows for the native core tests.
#pragma once

#include <string>

namespace korva::test {

inline std::string Nested(std::size_t depth, const std::string& open, char close) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) text += open;
  return text.append(depth, close);
}

}  // namespace korva::test
