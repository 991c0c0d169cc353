// Service start-up: ServiceMain (the subsystems' hooks, stop event, handler, timers, status) and
// InvokeMainThread (boot check, boot notification, start-up device action, worker threads).
#include "service/service_main.h"

#include <objbase.h>

#include <optional>

#include "devicecontrol/device_notifications.h"
#include "devicecontrol/drive_inventory.h"
#include "devicecontrol/restore_cycle.h"
#include "devicecontrol/rfcomm_monitor.h"
#include "devicecontrol/summary_program.h"
#include "devicecontrol/summary_runs.h"
#include "fileaudit/driver_installation.h"
#include "fileaudit/filter_cycle.h"
#include "ondemand/module_lock.h"
#include "pipe/pipe_client.h"
#include "power/power_tracking.h"
#include "process/sessions.h"
#include "service/agent_folder_access.h"
#include "service/control_handler.h"
#include "service/notifications.h"
#include "service/service_status.h"
#include "service/settings_reaction.h"
#include "service/wiring.h"
#include "settings/core/agent_constants.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "settings/machine_details.h"
#include "settings/registry.h"
#include "shared/agent_environment.h"
#include "tempaccess/temporary_access.h"
#include "win/startup_timeline.h"
#include "win/thread_name.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace {

constexpr const char* kServiceMain = "ServiceMain";
constexpr const char* kMainThread = "InvokeMainThread";

ULONGLONG SystemUptimeMs() { return GetTickCount64(); }
korva::UptimeSource g_uptimeSource = &SystemUptimeMs;

int DecideFilterRequirement() {
  const int needed = CheckQVFAFilterRequirement() != 0 ? 1 : 0;
  // Read back by the file-audit code (ReadFilterNeeded: the attach and each filter pass); a failed
  // write is not retried, and they then go by the value as it was (a missing one counts as needed).
  (void)writeValue(korva::kQvmSettingsKey, korva::kFilterNeededValue, REG_SZ, needed != 0 ? "1" : "0");
  KLOG_INFO_AS(kServiceMain) << "IsQVFANeeded:" << needed;
  return needed;
}

void ArmRevokeTimerQueue() {
  TempAccessRevokeTimerQueue = CreateTimerQueue();
  if (TempAccessRevokeTimerQueue == nullptr) {
    korva::LogLastError(kServiceMain,
                        "CreateTimerQueue for hTempAccessRevokeTimerQueue is failed due to following error.");
    korva::OweRevokeTimerQueue();
    return;
  }
  KLOG_INFO_AS(kServiceMain) << "hTempAccessRevokeTimerQueue is created successfully.";
  const long long nextRevoke = ProcessandUpdateTemporaryAccess(true);
  // Only 0 skips the timer, deliberately, though no grant in force gives the largest value; the
  // line is at error level, as the system writes it. A grant in force that ends at a time of its
  // own (a timed grant beside the one without an expiry that made it 0, or the end of a validity
  // period) still gets its revoke, and so does a revoke whose configuration run is owed.
  if (nextRevoke == 0) {
    KLOG_ERROR_AS(kServiceMain) << "No need to create a thread.";
    if (!korva::LastPassFoundRevokeTime() && !korva::RevokeOwed()) return;
  }
  // The start-up subtracts the daylight bias where the grant passes add it: deliberate.
  const long long now = korva::LocalTimeInSeconds(korva::DaylightBias::kSubtracted);
  korva::ArmTempAccessRevokeTimer(kServiceMain, nextRevoke, now);
}

void StartFileAuditing(int filterNeeded) {
  if (filterNeeded == 1) {
    DriverServiceExecution(korva::fileaudit::kDriverStart);
    UpdateRemovableDriveEntries(korva::devicecontrol::kStartNewDrives);
    StartDriverUserApplication();
  } else {
    KLOG_INFO_AS(kServiceMain) << "No need to start File Auditing Application.";
  }
}

