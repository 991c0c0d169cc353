// The monitoring switch the settings reaction keeps, read by the device-event paths.
#pragma once

#include <windows.h>

#include <atomic>

// Non-zero: encrypted-volume monitoring is on (registry "MonitorEncryptedDevice" of QVM\Settings).
// Written by UpdateMonitoringVariable (service/settings_reaction.cpp; start-up and settings-monitor
// threads); read by the device events and the encrypted-volume handler.
extern std::atomic<LONG> MonitorEncryptedDevice;
