// The service control handler: stop, shutdown, pause, power, device and session controls.
#include "service/control_handler.h"

#include <objbase.h>
#include <wtsapi32.h>

#include <array>
#include <cstdio>
#include <string>

#include "devicecontrol/device_notifications.h"
#include "devicecontrol/summary_runs.h"
#include "fileaudit/file_shadow.h"
#include "ondemand/ondemand_control.h"
#include "service/notifications.h"
#include "service/service_status.h"
#include "settings/core/agent_constants.h"
#include "settings/log.h"
#include "shared/agent_environment.h"

namespace {

constexpr const char* kHandler = "HandlerEx";
constexpr DWORD kUserDefinedStop = 193;
constexpr DWORD kManualRefresh = 134;
// The handler never keeps the service control manager waiting longer than this for a
// notification thread; a slower one goes on running after the handler has returned.
constexpr DWORD kNotificationWaitMs = 20000;

bool IsRefusedUserControl(DWORD control) {
  return control >= korva::kFirstUserControl && control <= korva::kLastUserControl && control != kUserDefinedStop;
}

// A stop or the user stop behind a stop or shutdown under way, or a shutdown behind a shutdown. A
// shutdown behind a stop is carried out: the machine is going down, and its own steps (the start
// type restored, its row and notification, no more programs started) are still owed.
bool RepeatsAnEnd(DWORD control) {
  if (control == SERVICE_CONTROL_SHUTDOWN) return ShutdownInProgressFlag.load() != 0;
  return (control == SERVICE_CONTROL_STOP || control == kUserDefinedStop) && ServiceIsEnding();
}

void StopSequence() {
  ServiceStopRequested.store(true);
  StopTESKProcess();
  (void)ChangeServiceStatus(SERVICE_STOP_PENDING);
  korva::RunNotificationThread(&ManualServiceStopCode, kNotificationWaitMs);
  SetEvent(ServiceStopEvent);
  // On the handler's thread, which holds no COM initialisation of its own: the system's own step,
  // kept.
  CoUninitialize();
  KLOG_INFO_AS(kHandler) << "SERVICE_CONTROL_STOP Event (Manual Service Stop) - end of block.";
}

void OnPause() {
  KLOG_INFO_AS(kHandler) << "Service Control Pause notification is received.";
  (void)ChangeServiceStatus(SERVICE_PAUSED);
  KLOG_INFO_AS(kHandler) << "Service Control Pause notification - end of block.";
}

void OnShutdown() {
  KLOG_INFO_AS(kHandler) << "Service Control Shutdown notification is received.";
  ShutdownInProgressFlag.store(1);
  // No waiting summary can start any more (every launch is refused now): each is told at once.
  korva::devicecontrol::DropWaitingSummaries();
  if (RestoreStartTypeFlag.load() != 0) (void)ChangeServiceStartupTypeToAuto(kAgentServiceName);
  PrintAgentServiceAccessLog("Machine_Shutdown_Notification");
  (void)ChangeServiceStatus(SERVICE_STOP_PENDING);
  korva::RunNotificationThread(&MachineShutdownCode, kNotificationWaitMs);
  SetEvent(ServiceStopEvent);
  KLOG_INFO_AS(kHandler) << "Service Control Shutdown notification - end of block.";
}

DWORD OnDeviceEvent(DWORD eventType, LPVOID eventData) {
  KLOG_INFO_AS(kHandler) << "Device Notification Event is received.";
  PrintAgentServiceAccessLog("Device_Event_Notification");
  const DWORD result = DeviceEventNotify(eventType, static_cast<PDEV_BROADCAST_HDR>(eventData));
  KLOG_INFO_AS(kHandler) << "Device Notification Event - end of block.";
  return result;
}

void OnSuspend() {
  KLOG_INFO_AS(kHandler) << "PBT_APMSUSPEND is triggered.";
  // Signalled once the hibernate notification has run (or the wait ran out). Nothing waits on it
  // and it is not closed: it lives as long as the process. Kept as it stands, deliberately.
  const HANDLE suspended = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  korva::RunNotificationThread(&HibernateOrStandbyCode, kNotificationWaitMs);
  if (suspended != nullptr) SetEvent(suspended);
}

void OnPowerEvent(DWORD eventType) {
  KLOG_INFO_AS(kHandler) << "SERVICE_CONTROL_POWEREVENT is triggered.";
  switch (eventType) {
    case PBT_APMQUERYSUSPEND:
      KLOG_INFO_AS(kHandler) << "PBT_APMQUERYSUSPEND is triggered.";
      break;
    case PBT_APMSUSPEND:
      OnSuspend();
      break;
    case PBT_APMRESUMESUSPEND:
      KLOG_INFO_AS(kHandler) << "PBT_APMRESUMESUSPEND is triggered.";
      korva::RunNotificationThread(&ResumeCode, 0);
      break;
    default:
      break;
  }
  KLOG_INFO_AS(kHandler) << "SERVICE_CONTROL_POWEREVENT Event - end of block.";
}

void OnSessionChange(DWORD eventType, LPVOID eventData) {
  KLOG_INFO_AS(kHandler) << "SERVICE_CONTROL_SESSIONCHANGE Event is received.";
  const auto* notification = static_cast<const WTSSESSION_NOTIFICATION*>(eventData);
  const DWORD sessionId = notification != nullptr ? notification->dwSessionId : 0;
  if (eventType == WTS_SESSION_LOGOFF) {
    KLOG_INFO_AS(kHandler) << "User logoff event notification is received for session id :" << sessionId;
    PrintAgentServiceAccessLog("User_Logoff_Notification");
  } else if (eventType == WTS_SESSION_LOGON) {
    KLOG_INFO_AS(kHandler) << "User logon event notification is received for session id :" << sessionId;
    if (AssumedLogonFlag.load() == 1 && sessionId == 0) {
      KLOG_INFO_AS(kHandler) << "As the User logon event notification received and the assumed logon session id are "
                                "same we have skipped the logon policy for the session id :"
                             << sessionId;
    } else {
      PrintAgentServiceAccessLog("User_Logon_Notification");
      UpdateRegistryForDeviceControlPolicy(sessionId);
    }
  }
  KLOG_INFO_AS(kHandler) << "SERVICE_CONTROL_SESSIONCHANGE Event - end of block.";
}

// A manual policy refresh: kept deliberately for the control code 134, which the user-range refusal
// in HandlerEx stops before it gets here.
void OnManualRefresh() {
  KLOG_INFO_AS(kHandler) << "Manual Refresh Policy Message notification is received.";
  PrintAgentServiceAccessLog("Manual_Refresh_Notification");
  if (RestoreStartTypeFlag.load() != 0) (void)ChangeServiceStartupTypeToAuto(kAgentServiceName);
}

DWORD Dispatch(DWORD control, DWORD eventType, LPVOID eventData) {
  if (IsRefusedUserControl(control)) {
    // "Contrls" is the system's own spelling.
    KLOG_INFO_AS(kHandler) << "User-Defined Contrls are currently not being accepted!";
    return NO_ERROR;
  }
  // The manager may deliver a control that reached it before the service said it was stopping (a
  // second stop racing the first) once the handler is free again. The stop under way already does
  // what it would: ending the service a second time would run the stop's programs and notification
  // again while ServiceMain finishes.
  if (RepeatsAnEnd(control)) {
    KLOG_INFO_AS(kHandler) << "The service is already stopping; control " << control << " is not carried out.";
    return NO_ERROR;
  }
  switch (control) {
    case SERVICE_CONTROL_STOP:
      KLOG_INFO_AS(kHandler) << "SERVICE_CONTROL_STOP Event (Manual Service Stop) is triggered.";
      StopSequence();
      break;
    case kUserDefinedStop:
      KLOG_INFO_AS(kHandler) << "SERVICE_USER_STOP Event (Manual user defined Service Stop) is triggered.";
      StopSequence();
      break;
    case SERVICE_CONTROL_PAUSE:
      OnPause();
      break;
    case SERVICE_CONTROL_SHUTDOWN:
      OnShutdown();
      break;
    case SERVICE_CONTROL_DEVICEEVENT:
      return OnDeviceEvent(eventType, eventData);
    case SERVICE_CONTROL_POWEREVENT:
      OnPowerEvent(eventType);
      break;
    case SERVICE_CONTROL_SESSIONCHANGE:
      OnSessionChange(eventType, eventData);
      break;
    case kManualRefresh:
      OnManualRefresh();
      break;
    default:
      // Once a stop has begun the service no longer runs: it does not say so again (the status
      // routine refuses that too once STOP_PENDING has been reported).
      if (!ServiceIsEnding()) (void)ChangeServiceStatus(SERVICE_RUNNING);
      break;
  }
  return NO_ERROR;
}

}  // namespace

DWORD WINAPI HandlerEx(DWORD control, DWORD eventType, LPVOID eventData, LPVOID /*context*/) {
  // The handler's own entry and exit lines: "Method", no blanks around the control code and the
  // capital O of "End Of" are the system's own.
  // Laid out in place: nothing the handler does before its guard may throw into the dispatcher.
  std::array<char, 64> entry{};
  (void)std::snprintf(entry.data(), entry.size(), "@@@ Inside HandlerEx Method with control word%lu@@@",
                      static_cast<unsigned long>(control));
  const korva::log::Scope scope(kHandler, entry.data(), "@@@ End Of HandlerEx Method @@@");
  const ControlHandlerThreadMark onHandlerThread;
  return korva::log::Guarded(kHandler, static_cast<DWORD>(NO_ERROR),
                             [=] { return Dispatch(control, eventType, eventData); });
}
