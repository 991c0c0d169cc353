// Facts about this machine and its OS: family and name, epoch seconds, network identity, domain.
#pragma once

#include <windows.h>

#include <string>

#include "settings/core/os_details.h"

namespace korva {

// Who this machine is on the network. Empty texts where the machine has no such thing.
struct LocalMachineDetails {
  std::string computerName;
  std::string ipAddress;         // first IPv4 address of the first working, non-loopback adapter
  std::string macAddress;        // that adapter's, "00-1A-2B-3C-4D-5E"
  std::string subnetMask;        // that address's, "255.255.255.0"
  std::string domainController;  // "dc1.corp.example"; empty when not joined to a domain
};

// Reads the details above. False (logged) when the computer name or the adapter list cannot be
// had; an unreachable domain controller only leaves its text empty.
[[nodiscard]] bool ReadLocalMachineDetails(LocalMachineDetails& out);
// Stands in for the domain controller's lookup (its error, the name into `name`), as on a machine
// joined to a domain, and sets how long it is waited for; null and 0 restore the system's lookup and
// the 2 s (tests only).
using DomainControllerLookupFn = DWORD (*)(std::string& name);
void SetDomainControllerLookupForTest(DomainControllerLookupFn lookup, DWORD waitMs);

// The running system's true version (RtlGetVersion, which compatibility shims do not alter).
// False when ntdll lacks it.
[[nodiscard]] bool ReadOsVersion(osdetails::OsVersion& out);

// "Windows 10", "Windows Server 2019", ...; empty when the version cannot be had.
std::string GetOsName();

// How the zone's daylight bias enters the local-time clock while daylight time is in force: the
// start-up subtracts it from the bias, grant processing adds it. The difference is deliberate:
// each side keeps its own, as the times it compares were written with it.
enum class DaylightBias { kSubtracted, kAdded };
// The system time converted to local time with the time-zone information (its bias adjusted as
// `use` says), in GetTimeInSeconds seconds; never below 0.
long long LocalTimeInSeconds(DaylightBias use);

}  // namespace korva

// OS family of the running system: 7 Windows 11, 6 Windows 10, 5 Windows 8.1, 4 Windows 8,
// 3 Windows 7, 2 or less older; 0 when the version cannot be had.
int GetOsFamily();

// Seconds since 1970-01-01 00:00:00 of that calendar time (no time zone applied); 0, logged, for
// a time with a field out of range.
long long GetTimeInSeconds(SYSTEMTIME time);