void StopTimersAndReport() {
  korva::StopFilterCycle(kServiceMain);
  korva::devicecontrol::DropWaitingSummaries();
  // The shutdown notification records the shutdown too, but the handler waits for it only so long:
  // the process may end before it gets there. Whichever comes first records it; a run ends once.
  if (ShutdownInProgressFlag.load() == 0) {
    RecordServiceStopTime();
  } else {
    UpdatePowerEventStatus();
  }
  (void)ChangeServiceStatus(SERVICE_STOPPED);
}

// While the start-up is pending it may wait minutes for the filter's setup programs, longer than
// the wait hint that START_PENDING gives. Every 10 s this reports START_PENDING again with the next
// checkpoint, so the service control manager and whoever waits for the start see it progress
// rather than hang. Ended (any report under way finished) before the state moves on.
class StartPendingHeartbeat {
 public:
  StartPendingHeartbeat() {
    if (!CreateTimerQueueTimer(&timer_, nullptr, &Beat, nullptr, kIntervalMs, kIntervalMs, WT_EXECUTEDEFAULT)) {
      timer_ = nullptr;
      korva::LogLastError(kServiceMain, "The start-up's progress reports could not be set up.");
    }
  }
  StartPendingHeartbeat(const StartPendingHeartbeat&) = delete;
  StartPendingHeartbeat& operator=(const StartPendingHeartbeat&) = delete;
  ~StartPendingHeartbeat() {
    if (timer_ != nullptr) (void)DeleteTimerQueueTimer(nullptr, timer_, INVALID_HANDLE_VALUE);
  }

 private:
  static constexpr DWORD kIntervalMs = 10000;
  static VOID CALLBACK Beat(PVOID /*parameter*/, BOOLEAN /*timerFired*/) {
    (void)ChangeServiceStatus(SERVICE_START_PENDING);
  }
  HANDLE timer_ = nullptr;
};

// The forced-shutdown check's inputs as the start-up's first step read them. Written before
// InvokeMainThread, which reads them, is started.
struct ForcedShutdownInputs {
  LONGLONG lastBoot = 0;
  LONGLONG shutdown = 0;
};
ForcedShutdownInputs g_forcedShutdownInputs;

// What the start-up makes that must live until ServiceMain returns.
struct ServiceLifetime {
  korva::win::PublishedHandle stopEvent{ServiceStopEvent};
  std::optional<korva::win::ComInitialization> com;
};

