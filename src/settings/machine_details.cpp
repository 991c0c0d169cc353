// Facts about this machine and its OS: family and name, epoch seconds, network identity, domain.
#include "settings/machine_details.h"

// winsock2.h must come before iphlpapi.h; clang-format must not sort these.
// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <lm.h>
#include <ntsecapi.h>
#include <dsgetdc.h>
// clang-format on

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "settings/error_text.h"
#include "settings/log.h"
#include "win/procedure.h"
#include "win/strings.h"
#include "win/thread_stack.h"
#include "win/unique_handle.h"

namespace korva {

namespace {

struct NetApiBufferFreer {
  void operator()(void* buffer) const noexcept { NetApiBufferFree(buffer); }
};
template <typename T>
using UniqueNetApiBuffer = std::unique_ptr<T, NetApiBufferFreer>;

using RtlGetVersionFn = LONG(WINAPI*)(PRTL_OSVERSIONINFOW);

constexpr const char* kReadDetails = "ReadLocalMachineDetails";
constexpr ULONG kAdapterFlags =
    GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER | GAA_FLAG_SKIP_FRIENDLY_NAME;

[[nodiscard]] bool ReadComputerName(std::string& out) {
  char name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD size = sizeof name;
  if (!GetComputerNameA(name, &size)) {
    korva::LogLastError(kReadDetails, "GetComputerNameA failed.");
    return false;
  }
  out.assign(name, size);
  return true;
}

// The IPv4 adapter list, its buffer grown until it fits (the list can change between calls).
ULONG QueryIpv4Adapters(std::vector<unsigned char>& buffer) {
  ULONG size = 16 * 1024;
  ULONG code = ERROR_BUFFER_OVERFLOW;
  for (int attempt = 0; attempt < 4 && code == ERROR_BUFFER_OVERFLOW; ++attempt) {
    buffer.assign(size, 0);
    code = GetAdaptersAddresses(AF_INET, kAdapterFlags, nullptr, reinterpret_cast<PIP_ADAPTER_ADDRESSES>(buffer.data()),
                                &size);
  }
  return code;
}

const IP_ADAPTER_UNICAST_ADDRESS* FirstIpv4Address(const IP_ADAPTER_ADDRESSES& adapter) {
  for (const IP_ADAPTER_UNICAST_ADDRESS* a = adapter.FirstUnicastAddress; a != nullptr; a = a->Next) {
    if (a->Address.lpSockaddr != nullptr && a->Address.lpSockaddr->sa_family == AF_INET) return a;
  }
  return nullptr;
}

bool IsWorkingNetworkAdapter(const IP_ADAPTER_ADDRESSES& adapter) {
  return adapter.OperStatus == IfOperStatusUp && adapter.IfType != IF_TYPE_SOFTWARE_LOOPBACK;
}

// Address, mask and MAC of the first working adapter that has an IPv4 address.
void TakeFirstIpv4Identity(const IP_ADAPTER_ADDRESSES* adapters, LocalMachineDetails& out) {
  for (const IP_ADAPTER_ADDRESSES* adapter = adapters; adapter != nullptr; adapter = adapter->Next) {
    if (!IsWorkingNetworkAdapter(*adapter)) continue;
    const IP_ADAPTER_UNICAST_ADDRESS* unicast = FirstIpv4Address(*adapter);
    if (unicast == nullptr) continue;
    const auto* address = reinterpret_cast<const sockaddr_in*>(unicast->Address.lpSockaddr);
    unsigned char bytes[4];
    std::memcpy(bytes, &address->sin_addr, sizeof bytes);
    out.ipAddress = osdetails::FormatIpv4(bytes);
    out.macAddress = osdetails::FormatMacAddress(adapter->PhysicalAddress, adapter->PhysicalAddressLength);
    out.subnetMask = osdetails::Ipv4MaskFromPrefixLength(unicast->OnLinkPrefixLength).value_or("");
    return;
  }
  KLOG_WARNING_AS(kReadDetails) << "No working network adapter with an IPv4 address.";
}

[[nodiscard]] bool ReadNetworkIdentity(LocalMachineDetails& out) {
  std::vector<unsigned char> buffer;
  const ULONG code = QueryIpv4Adapters(buffer);
  if (code == ERROR_NO_DATA) {
    KLOG_WARNING_AS(kReadDetails) << "No network adapter with an IPv4 address.";
    return true;
  }
  if (code != ERROR_SUCCESS) {
    korva::LogFailedCall(kReadDetails, code, "GetAdaptersAddresses failed.");
    return false;
  }
  TakeFirstIpv4Identity(reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer.data()), out);
  return true;
}

struct LsaPolicyCloser {
  void operator()(LSA_HANDLE policy) const noexcept { LsaClose(policy); }
};
struct LsaMemoryFreer {
  void operator()(void* memory) const noexcept { LsaFreeMemory(memory); }
};

// Whether the machine is a member of a domain: its primary domain has a SID, a workgroup none. Asked
// of the local security authority, which runs from boot, where NetGetJoinInformation would ask the
// workstation service, which may not have started yet when the agent does (and, under Wine, loads
// netapi32 for a few milliseconds of the start-up).
bool IsJoinedToDomain() {
  LSA_OBJECT_ATTRIBUTES attributes{};
  LSA_HANDLE handle = nullptr;
  NTSTATUS status = LsaOpenPolicy(nullptr, &attributes, POLICY_VIEW_LOCAL_INFORMATION, &handle);
  if (status != 0) {
    korva::LogFailedCall(kReadDetails, LsaNtStatusToWinError(status), "LsaOpenPolicy failed.");
    return false;
  }
  const std::unique_ptr<void, LsaPolicyCloser> policy(handle);
  void* information = nullptr;
  status = LsaQueryInformationPolicy(policy.get(), PolicyPrimaryDomainInformation, &information);
  const std::unique_ptr<void, LsaMemoryFreer> owned(information);
  if (status != 0) {
    korva::LogFailedCall(kReadDetails, LsaNtStatusToWinError(status), "LsaQueryInformationPolicy failed.");
    return false;
  }
  return information != nullptr && static_cast<const POLICY_PRIMARY_DOMAIN_INFO*>(information)->Sid != nullptr;
}

// How long the start-up waits for the domain controller's name: the lookup has no time limit of its
// own. With nothing cached, even with DS_BACKGROUND_ONLY, it looks for a controller on the network,
// which on a machine whose domain cannot be reached (no DNS yet at boot, a laptop off site) lasts as
// long as its DNS queries and pings do, and the start-up must reach the service control manager.
constexpr DWORD kDomainControllerWaitMs = 2000;
std::atomic<DWORD> g_domainControllerWaitMs{kDomainControllerWaitMs};
std::atomic<DomainControllerLookupFn> g_domainControllerLookup{nullptr};

// One lookup, shared by the start-up and the thread that makes it: whichever finishes last frees it.
struct DomainControllerLookup {
  DWORD code = ERROR_SUCCESS;
  std::string name;
};

// The controller's name, "\\dc1.corp" form stripped of its backslashes.
void LookUpDomainController(DomainControllerLookup& lookup) {
  if (const DomainControllerLookupFn standIn = g_domainControllerLookup.load(); standIn != nullptr) {
    lookup.code = standIn(lookup.name);
    return;
  }
  PDOMAIN_CONTROLLER_INFOW info = nullptr;
  lookup.code = DsGetDcNameW(nullptr, nullptr, nullptr, nullptr, DS_RETURN_DNS_NAME | DS_BACKGROUND_ONLY, &info);
  const UniqueNetApiBuffer<DOMAIN_CONTROLLER_INFOW> infoOwner(info);
  if (lookup.code != ERROR_SUCCESS) return;
  if (info == nullptr || info->DomainControllerName == nullptr) {
    lookup.code = ERROR_INVALID_DATA;
    return;
  }
  std::wstring_view name(info->DomainControllerName);
  while (!name.empty() && name.front() == L'\\') name.remove_prefix(1);
  lookup.name = win::WideToAnsi(name);
}

DWORD WINAPI RunDomainControllerLookup(void* parameter) {
  const std::unique_ptr<std::shared_ptr<DomainControllerLookup>> owner(
      static_cast<std::shared_ptr<DomainControllerLookup>*>(parameter));
  korva::log::GuardedVoid(kReadDetails, [&] { LookUpDomainController(**owner); });
  win::ReleaseUnusedStack();  // Wine keeps an ended thread's stack until another thread ends
  return 0;
}

// The domain controller's host name; empty when the machine is not in a domain or none answers in
// time. A lookup that does not end in time is left to finish unused.
std::string ReadDomainController() {
  if (g_domainControllerLookup.load() == nullptr && !IsJoinedToDomain()) {
    KLOG_DEBUG_AS(kReadDetails) << "The computer is not joined to a domain.";
    return {};
  }
  const DWORD waitMs = g_domainControllerWaitMs.load();
  auto lookup = std::make_shared<DomainControllerLookup>();
  auto owner = std::make_unique<std::shared_ptr<DomainControllerLookup>>(lookup);
  const win::UniqueHandle thread(CreateThread(nullptr, 0, RunDomainControllerLookup, owner.get(), 0, nullptr));
  if (!thread) {
    korva::LogLastError(kReadDetails, "Starting the domain controller's lookup failed; it is left empty.");
    return {};
  }
  static_cast<void>(owner.release());  // the thread's now
  if (WaitForSingleObject(thread.get(), waitMs) != WAIT_OBJECT_0) {
    KLOG_WARNING_AS(kReadDetails) << "The domain controller was not found within " << waitMs
                                  << " ms; it is left empty.";
    return {};
  }
  if (lookup->code != ERROR_SUCCESS) {
    korva::LogFailedCall(kReadDetails, lookup->code, "DsGetDcNameW failed.");
    return {};
  }
  return lookup->name;
}

}  // namespace

