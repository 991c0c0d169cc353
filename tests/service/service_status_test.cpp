// Service status routines against Wine's service control manager. The service registered here
// points at this test program and is never started.
#include <windows.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include "service/core/service_status_rules.h"
#include "service/entry_point.h"
#include "service/service_status.h"
#include "support/test_support.h"
#include "win/unique_handle.h"

namespace {

using korva::win::UniqueServiceHandle;

DWORD StartTypeOfAgentService() {
  const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const UniqueServiceHandle service(OpenServiceW(manager.get(), kAgentServiceName, SERVICE_QUERY_CONFIG));
  DWORD needed = 0;
  QueryServiceConfigW(service.get(), nullptr, 0, &needed);
  std::vector<BYTE> buffer(needed);
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  return needed != 0 && QueryServiceConfigW(service.get(), config, needed, &needed) ? config->dwStartType : 0;
}

void SetStartType(DWORD startType) {
  const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const UniqueServiceHandle service(OpenServiceW(manager.get(), kAgentServiceName, SERVICE_CHANGE_CONFIG));
  ASSERT_TRUE(ChangeServiceConfigW(service.get(), SERVICE_NO_CHANGE, startType, SERVICE_NO_CHANGE, nullptr, nullptr,
                                   nullptr, nullptr, nullptr, nullptr, nullptr));
}

class ServiceStatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (QuerySCMServiceStatus(kAgentServiceName, &state_) == 0) {
      ASSERT_TRUE(UnInstallAgentService());
    }
    RestoreStartTypeFlag = FALSE;
  }
  void TearDown() override {
    if (QuerySCMServiceStatus(kAgentServiceName, &state_) == 0) (void)UnInstallAgentService();
  }
  DWORD state_ = 0;
};

TEST_F(ServiceStatusTest, StatusQueryGivesTheStateOrTheMissingServiceError) {
  DWORD state = 99;
  EXPECT_EQ(QuerySCMServiceStatus(kAgentServiceName, &state), static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
  EXPECT_EQ(state, 99u);
  ASSERT_TRUE(InstallAgentService());
  EXPECT_EQ(QuerySCMServiceStatus(kAgentServiceName, &state), 0u);
  EXPECT_EQ(state, static_cast<DWORD>(SERVICE_STOPPED));
  ASSERT_TRUE(UnInstallAgentService());
  EXPECT_EQ(QuerySCMServiceStatus(kAgentServiceName, &state), static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
}

TEST_F(ServiceStatusTest, StartTypeIsPutBackToAutomaticAndTheFlagNoticesADemandStart) {
  ASSERT_TRUE(InstallAgentService());
  korva::UpdateRestoreStartTypeFlag();
  EXPECT_FALSE(RestoreStartTypeFlag);
  SetStartType(SERVICE_DEMAND_START);
  korva::UpdateRestoreStartTypeFlag();
  EXPECT_TRUE(RestoreStartTypeFlag);
  EXPECT_TRUE(ChangeServiceStartupTypeToAuto(kAgentServiceName));
  EXPECT_EQ(StartTypeOfAgentService(), static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_FALSE(ChangeServiceStartupTypeToAuto(L"No Such Korva Service"));
}

TEST_F(ServiceStatusTest, UninstallOfAMissingServiceFails) {
  korva::test::LogCapture log;
  EXPECT_FALSE(UnInstallAgentService());
  EXPECT_TRUE(korva::test::HasLogLine(log.Text(), "UnInstallAgentService", "OpenService failed due to the following error."));
}

// Wine stores service DACLs without applying them, so the rules are checked as we hand them over.
TEST(ServiceAccessRules, AuthenticatedUsersMayOnlyQueryAndInterrogate) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(korva::service::kServiceSecurityDescriptor,
                                                                   SDDL_REVISION_1, &descriptor, nullptr));
  const korva::win::UniqueLocalMemory owner(descriptor);
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  PACL dacl = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted));
  ASSERT_TRUE(present && dacl != nullptr);

  BYTE sidBuffer[3][SECURITY_MAX_SID_SIZE];
  const WELL_KNOWN_SID_TYPE kinds[3] = {WinLocalSystemSid, WinBuiltinAdministratorsSid, WinAuthenticatedUserSid};
  for (int i = 0; i < 3; ++i) {
    DWORD size = SECURITY_MAX_SID_SIZE;
    ASSERT_TRUE(CreateWellKnownSid(kinds[i], nullptr, sidBuffer[i], &size));
  }
  ACCESS_MASK granted[3] = {0, 0, 0};
  ASSERT_EQ(dacl->AceCount, 3);
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    void* raw = nullptr;
    ASSERT_TRUE(GetAce(dacl, i, &raw));
    auto* ace = static_cast<ACCESS_ALLOWED_ACE*>(raw);
    ASSERT_EQ(ace->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
    for (int k = 0; k < 3; ++k) {
      if (EqualSid(&ace->SidStart, sidBuffer[k])) granted[k] |= ace->Mask;
    }
  }
  EXPECT_EQ(granted[0], static_cast<ACCESS_MASK>(GENERIC_ALL));
  EXPECT_EQ(granted[1], static_cast<ACCESS_MASK>(GENERIC_ALL));
  const ACCESS_MASK mayQuery = SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_INTERROGATE;
  EXPECT_EQ(granted[2] & mayQuery, mayQuery);
  const ACCESS_MASK mustNot = SERVICE_STOP | SERVICE_START | SERVICE_PAUSE_CONTINUE | SERVICE_USER_DEFINED_CONTROL |
                              SERVICE_CHANGE_CONFIG | WRITE_DAC | WRITE_OWNER | DELETE | GENERIC_ALL | GENERIC_WRITE;
  EXPECT_EQ(granted[2] & mustNot, 0u);
}

}  // namespace
