// Filter driver installation through the setup program in the agent's bin folder.
#include "fileaudit/driver_installation.h"

#include <atomic>
#include <mutex>
#include <string>

#include "fileaudit/core/driver_setup.h"
#include "fileaudit/core/filter_commands.h"
#include "fileaudit/filter_attach.h"
#include "process/launch_gate.h"
#include "process/launcher.h"
#include "settings/agent_parameters.h"
#include "settings/log.h"
#include "settings/machine_details.h"
#include "shared/agent_environment.h"
#include "shared/service_query.h"
#include "shared/service_state.h"
#include "win/bitness.h"
#include "win/unique_handle.h"

namespace {

#ifndef KORVA_SETUP_WAIT_MINUTES
#define KORVA_SETUP_WAIT_MINUTES 5
#endif
// How long a setup program may run. Only the test-only korvaAgentServiceQuickSetup.exe sets it
// (1 minute), so the end-to-end test of a setup program that never ends waits one minute, not five.
constexpr DWORD kSetupWaitMinutes = KORVA_SETUP_WAIT_MINUTES;
// Families below this one are older than Windows 7, which the driver does not support.
constexpr int kWindows7Family = 3;

std::atomic<int (*)()> g_osFamily{&GetOsFamily};

// One setup run at a time. The start-up's driver setup, the 10-second filter pass, a new drive's
// attach and a settings change may each ask for one, and the first install easily takes longer
// than the pass's 10 s: two installers at once could leave the driver half set up, and a policy's
// "-stop" could run between another run's install and its start. A request waits for the run under
// way (each run's programs are ended at their limit), and a start that had to wait is made only if
// the filter is still wanted and that run did not leave the driver running. Two kinds do not wait:
// work on the control handler's thread (a new drive's attach; the stop reaches the service through
// that thread), whose start is left to the run under way and to the filter pass that attaches the
// drive again, and the requests made once the service is stopping (its thread is waited for only
// 20 s), whose "-stop" runs at once.
std::mutex g_setupTurn;

[[nodiscard]] bool SetsUp(int request) {
  return request == korva::fileaudit::kDriverStart || request == korva::fileaudit::kDriverInstall;
}

[[nodiscard]] bool DriverRunning() {
  DWORD state = SERVICE_STOPPED;
  return QuerySCMServiceStatus(kFileAuditFilterService, &state) == 0 && state == SERVICE_RUNNING;
}

// Takes the setup turn; false when the run is not to be made.
[[nodiscard]] bool TakeSetupTurn(const char* function, int request, std::unique_lock<std::mutex>& turn) {
  if (turn.try_lock()) return true;
  if (ServiceIsEnding() || OnControlHandlerThread()) {
    if (!SetsUp(request)) return true;  // a stop runs at once, beside the run under way
    KLOG_INFO_AS(function) << "Another driver setup run is under way; request " << request << " is left to it.";
    return false;
  }
  turn.lock();
  if (request != korva::fileaudit::kDriverStart) return true;
  // The run waited for may have been a policy's "-stop", or may have started the driver already.
  if (korva::fileaudit::ReadFilterNeeded() != 1) {
    KLOG_INFO_AS(function) << "The filter is no longer wanted; request " << request << " is not run.";
    return false;
  }
  if (DriverRunning()) {
    KLOG_INFO_AS(function) << "The driver setup run before this one left the driver running; request " << request
                           << " is not run.";
    return false;
  }
  return true;
}

// Before each program of a setting-up run: once the service is stopping, the driver would outlive
// the stop's own "-stop", which may already have run beside this run.
[[nodiscard]] bool StopHasBegun(const char* function) {
  if (!ServiceIsEnding()) return false;
  KLOG_INFO_AS(function) << "The service is stopping; the driver is not set up.";
  return true;
}

int OsFamily() { return g_osFamily.load()(); }

bool MachineIs64Bit() { return korva::win::RunsOn64BitWindows(AgentParameters.isWow64 != 0); }

// Runs one setup command with its output captured, and logs what came back.
void RunSetupCommand(const std::string& command) {
  BOOL obtained = FALSE;
  korva::win::UniqueMallocText<char> output;
  const DWORD result = ExecuteAndPrintMessage(nullptr, command.c_str(), kSetupWaitMinutes, &obtained, output.put());
  const DWORD lastError = GetLastError();
  if (obtained && output) {
    KLOG_INFO_AS("DriverServiceExecution") << "Message : \n" << output.get();
  } else {
    KLOG_ERROR_AS("DriverServiceExecution") << "Unable to get message.";
  }
  KLOG_INFO_AS("DriverServiceExecution") << "Return Value [" << result << "] with errorcode :" << lastError;
}

}  // namespace

