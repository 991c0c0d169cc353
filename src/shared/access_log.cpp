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
    char* base = nullptr;
    (void)BasePath(&base);
    const std::unique_ptr<char, decltype(&std::free)> owner(base, &std::free);
    if (base != nullptr && base[0] != '\0') return accesslog::PathIn(base);
  }
  return accesslog::PathIn(AgentInstallDirGlobal);
}

}  // namespace korva

void PrintAgentServiceAccessLog(const std::string& name) {
  KLOG_SCOPE();
  korva::log::GuardedVoid("PrintAgentServiceAccessLog", [&name] {
    KLOG_INFO_AS("PrintAgentServiceAccessLog") << "Message :" << name;
    const std::string path = korva::AccessLogFilePath();
    if (!korva::CheckFileExists(path)) {
      (void)korva::AppendFormattedText(path.c_str(), "%s", korva::accesslog::kHeader);
    }
    SYSTEMTIME now{};
    GetLocalTime(&now);
    const std::string row = korva::accesslog::Row(korva::accesslog::Date(now.wDay, now.wMonth, now.wYear),
                                                  korva::accesslog::Time(now.wHour, now.wMinute, now.wSecond), name);
    (void)korva::AppendFormattedText(path.c_str(), "%s", row.c_str());
  });
}
