// Sending a user-defined control code to this service.
#include "shared/service_control.h"

#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/service_state.h"
#include "win/services.h"

DWORD SendControl(DWORD code) {
  return korva::log::ScopedGuarded(__func__, static_cast<DWORD>(ERROR_INVALID_FUNCTION), [code]() -> DWORD {
    if (code < korva::kFirstUserControl || code > korva::kLastUserControl) {
      KLOG_ERROR_AS("SendControl") << "Control code " << code << " is outside 128-255; refused.";
      return ERROR_INVALID_PARAMETER;
    }
    const korva::win::UniqueServiceHandle service =
        korva::win::OpenServiceByName(kAgentServiceName, SERVICE_USER_DEFINED_CONTROL);
    if (!service) {
      return korva::LogLastError("SendControl", "Unable to open the service to send control code ", code, ".");
    }
    SERVICE_STATUS status{};
    const DWORD result = ControlService(service.get(), code, &status) ? ERROR_SUCCESS : GetLastError();
    KLOG_INFO_AS("SendControl") << "Control code " << code << " sent with result :" << result;
    return result;
  });
}
