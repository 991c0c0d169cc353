// Pipe control channel client. For now its thread logs its entry and exit and ends at once.
#include "pipe/pipe_client.h"

#include "settings/log.h"

DWORD WINAPI PipeConnect(LPVOID /*parameter*/) {
  KLOG_SCOPE();
  return 0;
}
