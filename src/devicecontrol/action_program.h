// The device-control action program ("devctrlaction32/64.exe"), which blocks or restores devices
// for the logged-on user.
#pragma once

#include <windows.h>

#include <string>

#include "devicecontrol/core/device_action_text.h"  // the action codes

// Finds the logged-on user and runs the action program with `actionCode` (0 means 1).
void ProcessSecureDeviceOperation(int actionCode);
// The same, logged the same way, for a caller that acts on the outcome: true when the action program
// ran and ended with 0.
[[nodiscard]] bool RunSecureDeviceOperation(int actionCode);
// Starts the action program; the launcher's result (0 = started).
[[nodiscard]] DWORD ExecuteDeviceApplication(int actionCode, const std::wstring& userName);
