// Policy presence checks: whether the console has given this machine a device-control or a
// secure-USB policy (either makes the file-audit filter wanted).
#pragma once

// 1 when "<BasePath>\data\policy\devicecontrol.json" exists and is not empty, else 0.
int CheckDeviceControlPolicyStatus();
// 1 when "<BasePath>\data\policy\secureusb.json" exists and is not empty, else 0.
int CheckSecureUSBConfigurationStatus();
