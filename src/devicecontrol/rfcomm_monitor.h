// Watching the Bluetooth RFCOMM state.
#pragma once

#include <windows.h>

// Thread procedure: reacts to Bluetooth RFCOMM changes for the service's lifetime.
DWORD WINAPI MonitorRFCOMMStatus(LPVOID parameter);
