// CRapidJSONClass: whole files to text, text to a RapidJSON document, and documents back to text.
#pragma once

#include <rapidjson/document.h>

#include <string>

// Stateless: every operation works on a document and strings the caller owns. Nothing throws out
// of it; failures are logged and reported through the result.
class CRapidJSONClass {
 public:
  // Reads the whole file into `out`, which ends at the file's first NUL byte. 0 when done (a short
  // read leaves `out` empty and still counts as done); otherwise the C runtime's error number of
  // the open, or -1.
  [[nodiscard]] static int FileToString(const std::wstring& path, std::string& out);
  // Parses `text` (up to its first NUL), iteratively and with its nesting capped
  // (settings/core/json_text.h). True when it parsed.
  [[nodiscard]] static bool StringToJsonDom(const std::string& text, rapidjson::Document& document);
  // FileToString, then StringToJsonDom. True when both succeeded.
  [[nodiscard]] static bool LoadJsonFromFile(const std::wstring& path, rapidjson::Document& document);
  // The document as compact text (no indentation). True unless something threw.
  [[nodiscard]] static bool JsonDomToString(const rapidjson::Document& document, std::string& out);
};
