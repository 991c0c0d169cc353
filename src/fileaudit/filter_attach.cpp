// Attaching the file-audit filter to one drive through its control program, and what a drive new to
// the removable drive list gets.
#include "fileaudit/filter_attach.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "fileaudit/core/driver_setup.h"
#include "fileaudit/core/filter_commands.h"
#include "fileaudit/driver_installation.h"
#include "fileaudit/file_shadow.h"
#include "process/launch_gate.h"
#include "process/launcher.h"
#include "settings/agent_parameters.h"
#include "settings/core/agent_constants.h"
#include "settings/log.h"
#include "settings/registry.h"
#include "shared/agent_environment.h"
#include "shared/service_query.h"
#include "shared/service_state.h"
#include "win/registry_value.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

// The attach command gets this long before it is terminated.
constexpr DWORD kAttachWaitMinutes = 1;
constexpr const char* kAuditSettingsKey = "SOFTWARE\\Kestrelix\\Tallowmere\\KorvaAgent\\QVM\\Settings\\AuditSettings";

// The filter service's state, 1 (stopped) when the query does not fill it.
DWORD FilterServiceState() {
  DWORD state = SERVICE_STOPPED;
  (void)QuerySCMServiceStatus(kFileAuditFilterService, &state);
  return state;
}

// Runs the attach command for `drive` and gives its exit code; the command is logged at `severity`.
// Nothing runs without the installation folder, or for a drive no command line can carry.
DWORD RunAttachCommand(const char* function, int severity, const std::wstring& drive) {
  const korva::AgentFolder install = korva::DeviceControlFolder();
  if (!korva::process::FolderAllowsStart(function, korva::fileaudit::kAttachProgram, install)) {
    return korva::process::kRefusedPathCode;
  }
  const std::string folder = korva::fileaudit::BinFolder(install.path);
  // A drive the ANSI code page cannot name exactly, or one holding a NUL, has no command line.
  const std::optional<std::string> narrowDrive = korva::win::WideToAnsiExact(drive);
  const std::optional<std::string> command =
      narrowDrive ? korva::fileaudit::AttachCommandLine(folder, *narrowDrive) : std::nullopt;
  if (!command) {
    KLOG_ERROR_AS(function) << "The drive cannot be put on a command line; korvaFaService.exe is not started.";
    return static_cast<DWORD>(ERROR_INVALID_NAME);
  }
  KLOG_AT(severity, function) << "Command to execute [" << *command << "] at path [" << folder << "]";
  korva::win::UniqueMallocText<char> remarks;
  return executeFile(folder.c_str(), command->c_str(), remarks.put(), kAttachWaitMinutes);
}

}  // namespace

DWORD korva::fileaudit::ReadFilterNeeded() {
  // One read that sees the value's type, so neither form counts as a wrong-typed value: the pass
  // runs every 10 s and would otherwise log a type warning each time.
  BYTE data[64] = {};
  DWORD size = sizeof data - 1;  // room for a terminator after a string that has none
  DWORD type = REG_NONE;
  Endpoint_Manager::RegistryKeyHandle key;
  const LONG code = Endpoint_Manager::CRegistryUtil::RegistryQueryValue(
      key, korva::kQvmSettingsKey, korva::kFilterNeededValue, &type, data, &size, korva::registry::kAgentView);
  if (code != ERROR_SUCCESS) return 1;
  if (korva::win::IsDwordValue(type, size)) {
    DWORD value = 0;
    std::memcpy(&value, data, sizeof value);
    return value;
  }
  if (type == REG_SZ || type == REG_EXPAND_SZ) {
    // Only a number is one: "yes" or "off" is a value that cannot be read, not a 0 that turns
    // file audit off.
    const char* text = reinterpret_cast<const char*>(data);
    while (*text == ' ') ++text;
    if (*text >= '0' && *text <= '9') {  // digits only: strtoul would take a sign too
      char* end = nullptr;
      errno = 0;
      const unsigned long value = std::strtoul(text, &end, 10);
      while (*end == ' ') ++end;
      if (*end == '\0' && errno != ERANGE && value <= 0xFFFFFFFFUL) return static_cast<DWORD>(value);
    }
  }
  return 1;
}

void AttachFilterToDrive(const std::wstring& drive) {
  korva::log::ScopedGuardedVoid(
      __func__,
      [&] {
        std::string modified;  // read, deliberately unused: its value changes nothing here
        (void)ReadRegSZ(kAuditSettingsKey, "IsSettingsModified", modified);
        const DWORD state = FilterServiceState();
        KLOG_INFO_AS("AttachFilterToDrive") << "Driver Service Status :" << static_cast<unsigned long>(state);
        if (state != SERVICE_RUNNING) {
          if (korva::fileaudit::ReadFilterNeeded() != 1) {
            KLOG_INFO_AS("AttachFilterToDrive") << "Driver Execution skipped, due to IsQVFANeeded is 0";
            return;
          }
          DriverServiceExecution(korva::fileaudit::kDriverStart);
        }
        (void)RunAttachCommand("AttachFilterToDrive", korva::log::kInfo, drive);  // the launcher logs the result
      },
      "Exception Caught.");
}

int IsFilterAttachedToDrive(const std::wstring& drive) {
  // An exception means nothing was attached: never the 0 that would start the file shadow.
  return korva::log::ScopedGuarded(
      __func__, static_cast<int>(ERROR_GEN_FAILURE),
      [&] {
        const DWORD state = FilterServiceState();
        KLOG_DEBUG_AS("IsFilterAttachedToDrive") << "Driver Service Status :" << static_cast<unsigned long>(state);
        if (state != SERVICE_RUNNING) DriverServiceExecution(korva::fileaudit::kDriverStart);
        const DWORD code = RunAttachCommand("IsFilterAttachedToDrive", korva::log::kDebug, drive);
        return korva::fileaudit::IsAttachStarted(code) ? 0 : static_cast<int>(code);
      },
      "Exception Caught.");
}

namespace {

// A drive that arrives while the service stops is left for the next start's scan: the attach and
// file-shadow programs would otherwise start after the stop has ended the others.
bool LeftForTheStop(const std::wstring& drive) {
  if (!ServiceIsEnding()) return false;
  KLOG_INFO_AS("StartAuditOnNewDrive") << "The service is stopping; " << drive << " is not audited.";
  return true;
}

}  // namespace

void korva::fileaudit::StartAuditOnNewDrive(const std::wstring& drive) {
  if (LeftForTheStop(drive)) return;
  AttachFilterToDrive(drive);  // may take minutes: a driver start, then the attach
  if (LeftForTheStop(drive)) return;
  ExecuteFileShadowApplication(drive);
}
