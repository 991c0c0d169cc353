// Temporary entry: opens the log and writes the opening lines.
#include "service/entry_point.h"

#include "settings/log.h"

namespace korva {
int RunAgentServiceMain(int, char*[]) {
  log::InitializeServiceLogger(L"C:\\korva-demo\\logs\\korva_agentservice.log", 4);
  KLOG_INFO_AS("main") << "Log Opened.";
  log::ShutdownServiceLogger();
  return 0;
}
}  // namespace korva