// Runs the start-up in order; returns false when the service must not wait for the stop event.
bool RunStartUp(ServiceLifetime& lifetime) {
  KORVA_STARTUP_MARK("service-main");
  korva::WireSubsystems();
  initialize();
  // Before anything that may take minutes or fail.
  korva::TakeForcedShutdownInputs();
  korva::win::UniqueHandle stopEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!stopEvent) {
    korva::LogLastError(kServiceMain, "Create event failed due to the following error.");
    return false;
  }
  KLOG_DEBUG_AS(kServiceMain) << "Event Created Successfully.";
  lifetime.stopEvent.publish(std::move(stopEvent));
  ServiceStatusHandle = RegisterServiceCtrlHandlerExW(kAgentServiceName, HandlerEx, nullptr);
  if (ServiceStatusHandle == nullptr) {
    korva::LogLastError(kServiceMain,
                        "RegisterServiceCtrlHandlerEx failed to register the callback due to following error.");
    return false;
  }
  KLOG_DEBUG_AS(kServiceMain) << "RegisterServiceCtrlHandlerEx callback registration is successful.";
  KORVA_STARTUP_MARK("handler");
  korva::UpdateServiceAccessAndStartType();
  KORVA_STARTUP_MARK("access-and-start-type");
  // Before anything is loaded or started from them (the decryption library, the helper programs).
  // An installer that cannot set a folder's access list leaves it to this step.
  (void)korva::SecureAgentFolders();
  KORVA_STARTUP_MARK("agent-folders");
  // What the settings stand at before the start-up reads them (the filter decision, the grants, the
  // restore switch). The settings watcher takes its first look only much later and applies what
  // changed in between.
  korva::ServiceSettingsWatch().startBaseline = korva::SettingsFingerprintNow();
  const int filterNeeded = DecideFilterRequirement();
  if (filterNeeded == 1) korva::StartFilterCycle(kServiceMain);
  KORVA_STARTUP_MARK("filter-decision");
  ArmRevokeTimerQueue();
  KORVA_STARTUP_MARK("grants");
  if (!ChangeServiceStatus(SERVICE_START_PENDING)) return false;
  KORVA_STARTUP_MARK("start-pending");
  std::optional<StartPendingHeartbeat> heartbeat;
  // Only the filter's setup can outlast the wait hint; without it the start-up sets up no timer.
  if (filterNeeded == 1) heartbeat.emplace();
  FetchRestoreUnpluggedBlockedDevice();
  StartFileAuditing(filterNeeded);
  heartbeat.reset();
  KORVA_STARTUP_MARK("file-auditing");
  RegisterAllDeviceNotification();
  KORVA_STARTUP_MARK("device-notifications");
  lifetime.com.emplace(COINIT_MULTITHREADED);
  if (FAILED(lifetime.com->result())) {
    KLOG_ERROR_AS(kServiceMain) << "CoInitializeEx failed with HRESULT :"
                                << static_cast<unsigned long>(lifetime.com->result());
  }
  KORVA_STARTUP_MARK("com");
  const korva::win::UniqueHandle mainThread(CreateThread(nullptr, 0, InvokeMainThread, nullptr, 0, nullptr));
  KORVA_STARTUP_MARK("main-thread");
  if (!ChangeServiceStatus(SERVICE_RUNNING)) {
    KLOG_ERROR_AS(kServiceMain) << "Unable to change the TESK agent service status.";
    return false;
  }
  KORVA_STARTUP_MARK("running");
  KLOG_INFO_AS(kServiceMain) << "TESK agent service started successfully.";
  KLOG_INFO_AS(kServiceMain) << "Waiting for shutdown Notification.";
  korva::EnsureRecoveryActions();
  return true;
}

// The previous run ended without an orderly shutdown when its last recorded shutdown is older
// than the last boot. "ForceShudown" in the lines below is the system's own misspelling.
void CheckForForcedShutdown(const ForcedShutdownInputs& inputs) {
  KLOG_INFO_AS(kMainThread) << "Check for ForceShudown : LastBoot :" << inputs.lastBoot;
  KLOG_INFO_AS(kMainThread) << "Check for ForceShudown : Shutdown :" << inputs.shutdown;
  if (inputs.shutdown >= inputs.lastBoot) return;
  DWORD unhandled = 0;
  (void)GetUnHandledExceptionLock(&unhandled);  // a failed read is logged there and leaves 0
  KLOG_INFO_AS(kMainThread) << "Check for ForceShudown : ondemandunhandlelock :" << unhandled;
  if (unhandled == 0) {
    UpdateUnHandledExceptionLock();
    ResetModuleLockStatus();
  }
  WriteForceShutdownEntry();
}

struct WorkerThread {
  LPTHREAD_START_ROUTINE procedure;
  const char* failureText;
  LPVOID parameter = nullptr;
};

korva::win::UniqueHandle StartWorker(const WorkerThread& worker) {
  korva::win::UniqueHandle thread(CreateThread(nullptr, 0, worker.procedure, worker.parameter, 0, nullptr));
  if (!thread) {
    const DWORD error = GetLastError();
    KLOG_ERROR_AS(kMainThread) << worker.failureText << error;
  }
  return thread;
}

}  // namespace

