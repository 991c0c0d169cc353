// Attaching the file-audit filter to one drive through its control program.
#include "fileaudit/filter_attach.h"

#include <cstdlib>
#include <string>

#include "fileaudit/core/filter_commands.h"
#include "fileaudit/driver_installation.h"
#include "process/launcher.h"
#include "settings/agent_parameters.h"
#include "settings/log.h"
#include "settings/registry.h"
#include "shared/core/agent_constants.h"
#include "shared/service_query.h"
#include "win/strings.h"

namespace {

constexpr int kDriverStartRequest = 1;
constexpr const char* kAuditSettingsKey = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings\\AuditSettings";

// The filter service's state, 1 (stopped) when the query does not fill it.
DWORD FilterServiceState() {
  DWORD state = SERVICE_STOPPED;
  (void)QuerySCMServiceStatus(kFileAuditFilterService, &state);
  return state;
}

std::string BinFolder() {
  return korva::fileaudit::BinFolder(AgentParameters.installDirectory != nullptr ? AgentParameters.installDirectory
                                                                                 : "");
}

// Runs the attach command for `drive` and gives its exit code; the command is logged at `severity`.
DWORD RunAttachCommand(const char* function, int severity, const std::wstring& drive) {
  const std::string folder = BinFolder();
  const std::string command = korva::fileaudit::AttachCommandLine(folder, korva::win::WideToAnsi(drive));
  KLOG_AT(severity, function) << "Command to execute [" << command << "] at path [" << folder << "]";
  char* remarks = nullptr;
  const DWORD result = executeFile(folder.c_str(), command.c_str(), &remarks, 1);
  std::free(remarks);
  return result;
}

}  // namespace

DWORD korva::fileaudit::ReadFilterNeeded() {
  DWORD needed = 1;
  if (ReadDwordRegValue(korva::kQvmSettingsKey, korva::kFilterNeededValue, needed) == ERROR_UNSUPPORTED_TYPE) {
    std::string text;
    if (ReadRegSZ(korva::kQvmSettingsKey, korva::kFilterNeededValue, text) == ERROR_SUCCESS && !text.empty()) {
      needed = static_cast<DWORD>(std::strtoul(text.c_str(), nullptr, 10));
    }
  }
  return needed;
}

void AttachFilterToDrive(const std::wstring& drive) {
  korva::log::ScopedGuardedVoid(
      __func__,
      [&] {
        std::string modified;  // read as the control program expects; its value changes nothing here
        (void)ReadRegSZ(kAuditSettingsKey, "IsSettingsModified", modified);
        const DWORD state = FilterServiceState();
        KLOG_INFO_AS("AttachFilterToDrive") << "Driver Service Status :" << static_cast<unsigned long>(state);
        if (state != SERVICE_RUNNING) {
          if (korva::fileaudit::ReadFilterNeeded() != 1) {
            KLOG_INFO_AS("AttachFilterToDrive") << "Driver Execution skipped, due to IsQVFANeeded is 0";
            return;
          }
          DriverServiceExecution(kDriverStartRequest);
        }
        (void)RunAttachCommand("AttachFilterToDrive", korva::log::kInfo, drive);
      },
      "Exception Caught.");
}

int IsFilterAttachedToDrive(const std::wstring& drive) {
  return korva::log::ScopedGuarded(
      __func__, 0,
      [&] {
        const DWORD state = FilterServiceState();
        KLOG_DEBUG_AS("IsFilterAttachedToDrive") << "Driver Service Status :" << static_cast<unsigned long>(state);
        if (state != SERVICE_RUNNING) DriverServiceExecution(kDriverStartRequest);
        const DWORD code = RunAttachCommand("IsFilterAttachedToDrive", korva::log::kDebug, drive);
        return korva::fileaudit::IsAttachStarted(code) ? 0 : static_cast<int>(code);
      },
      "Exception Caught.");
}