int GetOSBasedDriverPath(std::string& folder) {
  return korva::log::ScopedGuarded(
      __func__, 0,
      [&] {
        folder.clear();
        const int family = OsFamily();
        KLOG_INFO_AS("GetOSBasedDriverPath") << "Os Version :" << family;
        const korva::fileaudit::ReleaseFolder release = korva::fileaudit::ReleaseFolderForFamily(family);
        if (!release.supported) {
          KLOG_ERROR_AS("GetOSBasedDriverPath") << "OS Family is not supported.";
          return 0;
        }
        KLOG_INFO_AS("GetOSBasedDriverPath") << release.message;
        folder = release.folder;
        return 1;
      },
      "Exception Caught.");
}

void DriverServiceExecution(int request) {
  korva::log::ScopedGuardedVoid(
      __func__,
      [request] {
        constexpr const char* kName = "DriverServiceExecution";
        std::unique_lock<std::mutex> turn(g_setupTurn, std::defer_lock);
        if (!TakeSetupTurn(kName, request, turn) || (SetsUp(request) && StopHasBegun(kName))) return;
        const bool is64 = MachineIs64Bit();
        const korva::AgentFolder install = korva::DeviceControlFolder();
        if (!korva::process::FolderAllowsStart(kName, korva::fileaudit::SetupProgram(is64), install)) return;
        const std::string bin = korva::fileaudit::BinFolder(install.path);
        const std::string prefix = korva::fileaudit::SetupCommandPrefix(bin, is64);
        KLOG_INFO_AS(kName) << "CommandPath :" << prefix;
        std::string release;
        (void)GetOSBasedDriverPath(release);  // unsupported: the INF path goes without a release folder
        const std::string inf = korva::fileaudit::InfPath(bin, is64, release);
        KLOG_INFO_AS(kName) << "InfPath :" << inf;
        const std::string command = korva::fileaudit::RequestCommand(prefix, request, inf);
        KLOG_INFO_AS(kName) << "Command to Execute :" << command;
        DWORD state = SERVICE_STOPPED;
        const DWORD queried = QuerySCMServiceStatus(kFileAuditFilterService, &state);
        KLOG_INFO_AS(kName) << "Driver Service Status :" << static_cast<unsigned long>(state);
        if (request == korva::fileaudit::kDriverStart && queried != 0) {
          KLOG_ERROR_AS(kName) << "Error in querying Driver service status :" << static_cast<unsigned long>(queried);
          if (OsFamily() < kWindows7Family) {
            KLOG_INFO_AS(kName) << "OS detected as below windows 7. Neglecting driver installation.";
            return;
          }
          KLOG_INFO_AS(kName) << "OS detected as above Windows 7.";
          const std::string install = korva::fileaudit::InstallCommand(prefix, inf);
          KLOG_INFO_AS(kName) << "Install Command to Execute :" << install;
          RunSetupCommand(install);
        }
        if (SetsUp(request) && StopHasBegun(kName)) return;
        RunSetupCommand(command);
      },
      "Exception Caught.");
}

void StartDriverUserApplication() {
  korva::log::ScopedGuardedVoid(
      __func__,
      [] {
        constexpr const char* kName = "StartDriverUserApplication";
        const korva::AgentFolder install = korva::DeviceControlFolder();
        if (!korva::process::FolderAllowsStart(kName, "korvaFaUser.exe", install)) return;
        // "bin" follows the installation directory (which ends in a backslash) directly, unlike the
        // other paths here: the asymmetry is deliberate.
        const std::string folder = install.path + "bin";
        // Built whole, never cut to a buffer: a shortened path would name another program.
        const std::string path = folder + "\\korvaFaUser.exe";
        const DWORD result = ExecuteAppWithArgs(path.c_str(), nullptr, nullptr, korva::process::kNoWait);
        KLOG_INFO_AS(kName) << "Error code :" << result;
      },
      "Exception Caught.");
}

namespace korva {
void SetOsFamilySourceForTest(int (*source)()) { g_osFamily.store(source != nullptr ? source : &GetOsFamily); }
}  // namespace korva
