// Appending printf-formatted text to small text files (the access log and its kind).
#pragma once

#include <cstdarg>
#include <cstdio>

namespace korva {

// Opens `path` (ANSI) in C text-append mode, formats the message, writes it and closes the file.
// Text mode turns each "\n" into "\r\n". Returns 0, or the errno of the step that failed (EIO when
// the C library gave none). A failed format or write is logged; a failed open is not (its caller
// decides whether it is worth a line).
[[nodiscard]] int AppendFormattedText(const char* path, const char* format, ...)
    __attribute__((format(__MINGW_PRINTF_FORMAT, 2, 3)));
[[nodiscard]] int AppendFormattedTextV(const char* path, const char* format, va_list args);

}  // namespace korva
