// CRapidJSONClass: whole files to text, text to a RapidJSON document, and documents back to text.
#pragma once

#include <windows.h>
#include <rapidjson/document.h>

#include <functional>
#include <string>

// How a file is opened to be read: with `flags` for CreateFileW (a link in the file's place opened
// itself, say), and read only when `accept`, if given, takes the open handle (it logs why not).
struct JsonFileOpenRules {
  DWORD flags = FILE_ATTRIBUTE_NORMAL;
  std::function<bool(HANDLE)> accept;
};

// Stateless: every operation works on a document and strings the caller owns. Nothing throws out
// of it; failures are logged and reported through the result.
class CRapidJSONClass {
 public:
  using OpenRules = JsonFileOpenRules;
  // Reads the whole file into `out`, which ends at the file's first NUL byte. 0 when done (a short
  // read leaves `out` empty and still counts as done); otherwise the C runtime's error number of
  // the open, or -1 (a file `rules` refuse among them).
  [[nodiscard]] static int FileToString(const std::wstring& path, std::string& out, const OpenRules& rules = {});
  // Parses `text` (up to its first NUL), iteratively and with its nesting capped
  // (settings/core/json_text.h). True when it parsed.
  [[nodiscard]] static bool StringToJsonDom(const std::string& text, rapidjson::Document& document);
  // FileToString, then StringToJsonDom. True when both succeeded.
  [[nodiscard]] static bool LoadJsonFromFile(const std::wstring& path, rapidjson::Document& document,
                                             const OpenRules& rules = {});
  // The document as compact text (no indentation). True unless something threw.
  [[nodiscard]] static bool JsonDomToString(const rapidjson::Document& document, std::string& out);
};
