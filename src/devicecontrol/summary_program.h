// The device-event summary program ("korvaDevCtrlSummary.exe"), which records device events: run
// for each device-interface arrival or removal (the secure-device operation) and for an enumeration
// request (the start-up, the settings reaction and the RFCOMM monitor).
#pragma once

#include <windows.h>
#include <dbt.h>

#include <string>

#include "devicecontrol/action_program.h"           // the action program, which callers of these use too
#include "devicecontrol/core/device_action_text.h"  // the event classes and kinds

// Turns a device-interface arrival or removal into its device instance path and runs the
// summary program for it. Returns 0.
[[nodiscard]] DWORD ProcessSecureDeviceOperation(PDEV_BROADCAST_DEVICEINTERFACE_W header, DWORD eventType);
// Runs the summary program for an event class, kind and device instance path (an enumeration:
// kEnumerationEventClass, kEnumerationEventKind, kEnumerationInstancePath of
// korva::devicecontrol).
void ExecuteDeviceEventAction(int eventClass, int eventKind, const std::wstring& instancePath);
