// Notification threads and the configuration program launch.
#include "service/notifications.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "devicecontrol/device_notifications.h"
#include "encryption/core/volume_rules.h"
#include "encryption/encrypt_device_handler.h"
#include "fileaudit/driver_installation.h"
#include "ondemand/ondemand_control.h"
#include "power/power_tracking.h"
#include "process/child_environment.h"
#include "process/creation_retry.h"
#include "process/launch_gate.h"
#include "settings/agent_parameters.h"
#include "settings/error_text.h"
#include "settings/log.h"
#include "shared/agent_environment.h"
#include "shared/monitoring_state.h"
#include "shared/service_state.h"
#include "win/strings.h"
#include "win/thread_name.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

int ManualServiceStopCode = 1;
int HibernateOrStandbyCode = 2;
int ResumeCode = 3;
int BootNotificationCode = 4;
int MachineShutdownCode = 5;

char ConfigurationCommandLine[260] = "40 0 1 1";

namespace {

void AppendBinPath(std::string& path) {
  path += "\\";
  path += "bin";
}

std::string InstallationDirectory() {
  return AgentParameters.installDirectory ? AgentParameters.installDirectory.get() : "";
}

}  // namespace

namespace korva {

void RunNotificationThread(int* code, DWORD waitMs) {
  const win::UniqueHandle thread(CreateThread(nullptr, 0, InvokeShutdown, code, 0, nullptr));
  if (!thread) {
    const DWORD error = GetLastError();
    KLOG_ERROR_AS("RunNotificationThread") << "Unable to create the notification thread with error code :" << error;
    return;
  }
  if (waitMs != 0) WaitForSingleObject(thread.get(), waitMs);
}

}  // namespace korva

DWORD WINAPI InvokeShutdown(LPVOID parameter) {
  korva::win::NameCurrentThread(L"InvokeShutdown");
  KLOG_SCOPE();
  const DWORD result = korva::log::Guarded("InvokeShutdown", static_cast<DWORD>(0), [parameter]() -> DWORD {
    const int code = parameter != nullptr ? *static_cast<const int*>(parameter) : 0;
    KLOG_INFO_AS("InvokeShutdown") << "lpParam :" << code;
    // Built and logged, and not used further: the system's own step.
    std::string rootPath = InstallationDirectory();
    AppendBinPath(rootPath);
    KLOG_DEBUG_AS("InvokeShutdown") << "Root Path :" << rootPath;
    switch (code) {
      // "Log Closed." is written on stop and shutdown although the log stays open: the system's
      // own line.
      case 1:
        PrintAgentServiceAccessLog("Manual_Service_Stop_Notification");
        DriverServiceExecution(korva::fileaudit::kDriverStop);
        UnRegisterAllDeviceNotification();
        KLOG_INFO_AS("InvokeShutdown") << "Log Closed.";
        break;
      case 2:
        PrintAgentServiceAccessLog("Machine_HibernateOrStandby_Notification");
        UnRegisterAllDeviceNotification();
        break;
      case 3:
        PrintAgentServiceAccessLog("Machine_Resume_HibernateOrStandby_Notification");
        RegisterAllDeviceNotification();
        // The suspend let go of the removable volumes: the ones there after the wake are taken anew
        // and checked, as an arrival would.
        if (MonitorEncryptedDevice.load() != 0) {
          EncryptDeviceHandler::DeviceHandler(nullptr, korva::encryption::kVolumeArrived,
                                              korva::encryption::kNoSubKind);
        }
        break;
      case 4:
        PrintAgentServiceAccessLog("Machine_Bootup_Notification");
        break;
      case 5:
        DriverServiceExecution(korva::fileaudit::kDriverStop);
        StopTESKProcess();
        UpdatePowerEventStatus();
        KLOG_INFO_AS("InvokeShutdown") << "Log Closed.";
        break;
      default:
        break;
    }
    return 0;
  });
  korva::win::ReleaseUnusedStack();  // Wine keeps an ended thread's stack until another thread ends
  return result;
}