void SetDomainControllerLookupForTest(DomainControllerLookupFn lookup, DWORD waitMs) {
  g_domainControllerLookup.store(lookup);
  g_domainControllerWaitMs.store(waitMs != 0 ? waitMs : kDomainControllerWaitMs);
}

bool ReadLocalMachineDetails(LocalMachineDetails& out) {
  return log::ScopedGuarded(kReadDetails, false, [&] {
    const bool named = ReadComputerName(out.computerName);
    const bool addressed = ReadNetworkIdentity(out);
    out.domainController = ReadDomainController();
    return named && addressed;
  });
}

[[nodiscard]] bool ReadOsVersion(osdetails::OsVersion& out) {
  const auto rtlGetVersion = win::LookUpProcedure<RtlGetVersionFn>(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion");
  if (rtlGetVersion == nullptr) return false;
  RTL_OSVERSIONINFOEXW info{};
  info.dwOSVersionInfoSize = sizeof info;
  if (rtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&info)) != 0) return false;
  out.major = info.dwMajorVersion;
  out.minor = info.dwMinorVersion;
  out.build = info.dwBuildNumber;
  out.productType = info.wProductType;
  return true;
}

std::string GetOsName() {
  KLOG_SCOPE();
  return log::Guarded(__func__, std::string(), [] {
    osdetails::OsVersion version;
    if (!ReadOsVersion(version)) {
      KLOG_ERROR_AS("GetOsName") << "Unable to get the OS version.";
      return std::string();
    }
    std::string name = osdetails::OsName(version);
    KLOG_DEBUG_AS("GetOsName") << "OS name : " << name;
    return name;
  });
}

}  // namespace korva

