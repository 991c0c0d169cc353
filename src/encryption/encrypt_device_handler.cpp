// Encrypted-volume handler. For now each method logs its entry and exit and changes nothing.
#include "encryption/encrypt_device_handler.h"

#include "settings/log.h"

void EncryptDeviceHandler::DeviceHandler(PDEV_BROADCAST_HDR /*header*/, int /*kind*/, int /*subKind*/) {
  KLOG_SCOPE_AS("EncryptDeviceHandler::DeviceHandler");
}

void EncryptDeviceHandler::UnregisterDiskNotification(const std::wstring& /*instancePath*/) {
  KLOG_SCOPE_AS("EncryptDeviceHandler::UnregisterDiskNotification");
}

void EncryptDeviceHandler::UnregisterAllDiskNotification() {
  KLOG_SCOPE_AS("EncryptDeviceHandler::UnregisterAllDiskNotification");
}
