// Machine and OS details on the real system, checked against other Win32 sources of the same facts.
#include "settings/machine_details.h"

#include <iphlpapi.h>
#include <winsock2.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "settings/agent_parameters.h"
#include "support/test_support.h"

namespace {

using korva::test::HasLogLineStartingWith;
using korva::test::LogCapture;

// The version as the registry records it (the prefix runs as Windows 10, which has the number
// values) against what the routines read and derive from it.
TEST(MachineDetails, OsFamilyAndNameMatchTheVersionTheRegistryRecords) {
  HKEY key = nullptr;
  ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0,
                          KEY_READ | KEY_WOW64_64KEY, &key),
            ERROR_SUCCESS);
  const auto query = [key](const char* name, void* data, DWORD size) {
    return RegQueryValueExA(key, name, nullptr, nullptr, static_cast<BYTE*>(data), &size);
  };
  DWORD major = 0, minor = 0;
  char build[32] = {};
  EXPECT_EQ(query("CurrentMajorVersionNumber", &major, sizeof major), ERROR_SUCCESS);
  EXPECT_EQ(query("CurrentMinorVersionNumber", &minor, sizeof minor), ERROR_SUCCESS);
  EXPECT_EQ(query("CurrentBuildNumber", build, sizeof build), ERROR_SUCCESS);
  RegCloseKey(key);
  ASSERT_NE(major, 0u);
  korva::osdetails::OsVersion actual;
  ASSERT_TRUE(korva::ReadOsVersion(actual));
  EXPECT_EQ(actual.major, major);
  EXPECT_EQ(actual.minor, minor);
  EXPECT_EQ(actual.build, std::strtoul(build, nullptr, 10));
  const korva::osdetails::OsVersion expected{major, minor, actual.build, actual.productType};
  LogCapture log;
  EXPECT_EQ(GetOsFamily(), korva::osdetails::OsFamily(expected));
  EXPECT_EQ(korva::GetOsName(), korva::osdetails::OsName(expected));
  EXPECT_TRUE(HasLogLineStartingWith(log.Text(), "GetOsFamily", "OS version "));
}

TEST(MachineDetails, TimeInSecondsAgreesWithFileTimesAndAnInvalidTimeIsLogged) {
  SYSTEMTIME now{};
  GetSystemTime(&now);
  for (const WORD year : {WORD(0), WORD(1970), WORD(2038), WORD(2100)}) {
    SYSTEMTIME t = now;
    if (year != 0) t = {year, WORD(year % 12 + 1), 0, 28, 23, 59, 58, 999};  // milliseconds ignored
    FILETIME fileTime{};
    ASSERT_TRUE(SystemTimeToFileTime(&t, &fileTime));
    const long long ticks = (static_cast<long long>(fileTime.dwHighDateTime) << 32) | fileTime.dwLowDateTime;
    EXPECT_EQ(GetTimeInSeconds(t), ticks / 10000000LL - 11644473600LL) << t.wYear;  // 1601 -> 1970
  }
  now.wMonth = 13;
  LogCapture log;
  EXPECT_EQ(GetTimeInSeconds(now), 0);
  EXPECT_TRUE(HasLogLineStartingWith(log.Text(), "GetTimeInSeconds", "Invalid system time"));
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
  ASSERT_STRNE(p.localIpAddress ? p.localIpAddress : "", "") << "the test machine has a working IPv4 adapter";
  bool found = false;
  for (auto* a = reinterpret_cast<const IP_ADAPTER_INFO*>(buffer.data()); a != nullptr; a = a->Next) {
    for (const IP_ADDR_STRING* s = &a->IpAddressList; s != nullptr; s = s->Next) {
      if (std::string(p.localIpAddress) != s->IpAddress.String) continue;
      found = true;
      EXPECT_STREQ(p.localSubnetMask, s->IpMask.String);
      EXPECT_EQ(korva::osdetails::FormatMacAddress(a->Address, a->AddressLength), p.localMacAddress);
    }
  }
  EXPECT_TRUE(found) << p.localIpAddress;
  korva::ResetAgentParametersForTest();
}

}  // namespace