int GetOsFamily() {
  return korva::log::ScopedGuarded(__func__, 0, [] {
    korva::osdetails::OsVersion version;
    if (!korva::ReadOsVersion(version)) {
      KLOG_ERROR_AS("GetOsFamily") << "Unable to get the OS version.";
      return 0;
    }
    const int family = korva::osdetails::OsFamily(version);
    KLOG_DEBUG_AS("GetOsFamily") << "OS version " << version.major << "." << version.minor << "." << version.build
                                 << ", family : " << family;
    return family;
  });
}

long long GetTimeInSeconds(SYSTEMTIME time) {
  KLOG_SCOPE();
  const korva::osdetails::CalendarTime calendar{time.wYear, time.wMonth,  time.wDay,
                                                time.wHour, time.wMinute, time.wSecond};
  const std::optional<long long> seconds = korva::osdetails::SecondsSinceEpoch(calendar);
  if (!seconds) {
    KLOG_ERROR << "Invalid system time " << time.wYear << "-" << time.wMonth << "-" << time.wDay << " " << time.wHour
               << ":" << time.wMinute << ":" << time.wSecond;
    return 0;
  }
  return *seconds;
}

long long korva::LocalTimeInSeconds(DaylightBias use) {
  TIME_ZONE_INFORMATION zone{};
  if (GetTimeZoneInformation(&zone) == TIME_ZONE_ID_DAYLIGHT) {
    zone.Bias = use == DaylightBias::kAdded ? zone.Bias + zone.DaylightBias : zone.Bias - zone.DaylightBias;
  }
  SYSTEMTIME utc{};
  SYSTEMTIME local{};
  GetSystemTime(&utc);
  if (!SystemTimeToTzSpecificLocalTime(&zone, &utc, &local)) GetLocalTime(&local);
  const long long seconds = GetTimeInSeconds(local);
  return seconds > 0 ? seconds : 0;
}
