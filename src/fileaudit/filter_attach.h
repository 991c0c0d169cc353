// Attaching the file-audit filter to one drive through its control program, and what a drive new to
// the removable drive list gets.
#pragma once

#include <windows.h>

#include <string>

// Attaches the filter to a newly listed removable drive, starting the driver first when it is not
// running and the filter is wanted. The control program's exit code is not examined.
void AttachFilterToDrive(const std::wstring& drive);
// Attaches the filter to `drive`, starting the driver first when it is not running. 0 when the
// filter was started on the drive now (exit codes 0, 1508, 1641, 3010), else the exit code.
[[nodiscard]] int IsFilterAttachedToDrive(const std::wstring& drive);

namespace korva::fileaudit {
// What a drive new to the removable drive list gets: AttachFilterToDrive, then the file-shadow
// program. The service hands it to device control's drive inventory as its new-drive hook.
void StartAuditOnNewDrive(const std::wstring& drive);
// "isQVFANeeded" of the QVM settings, 1 when it cannot be read (a text that is no number
// included). The start-up stores it as the text "1" or "0", an administrator may store a DWORD:
// both are understood.
DWORD ReadFilterNeeded();
}  // namespace korva::fileaudit
