// File shadow. Placeholder until the file-shadow routines land: each routine logs its entry and exit.
#include "fileaudit/file_shadow.h"

#include "settings/log.h"

void UpdateRegistryForDeviceControlPolicy() { KLOG_SCOPE(); }

void ExecuteFileShadowApplication(const std::wstring& /*drivePath*/) { KLOG_SCOPE(); }
