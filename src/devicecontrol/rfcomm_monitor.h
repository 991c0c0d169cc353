// Watching the Bluetooth RFCOMM transport.
#pragma once

#include <windows.h>

// Thread procedure: until the stop event, looks at the "RFCOMM" and "BthServ" services every few
// seconds; when either appears, disappears, starts or stops, logs it and has the summary program
// enumerate devices again.
DWORD WINAPI MonitorRFCOMMStatus(LPVOID parameter);

namespace korva {
// How long the monitor waits between looks; tests shorten it (0: back to 5 s).
void SetRfcommPollMsForTest(DWORD pollMs);
}  // namespace korva
