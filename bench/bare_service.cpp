// The floor for start and stop latency: a service that reports RUNNING at once and STOPPED as
// soon as it is asked to stop, doing nothing else. Built a second time as korvaBareServiceDlls,
// which first loads user32 and ole32, the DLLs the agent's start-up must have before RUNNING
// (device notifications, COM): the floor with their loading in it.
#include "common/minimal_service.h"
#include "win/startup_timeline.h"

int wmain() {
  KORVA_STARTUP_MARK("main");
#ifdef KORVA_BARE_LOADS_START_DLLS
  LoadLibraryW(L"user32.dll");
  LoadLibraryW(L"ole32.dll");
  KORVA_STARTUP_MARK("dlls-loaded");
#endif
  const int result = korva::tools::RunMinimalService();
  KORVA_WRITE_STARTUP_TIMELINE();
  return result == 0 ? 0 : 1;
}
