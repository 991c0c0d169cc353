// Appending text to small text files (the access log and its kind).
#pragma once

namespace korva {

// Opens `path` (ANSI) in C text-append mode, writes `text` (up to its NUL) and closes the file.
// Text mode turns each "\n" into "\r\n". Returns 0, or the errno of the step that failed (EIO when
// the C library gave none). A failed write is logged; a failed open is not (its caller decides
// whether it is worth a line).
[[nodiscard]] int AppendText(const char* path, const char* text);

}  // namespace korva
