// System message texts for Win32 error codes, and the log lines that report a failed call.
#include "settings/error_text.h"

#include "settings/log.h"
#include "win/unique_handle.h"

std::string GetErrorMsgForID(DWORD code) {
  return korva::log::ScopedGuarded(__func__, std::string(), [&] {
    char* text = nullptr;
    // The width mask keeps the text on one line.
    const DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                                            FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_MAX_WIDTH_MASK,
                                        nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                        reinterpret_cast<char*>(&text), 0, nullptr);
    const korva::win::UniqueLocalMemory owner(text);
    std::string message = length > 0 && text != nullptr ? std::string(text, length) : std::string();
    KLOG_DEBUG_AS("GetErrorMsgForID") << "Error Code    :" << static_cast<unsigned long>(code);
    KLOG_DEBUG_AS("GetErrorMsgForID") << "Error Message :" << message;
    return message;
  });
}

void printErrorMsgForID(DWORD code) {
  KLOG_SCOPE();
  KLOG_INFO << "Error ID      :" << static_cast<unsigned long>(code);
  KLOG_INFO << "Error Message :" << GetErrorMsgForID(code);
}

void DisplayErrorInfo(DWORD code) {
  KLOG_SCOPE();
  try {
    KLOG_INFO << "Error Code    :" << static_cast<unsigned long>(code);
    KLOG_INFO << "Error Message :" << GetErrorMsgForID(code);
  } catch (...) {
    KLOG_ERROR << "Exception while Obtaining error message from ID.";
  }
}
