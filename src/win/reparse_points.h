// Which reparse points redirect an open to another place.
#pragma once

namespace korva::win {

// Whether the reparse point at `path` redirects opens (a junction, a mount point, a symbolic
// link): a name surrogate, or a tag that cannot be read. A compressed, deduplicated or cloud file
// or folder only stores its data elsewhere.
bool ReparsePointRedirects(const wchar_t* path) noexcept;

}  // namespace korva::win
