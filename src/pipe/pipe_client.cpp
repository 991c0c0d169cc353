// Pipe control channel. Placeholder until the pipe client lands: logs its entry and exit; the
// thread ends at once.
#include "pipe/pipe_client.h"

#include "settings/log.h"

DWORD WINAPI PipeConnect(LPVOID /*parameter*/) {
  KLOG_SCOPE();
  return 0;
}
