// The floor for start and stop latency: a service that reports RUNNING at once and STOPPED as
// soon as it is asked to stop, doing nothing else.
#include "common/minimal_service.h"

int wmain() { return korva::tools::RunMinimalService() == 0 ? 0 : 1; }
