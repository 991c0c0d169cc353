// Parsing outside JSON without letting the input choose how much stack or memory it takes: the
// parse is iterative (its state lives on the heap) and nesting is capped, and files read whole
// have a size cap.
#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace korva::json {

// Far above anything the agent's own files hold (they nest three or four levels).
inline constexpr std::size_t kMaxNestingDepth = 64;
// The largest file any reader takes into memory whole.
inline constexpr std::uint64_t kMaxWholeFileBytes = std::uint64_t{16} * 1024 * 1024;

struct ParseOutcome {
  bool ok = false;
  bool tooDeep = false;    // stopped because an array or object opened below kMaxNestingDepth
  std::size_t offset = 0;  // where the parse stopped (bytes from the start)
  std::string reason;      // RapidJSON's own words for the error, or the nesting message
};

// Parses `text` up to its first NUL into `document`. On failure the document keeps what it held.
ParseOutcome ParseBounded(const std::string& text, rapidjson::Document& document,
                          std::size_t maxDepth = kMaxNestingDepth);

}  // namespace korva::json
