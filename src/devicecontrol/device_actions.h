// The device-control helper programs: the action program ("devctrlaction32/64.exe"), which blocks
// or restores devices for the logged-on user, and the device-event summary program
// ("korvaDevCtrlSummary.exe"), which records device events.
#pragma once

#include <windows.h>
#include <dbt.h>

#include <string>

// Finds the logged-on user and runs the action program with `actionCode` (0 means 1).
void ProcessSecureDeviceOperation(int actionCode);
// Turns a device-interface arrival or removal into its device instance path and runs the
// summary program for it. Returns 0.
DWORD ProcessSecureDeviceOperation(PDEV_BROADCAST_DEVICEINTERFACE_W header, DWORD eventType);
// Starts the action program; the launcher's result (0 = started).
DWORD ExecuteDeviceApplication(int actionCode, const std::wstring& userName);
// Runs the summary program for an event class (9: enumeration), kind and device instance path.
void ExecuteDeviceEventAction(int eventClass, int eventKind, const std::wstring& instancePath);