namespace {

constexpr const char* kExecuteConfiguration = "ExecuteConfiguration";

void LogTokenUser(HANDLE token) {
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  if (size == 0) return;
  std::unique_ptr<BYTE[]> buffer(new BYTE[size]);
  if (!GetTokenInformation(token, TokenUser, buffer.get(), size, &size)) return;
  const auto* user = reinterpret_cast<const TOKEN_USER*>(buffer.get());
  char name[256] = {};
  char domain[256] = {};
  DWORD nameSize = sizeof name;
  DWORD domainSize = sizeof domain;
  SID_NAME_USE use{};
  if (LookupAccountSidA(nullptr, user->User.Sid, name, &nameSize, domain, &domainSize, &use)) {
    KLOG_INFO_AS(kExecuteConfiguration) << "Token User Account : " << domain << "\\" << name;
  }
}

// Logs how one way of starting config.exe ("CreateProcessAsUser" or "CreateProcess") went. The lines
// name the program "config.exe", as the system's own lines do.
bool ReportConfigurationStart(bool started, const char* call, const std::string& arguments) {
  if (started) {
    KLOG_INFO_AS(kExecuteConfiguration) << call << " config.exe [" << arguments << "] process created successfully.";
    return true;
  }
  const std::string failed =
      std::string(call) + " of config.exe [" + arguments + "] is failed to create due to following error :";
  korva::LogLastErrorInline(kExecuteConfiguration, failed.c_str());
  return false;
}

// `missing`: the launch gate's word on a step of the program's way that does not exist.
bool StartConfigurationProgram(HANDLE token, const std::string& arguments, DWORD missing,
                               korva::win::UniqueProcessInformation& child) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESHOWWINDOW;
  startup.wShowWindow = SW_HIDE;
  // The program is named apart; its command line is the argument text alone, as config.exe reads it.
  std::wstring commandLine = korva::win::AnsiToWide(arguments);
  const DWORD flags = CREATE_NEW_CONSOLE | NORMAL_PRIORITY_CLASS | CREATE_UNICODE_ENVIRONMENT;
  // The service's own environment, as before, its PATH judged.
  korva::process::ChildEnvironment environment(kExecuteConfiguration, nullptr);
  // Tried with whatever token the token steps left (none when they failed), so the failure line
  // reports this call's own error.
  const bool asUser =
      korva::process::CreateWithOneRetry(kExecuteConfiguration, "config.exe", missing, [&] {
        return CreateProcessAsUserW(token, ConfigProgramPath.c_str(), commandLine.data(), nullptr, nullptr, FALSE,
                                    flags, environment.get(), nullptr, &startup, child.put());
      }) != FALSE;
  if (ReportConfigurationStart(asUser, "CreateProcessAsUser", arguments)) return true;
  KLOG_INFO_AS(kExecuteConfiguration) << "As a workaround we are calling the CreateProcess to execute config.exe.";
  commandLine = korva::win::AnsiToWide(arguments);
  const bool started = korva::process::CreateWithOneRetry(kExecuteConfiguration, "config.exe", missing, [&] {
                         return CreateProcessW(ConfigProgramPath.c_str(), commandLine.data(), nullptr, nullptr, FALSE,
                                               flags, environment.get(), nullptr, &startup, child.put());
                       }) != FALSE;
  return ReportConfigurationStart(started, "CreateProcess", arguments);
}

// The run's last line; an assumed logon has now been dealt with.
void EndConfigurationRun() {
  KLOG_INFO_AS(kExecuteConfiguration) << "ExecuteConfiguration Method is Ended.";
  LONG assumed = 1;
  AssumedLogonFlag.compare_exchange_strong(assumed, 0);
}

}  // namespace

namespace korva {

void ExecuteConfigurationWithin(DWORD timeLimitMs) {
  log::ScopedGuardedVoid(kExecuteConfiguration, [timeLimitMs] {
    KLOG_INFO_AS(kExecuteConfiguration) << "Started executing configuration.";
    KLOG_INFO_AS(kExecuteConfiguration) << "Command Line Params ->" << ConfigurationCommandLine;
    char arguments[sizeof ConfigurationCommandLine] = {};  // the same size: the copy always fits
    static_cast<void>(std::snprintf(arguments, sizeof arguments, "%s", ConfigurationCommandLine));
    DWORD missing = ERROR_SUCCESS;
    if (!process::FolderAllowsStart(kExecuteConfiguration, "korvaConfig.exe", AgentInstallFolder()) ||
        !process::PathAllowsStart(kExecuteConfiguration, std::wstring_view(ConfigProgramPath), nullptr, missing)) {
      EndConfigurationRun();
      return;
    }

    // Not inheritable: a launcher that lets its child inherit handles must never pass this one on.
    const win::UniqueHandle self(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, GetCurrentProcessId()));
    if (!self) LogLastErrorInline(kExecuteConfiguration, "OpenProcess failed due to following error :");
    win::UniqueHandle token;
    if (self && OpenProcessToken(self.get(), TOKEN_ALL_ACCESS, token.put())) {
      KLOG_INFO_AS(kExecuteConfiguration) << "OpenProcessToken : Process opened successfully.";
      LogTokenUser(token.get());
    } else {
      LogLastErrorInline(kExecuteConfiguration, "OpenProcessToken failed due to following error :");
    }

    win::UniqueProcessInformation child;
    if (StartConfigurationProgram(token.get(), arguments, missing, child)) {
      if (WaitForSingleObject(child.process(), timeLimitMs) == WAIT_TIMEOUT) {
        KLOG_INFO_AS(kExecuteConfiguration)
            << "Terminating the process config.exe [" << arguments << "] due to time exceeded.";
        TerminateProcess(child.process(), 0);
        WaitForSingleObject(child.process(), 5000);
      }
    }
    EndConfigurationRun();
  });
}

}  // namespace korva

void ExecuteConfiguration() { korva::ExecuteConfigurationWithin(korva::kConfigurationTimeLimitMs); }
