// UTF-8 <-> UTF-16 conversions into heap blocks.
#include "settings/string_conversion.h"

#include <windows.h>

#include <cstdlib>

#include "settings/error_text.h"
#include "settings/log.h"

void ChangeToWideStr(const char* text, wchar_t** out) {
  korva::log::ScopedGuardedVoid(__func__, [&] {
    if (text == nullptr) {
      KLOG_ERROR_AS("ChangeToWideStr") << "AnsiString is empty!";
      return;
    }
    const int needed = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    if (needed <= 0) {
      printErrorMsgForID(GetLastError());
      return;
    }
    auto* wide = static_cast<wchar_t*>(std::calloc(static_cast<std::size_t>(needed) + 1, sizeof(wchar_t)));
    if (wide == nullptr) return;
    if (MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, needed) == 0) {
      printErrorMsgForID(GetLastError());
      std::free(wide);
      return;
    }
    *out = wide;
  });
}

std::string ChangeToMultiByteStr(const wchar_t* text) {
  return korva::log::ScopedGuarded(__func__, std::string(), [&] {
    if (text == nullptr) return std::string();
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (needed <= 0) {
      printErrorMsgForID(GetLastError());
      return std::string();
    }
    std::string utf8(static_cast<std::size_t>(needed), '\0');
    if (WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8.data(), needed, nullptr, nullptr) == 0) {
      printErrorMsgForID(GetLastError());
      return std::string();
    }
    utf8.resize(static_cast<std::size_t>(needed) - 1);  // the measured size counts the NUL
    return utf8;
  });
}
