// The file-audit filter: whether it is needed, and its attachment timer cycle.
#pragma once

#include <windows.h>

#include <string>

// 1 when the file-audit filter is required on this machine, 0 otherwise.
int CheckQVFAFilterRequirement();
// Filter timer callback: one pass of the attachment cycle.
VOID CALLBACK QVFAFilterTimerRoutine(PVOID parameter, BOOLEAN timerFired);
// Attaches the filter to a newly seen removable drive.
void AttachFilterToDrive(const std::wstring& drive);
