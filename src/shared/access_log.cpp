// The access log file: its place, its header and its rows.
#include "shared/access_log.h"

#include <windows.h>

#include <cstdlib>
#include <memory>

#include "settings/agent_parameters.h"
#include "settings/log.h"
#include "settings/text_file.h"
#include "shared/agent_environment.h"
#include "shared/core/access_log_text.h"

namespace korva {

bool CheckFileExists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::string AccessLogFilePath() {
  if (IsTESKSubProduct() != 0) {
    const AgentFolder base = AgentBaseFolder();
    if (Usable(base)) return accesslog::PathIn(base.path);
  }
  const AgentFolder install = AgentInstallFolder();
  return Usable(install) ? accesslog::PathIn(install.path) : std::string();
}

}  // namespace korva

void PrintAgentServiceAccessLog(const std::string& name) {
  KLOG_SCOPE();
  korva::log::GuardedVoid("PrintAgentServiceAccessLog", [&name] {
    KLOG_INFO_AS("PrintAgentServiceAccessLog") << "Message :" << name;
    const std::string path = korva::AccessLogFilePath();
    if (path.empty()) {
      KLOG_WARNING_AS("PrintAgentServiceAccessLog")
          << "No folder of the agent's own for the access log; row not written.";
      return;
    }
    // A failed write is logged there; a row that cannot be written is not retried.
    if (!korva::CheckFileExists(path)) {
      (void)korva::AppendText(path.c_str(), korva::accesslog::kHeader);
    }
    SYSTEMTIME now{};
    GetLocalTime(&now);
    const std::string row = korva::accesslog::Row(korva::accesslog::Date(now.wDay, now.wMonth, now.wYear),
                                                  korva::accesslog::Time(now.wHour, now.wMinute, now.wSecond), name);
    (void)korva::AppendText(path.c_str(), row.c_str());
  });
}
