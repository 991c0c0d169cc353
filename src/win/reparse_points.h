// Which reparse points redirect an open to another place.
#pragma once

namespace korva::win {

// Whether the reparse point at `path` redirects opens (a junction, a mount point, a symbolic
// link): a name surrogate, or a tag that cannot be read. A compressed, deduplicated or cloud file
// or folder only stores its data elsewhere.
bool ReparsePointRedirects(const wchar_t* path) noexcept;
// The same for the file or folder open behind `file` (opened with FILE_FLAG_OPEN_REPARSE_POINT):
// false for one that is no reparse point at all.
bool OpenReparsePointRedirects(void* file) noexcept;

}  // namespace korva::win
