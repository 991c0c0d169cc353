// UTF-8 <-> UTF-16 conversions: into a wide heap block, and back into a std::string.
#include "settings/string_conversion.h"

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "settings/error_text.h"
#include "settings/log.h"
#include "win/strings.h"

void ChangeToWideStr(const char* text, wchar_t** out) {
  korva::log::ScopedGuardedVoid(__func__, [&] {
    if (text == nullptr) {
      KLOG_ERROR_AS("ChangeToWideStr") << "AnsiString is empty!";
      return;
    }
    const std::optional<std::wstring> wide = korva::win::TryUtf8ToWide(text);
    if (!wide) {
      korva::LogLastError("ChangeToWideStr");
      return;
    }
    auto* block = static_cast<wchar_t*>(std::calloc(wide->size() + 1, sizeof(wchar_t)));
    if (block == nullptr) return;
    std::memcpy(block, wide->c_str(), (wide->size() + 1) * sizeof(wchar_t));
    *out = block;
  });
}

std::string ChangeToMultiByteStr(const wchar_t* text) {
  return korva::log::ScopedGuarded(__func__, std::string(), [&] {
    if (text == nullptr) return std::string();
    std::optional<std::string> utf8 = korva::win::TryWideToUtf8(text);
    if (!utf8) {
      korva::LogLastError("ChangeToMultiByteStr");
      return std::string();
    }
    return std::move(*utf8);
  });
}
