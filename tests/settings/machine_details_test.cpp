// Machine and OS details on the real system, checked against other Win32 sources of the same facts.
#include "settings/machine_details.h"

#include <winsock2.h>
#include <iphlpapi.h>
#include <lm.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "settings/agent_parameters.h"
#include "support/test_support.h"

namespace {

using korva::test::HasLogLineStartingWith;
using korva::test::LogCapture;

bool ReadVersionValue(const char* name, void* data, DWORD size) {
  HKEY key = nullptr;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0,
                    KEY_READ | KEY_WOW64_64KEY, &key) != ERROR_SUCCESS) {
    return false;
  }
  const LONG code = RegQueryValueExA(key, name, nullptr, nullptr, static_cast<BYTE*>(data), &size);
  RegCloseKey(key);
  return code == ERROR_SUCCESS;
}

// The version as the registry records it: the number values where the system has them (Windows
// 10 and later), otherwise the "major.minor" text.
korva::osdetails::OsVersion RecordedVersion() {
  korva::osdetails::OsVersion v;
  DWORD major = 0;
  DWORD minor = 0;
  char text[32] = {};
  if (ReadVersionValue("CurrentMajorVersionNumber", &major, sizeof major) &&
      ReadVersionValue("CurrentMinorVersionNumber", &minor, sizeof minor)) {
    v.major = major;
    v.minor = minor;
  } else if (ReadVersionValue("CurrentVersion", text, sizeof text)) {
    char* dot = nullptr;
    v.major = static_cast<std::uint32_t>(std::strtoul(text, &dot, 10));
    v.minor = static_cast<std::uint32_t>(std::strtoul(dot + 1, nullptr, 10));
  }
  char build[32] = {};
  if (ReadVersionValue("CurrentBuildNumber", build, sizeof build)) {
    v.build = static_cast<std::uint32_t>(std::strtoul(build, nullptr, 10));
  }
  return v;
}

TEST(MachineDetails, OsFamilyAndNameMatchTheVersionTheRegistryRecords) {
  korva::osdetails::OsVersion expected = RecordedVersion();
  ASSERT_NE(expected.major, 0u);
  korva::osdetails::OsVersion actual;
  ASSERT_TRUE(korva::ReadOsVersion(actual));
  EXPECT_EQ(actual.major, expected.major);
  EXPECT_EQ(actual.minor, expected.minor);
  EXPECT_EQ(actual.build, expected.build);
  expected.productType = actual.productType;
  LogCapture log;
  EXPECT_EQ(GetOsFamily(), korva::osdetails::OsFamily(expected));
  EXPECT_GE(GetOsFamily(), 3);  // the agent supports Windows 7 and later
  const std::string name = korva::GetOsName();
  EXPECT_EQ(name, korva::osdetails::OsName(expected));
  EXPECT_TRUE(HasLogLineStartingWith(log.Text(), "GetOsFamily", "OS version "));
  // The system's own product name agrees (Windows 11 still calls itself "Windows 10" there).
  char product[128] = {};
  if (ReadVersionValue("ProductName", product, sizeof product) && expected.build < 22000) {
    EXPECT_NE(std::string(product).find(name), std::string::npos) << product << " / " << name;
  }
}

long long SecondsFromFileTime(const SYSTEMTIME& time) {
  FILETIME fileTime{};
  EXPECT_TRUE(SystemTimeToFileTime(&time, &fileTime));
  ULARGE_INTEGER ticks;
  ticks.LowPart = fileTime.dwLowDateTime;
  ticks.HighPart = fileTime.dwHighDateTime;
  return static_cast<long long>(ticks.QuadPart / 10000000ULL) - 11644473600LL;  // 1601 -> 1970
}

TEST(MachineDetails, TimeInSecondsAgreesWithFileTimes) {
  SYSTEMTIME now{};
  GetSystemTime(&now);
  std::vector<SYSTEMTIME> times = {now};
  for (const WORD year : {1970, 1999, 2000, 2024, 2038, 2100}) {
    SYSTEMTIME t{};
    t.wYear = year;
    t.wMonth = year % 12 + 1;
    t.wDay = 28;
    t.wHour = 23;
    t.wMinute = 59;
    t.wSecond = 58;
    t.wMilliseconds = 999;  // ignored: whole seconds
    times.push_back(t);
  }
  for (const SYSTEMTIME& t : times) EXPECT_EQ(GetTimeInSeconds(t), SecondsFromFileTime(t)) << t.wYear;

  SYSTEMTIME bad = now;
  bad.wMonth = 13;
  LogCapture log;
  EXPECT_EQ(GetTimeInSeconds(bad), 0);
  EXPECT_TRUE(HasLogLineStartingWith(log.Text(), "GetTimeInSeconds", "Invalid system time"));
}

// The address's adapter as the older adapter list describes it.
const IP_ADAPTER_INFO* AdapterWithAddress(const std::vector<unsigned char>& buffer, const std::string& ip,
                                          const IP_ADDR_STRING** entry) {
  for (auto* a = reinterpret_cast<const IP_ADAPTER_INFO*>(buffer.data()); a != nullptr; a = a->Next) {
    for (const IP_ADDR_STRING* s = &a->IpAddressList; s != nullptr; s = s->Next) {
      if (ip == s->IpAddress.String) {
        *entry = s;
        return a;
      }
    }
  }
  return nullptr;
}

TEST(MachineDetails, LocalDetailsMatchTheOlderAdapterListAndLandInTheRecord) {
  korva::ResetAgentParametersForTest();
  ASSERT_TRUE(InitializeLocalMachineDetails());
  const auto& p = AgentParameters;

  char name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD size = sizeof name;
  ASSERT_TRUE(GetComputerNameA(name, &size));
  EXPECT_STREQ(p.localComputerName, name);

  ULONG bufferSize = 0;
  ASSERT_EQ(GetAdaptersInfo(nullptr, &bufferSize), static_cast<ULONG>(ERROR_BUFFER_OVERFLOW));
  std::vector<unsigned char> buffer(bufferSize);
  ASSERT_EQ(GetAdaptersInfo(reinterpret_cast<IP_ADAPTER_INFO*>(buffer.data()), &bufferSize), 0u);
  ASSERT_NE(p.localIpAddress, nullptr);
  ASSERT_STRNE(p.localIpAddress, "") << "the test machine has a working IPv4 adapter";
  EXPECT_STRNE(p.localIpAddress, "127.0.0.1");
  const IP_ADDR_STRING* entry = nullptr;
  const IP_ADAPTER_INFO* adapter = AdapterWithAddress(buffer, p.localIpAddress, &entry);
  ASSERT_NE(adapter, nullptr) << p.localIpAddress;
  EXPECT_STREQ(p.localSubnetMask, entry->IpMask.String);
  std::string mac;
  for (UINT i = 0; i < adapter->AddressLength; ++i) {
    char byte[4];
    std::snprintf(byte, sizeof byte, i == 0 ? "%02X" : "-%02X", adapter->Address[i]);
    mac += byte;
  }
  EXPECT_EQ(mac, p.localMacAddress);

  LPWSTR joinName = nullptr;
  NETSETUP_JOIN_STATUS status = NetSetupUnknownStatus;
  ASSERT_EQ(NetGetJoinInformation(nullptr, &joinName, &status), static_cast<NET_API_STATUS>(NERR_Success));
  NetApiBufferFree(joinName);
  if (status != NetSetupDomainName) {
    EXPECT_STREQ(p.localDomainController, "");
  }
  korva::ResetAgentParametersForTest();
}

}  // namespace
