// Installing, starting and stopping the file-audit filter driver, and its user-mode program.
#pragma once

// Request 1 start (installing first when absent), 2 stop, 3 install, 4 uninstall.
void DriverServiceExecution(int request);
void StartDriverUserApplication();
