// File shadow. For now each routine logs its entry and exit and starts nothing.
#include "fileaudit/file_shadow.h"

#include "settings/log.h"

void UpdateRegistryForDeviceControlPolicy() { KLOG_SCOPE(); }

void ExecuteFileShadowApplication(const std::wstring& /*drivePath*/) { KLOG_SCOPE(); }
