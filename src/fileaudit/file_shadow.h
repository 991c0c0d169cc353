// The file-shadow program and its policy registry values.
#pragma once

#include <string>

// Applies the device-control policy registry values for a user who has just logged on.
void UpdateRegistryForDeviceControlPolicy();
// Starts the file-shadow program for a newly seen removable drive.
void ExecuteFileShadowApplication(const std::wstring& drivePath);
