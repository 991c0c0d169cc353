// Links on the way to a file: a junction, symbolic link or mount point sends every open of what
// lies beyond it wherever it points. One that a user made can be re-pointed whenever that user
// likes, so a path through it is not the agent's own however well the folder at its end is
// secured: the agent would start, load, read and write whatever the user chose.
#pragma once

#include <string>
#include <string_view>

namespace korva {

// The first step of `path` (each folder below the drive's root, then the path itself) that is a
// link owned by anyone but SYSTEM, the Administrators or TrustedInstaller (Windows' own links,
// and a volume an administrator mounted in a folder, pass), or that the agent cannot check: its
// attributes or a link's owner cannot be read. Empty when there is none. A step that does not
// exist ends the walk: nothing beyond it can be reached through a link yet. Only for a path that
// starts "X:\" (one that passed the folder rule); any other gives empty.
std::wstring FirstForeignLink(std::wstring_view path);
// The same for a path in the ANSI code page.
std::string FirstForeignLink(std::string_view path);

// Whether the agent may open `path` (in the ANSI code page): true when no step of it is such a
// link. Otherwise logs at error, as `function`, "<what> [<path>] is reached through the link
// [<step>], which is not owned by SYSTEM, the Administrators group or TrustedInstaller;
// <consequence>." and gives false.
bool NoForeignLinkOn(const char* function, const std::string& path, const char* what, const char* consequence);

}  // namespace korva