namespace korva {

void SetUptimeSource(UptimeSource source) { g_uptimeSource = source != nullptr ? source : &SystemUptimeMs; }

ULONGLONG MachineUptimeMs() { return g_uptimeSource(); }

void TakeForcedShutdownInputs() {
  g_forcedShutdownInputs = {ReadLastBootUpTime(), GetShutDownTime()};
  // Only an orderly end of this run may count at the next start: a stop earlier in this boot must
  // not hide a forced end of this run.
  ForgetPreviousOrderlyEnd();
}

}  // namespace korva

namespace {

// Set once ServiceMain has written its last record. Made before the dispatcher starts (see
// WaitForServiceMainToFinish), so no thread ever creates it concurrently.
HANDLE ServiceMainFinishedEvent() {
  static const korva::win::UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  return event.get();
}

void RunServiceMain() {
  korva::log::ScopedGuardedVoid(kServiceMain, [] {
    ServiceLifetime lifetime;
    if (!RunStartUp(lifetime)) return;
    // The start-up's deep calls are behind this thread; until the stop it only waits.
    korva::win::ReleaseUnusedStack();
    WaitForSingleObject(ServiceStopEvent, INFINITE);
    StopTimersAndReport();
  });
}

}  // namespace

void korva::PrepareServiceMainFinishedSignal() { (void)ServiceMainFinishedEvent(); }

bool korva::WaitForServiceMainToFinish(DWORD timeoutMs) {
  const HANDLE finished = ServiceMainFinishedEvent();
  return finished != nullptr && WaitForSingleObject(finished, timeoutMs) == WAIT_OBJECT_0;
}

void WINAPI ServiceMain(DWORD /*argc*/, LPWSTR* /*argv*/) {
  korva::win::NameCurrentThread(L"ServiceMain");
  RunServiceMain();
  if (const HANDLE finished = ServiceMainFinishedEvent(); finished != nullptr) SetEvent(finished);
}

DWORD WINAPI InvokeMainThread(LPVOID /*parameter*/) {
  korva::win::NameCurrentThread(L"InvokeMainThread");
  KLOG_SCOPE();
  return korva::log::Guarded(kMainThread, static_cast<DWORD>(0), []() -> DWORD {
    const ULONGLONG uptime = korva::MachineUptimeMs();
    KLOG_INFO_AS(kMainThread) << "System Bootup time :" << uptime;
    const bool startedWithMachine = uptime < korva::kBootWindowMs;
    if (startedWithMachine) {
      CheckForForcedShutdown(g_forcedShutdownInputs);
      korva::RunNotificationThread(&BootNotificationCode, 0);
    }
    WriteLastBootUpTime(uptime);
    if (IsExplorerPresent()) {
      KLOG_DEBUG_AS("IsUserLoggedOn") << "User is Logged on.";
    } else {
      KLOG_DEBUG_AS("IsUserLoggedOn") << "User is Logged off.";
    }
    KLOG_INFO_AS(kMainThread) << (startedWithMachine ? "Computer Bootup Notification is assigned."
                                                     : "Power Refresh Notification is assigned.");
    ExecuteDeviceEventAction(korva::devicecontrol::kEnumerationEventClass, korva::devicecontrol::kEnumerationEventKind,
                             korva::devicecontrol::kEnumerationInstancePath);
    const auto restore =
        StartWorker({ProcessRestoreBlockedDeviceThread, "Unable to create Restoring thread with error code :"});
    // The settings watcher calls the service's reaction to each settled change.
    const auto settings =
        StartWorker({MonitorSettingsModified,
                     "Unable to create monitoring thread with error code :", &korva::ServiceSettingsWatch()});
    const auto rfcomm =
        StartWorker({MonitorRFCOMMStatus, "Unable to create hRFCOMMMonitoringThread with error code :"});
    UpdateMonitoringVariable();
    // The pipe client runs until the service stops; this thread ends with it.
    const auto pipe = StartWorker({PipeConnect, "Unable to create PipeConnect thread with error code :"});
    korva::win::ReleaseUnusedStack();  // from here on this thread only waits
    if (pipe) WaitForSingleObject(pipe.get(), INFINITE);
    return 0;
  });
}
