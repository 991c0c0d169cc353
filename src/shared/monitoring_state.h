// The monitoring switches the settings-change monitor keeps, read by the device-event paths.
#pragma once

#include <windows.h>

#include <atomic>

// Non-zero: encrypted-volume monitoring is on (registry "MonitorEncryptedDevice" of QVM\Settings).
// Written by UpdateMonitoringVariable (start-up and settings-monitor threads); read by the device
// events and the encrypted-volume handler.
extern std::atomic<LONG> MonitorEncryptedDevice;
