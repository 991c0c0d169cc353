// Iterative, depth-capped JSON parsing into a RapidJSON document.
#include "settings/core/json_text.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

namespace korva::json {
namespace {

// Hands every SAX event on to the document, refusing an array or object that opens too deep.
class DepthCappedHandler {
 public:
  DepthCappedHandler(rapidjson::Document& target, std::size_t maxDepth) : target_(target), maxDepth_(maxDepth) {}

  bool Null() { return target_.Null(); }
  bool Bool(bool b) { return target_.Bool(b); }
  bool Int(int i) { return target_.Int(i); }
  bool Uint(unsigned u) { return target_.Uint(u); }
  bool Int64(std::int64_t i) { return target_.Int64(i); }
  bool Uint64(std::uint64_t u) { return target_.Uint64(u); }
  bool Double(double d) { return target_.Double(d); }
  bool RawNumber(const char* s, rapidjson::SizeType n, bool copy) { return target_.RawNumber(s, n, copy); }
  bool String(const char* s, rapidjson::SizeType n, bool copy) { return target_.String(s, n, copy); }
  bool Key(const char* s, rapidjson::SizeType n, bool copy) { return target_.Key(s, n, copy); }
  bool StartObject() { return Open() && target_.StartObject(); }
  bool EndObject(rapidjson::SizeType members) {
    --depth_;
    return target_.EndObject(members);
  }
  bool StartArray() { return Open() && target_.StartArray(); }
  bool EndArray(rapidjson::SizeType elements) {
    --depth_;
    return target_.EndArray(elements);
  }

  [[nodiscard]] bool tooDeep() const noexcept { return tooDeep_; }

 private:
  bool Open() {
    if (depth_ == maxDepth_) {
      tooDeep_ = true;
      return false;
    }
    ++depth_;
    return true;
  }

  rapidjson::Document& target_;
  std::size_t maxDepth_;
  std::size_t depth_ = 0;
  bool tooDeep_ = false;
};

}  // namespace

ParseOutcome ParseBounded(const std::string& text, rapidjson::Document& document, std::size_t maxDepth) {
  ParseOutcome outcome;
  auto generator = [&](rapidjson::Document& target) {
    DepthCappedHandler handler(target, maxDepth);
    rapidjson::StringStream stream(text.c_str());
    rapidjson::Reader reader;
    const rapidjson::ParseResult result = reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
    outcome.ok = !result.IsError();
    outcome.offset = result.Offset();
    outcome.tooDeep = handler.tooDeep();
    if (outcome.tooDeep) {
      outcome.reason = "nesting deeper than " + std::to_string(maxDepth) + " levels";
    } else if (!outcome.ok) {
      outcome.reason = rapidjson::GetParseError_En(result.Code());
    }
    return outcome.ok;
  };
  document.Populate(generator);
  return outcome;
}

}  // namespace korva::json
