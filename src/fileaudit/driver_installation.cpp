// Filter driver installation. For now each routine logs its entry and exit and runs nothing.
#include "fileaudit/driver_installation.h"

#include "settings/log.h"

void DriverServiceExecution(int /*request*/) { KLOG_SCOPE(); }

void StartDriverUserApplication() { KLOG_SCOPE(); }
