// The encrypted-volume handler: watches the protection status of volumes and blocks devices
// whose status requires it.
#pragma once

#include <windows.h>
#include <dbt.h>

#include <string>

class EncryptDeviceHandler {
 public:
  // kind 1: a device arrived; 2: a custom volume event (subKind 1 encryption status change,
  // 2 volume change); 3: monitoring switched on.
  void DeviceHandler(PDEV_BROADCAST_HDR header, int kind, int subKind);
  // Drops the volume notifications registered for the device with this instance path.
  void UnregisterDiskNotification(const std::wstring& instancePath);
  // Drops every per-volume notification.
  void UnregisterAllDiskNotification();
};
