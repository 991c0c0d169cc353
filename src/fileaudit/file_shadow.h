// The file-shadow program and its policy registry values.
#pragma once

#include <windows.h>

#include <string>

// For a user who has just logged on in `sessionId`: records that session's user ("LoggedOnUser")
// and marks the audit settings modified ("IsSettingsModified" "1") under QVM\Settings\AuditSettings.
void UpdateRegistryForDeviceControlPolicy(DWORD sessionId);
// Starts the file-shadow program for a drive new to the removable drive list, or one the filter
// was newly started on.
void ExecuteFileShadowApplication(const std::wstring& drivePath);
