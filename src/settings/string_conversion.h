// UTF-8 <-> UTF-16 conversions: into a wide heap block for callers that hand strings on as raw
// pointers, and back into a std::string.
#pragma once

#include <string>

// UTF-8 text to a new zero-filled wide heap block the caller owns (win::UniqueMallocText<wchar_t>).
// A null input logs "AnsiString is empty!" (the system's own wording, though the text is UTF-8) and
// leaves `*out` unset.
void ChangeToWideStr(const char* text, wchar_t** out);
// UTF-16 text to UTF-8; empty on a null input or a failed conversion (logged).
std::string ChangeToMultiByteStr(const wchar_t* text);
