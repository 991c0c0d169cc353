// Service start-up for now: register the handler, report RUNNING, wait for the stop event.
// The full start-up (timers, worker threads, notifications) replaces this.
#include "service/service_main.h"

#include "service/entry_point.h"
#include "service/service_status.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "win/unique_handle.h"

HANDLE ServiceStopEvent = nullptr;
SERVICE_STATUS_HANDLE ServiceStatusHandle = nullptr;

DWORD WINAPI HandlerEx(DWORD control, DWORD /*eventType*/, LPVOID /*eventData*/, LPVOID /*context*/) {
  return korva::log::Guarded("HandlerEx", static_cast<DWORD>(NO_ERROR), [control]() -> DWORD {
    switch (control) {
      case SERVICE_CONTROL_STOP:
        KLOG_INFO_AS("HandlerEx") << "SERVICE_CONTROL_STOP Event (Manual Service Stop) is triggered.";
        (void)ChangeServiceStatus(SERVICE_STOP_PENDING);
        SetEvent(ServiceStopEvent);
        KLOG_INFO_AS("HandlerEx") << "SERVICE_CONTROL_STOP Event (Manual Service Stop) - end of block.";
        break;
      default:
        (void)ChangeServiceStatus(SERVICE_RUNNING);
        break;
    }
    return NO_ERROR;
  });
}

void WINAPI ServiceMain(DWORD /*argc*/, LPWSTR* /*argv*/) {
  KLOG_SCOPE();
  korva::log::GuardedVoid(__func__, [] {
    initialize();
    korva::win::UniqueHandle stopEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!stopEvent) {
      const DWORD error = GetLastError();
      KLOG_ERROR_AS("ServiceMain") << "Create event failed due to the following error.";
      printErrorMsgForID(error);
      return;
    }
    ServiceStopEvent = stopEvent.get();
    ServiceStatusHandle = RegisterServiceCtrlHandlerExW(kAgentServiceName, HandlerEx, nullptr);
    if (ServiceStatusHandle == nullptr) {
      const DWORD error = GetLastError();
      KLOG_ERROR_AS("ServiceMain") << "RegisterServiceCtrlHandlerEx failed to register the callback due to following error.";
      printErrorMsgForID(error);
      return;
    }
    if (!ChangeServiceStatus(SERVICE_START_PENDING)) return;
    if (!ChangeServiceStatus(SERVICE_RUNNING)) {
      KLOG_ERROR_AS("ServiceMain") << "Unable to change the TESK agent service status.";
      return;
    }
    KLOG_INFO_AS("ServiceMain") << "TESK agent service started successfully.";
    KLOG_INFO_AS("ServiceMain") << "Waiting for shutdown Notification.";
    WaitForSingleObject(ServiceStopEvent, INFINITE);
    (void)ChangeServiceStatus(SERVICE_STOPPED);
  });
}
