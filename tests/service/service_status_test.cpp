// Service status routines against Wine's service control manager. The service registered here
// points at this test program and is never started.
#include <windows.h>

#include <sddl.h>

#include <gtest/gtest.h>

#include <vector>

#include "service/core/service_status_rules.h"
#include "service/entry_point.h"
#include "service/service_status.h"
#include "support/test_support.h"
#include "win/unique_handle.h"

namespace {

using korva::win::UniqueServiceHandle;

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
  static UniqueServiceHandle OpenAgentService(DWORD access) {
    const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    return UniqueServiceHandle(OpenServiceW(manager.get(), kAgentServiceName, access));
  }
  DWORD state_ = 0;
};

// Removing a service that is not there fails with its line (and a second removal is no success).
TEST_F(ServiceStatusTest, StatusQueryGivesTheStateOrTheMissingServiceError) {
  DWORD state = 99;
  EXPECT_EQ(QuerySCMServiceStatus(kAgentServiceName, &state), static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
  EXPECT_EQ(state, 99u);
  ASSERT_TRUE(InstallAgentService());
  EXPECT_EQ(QuerySCMServiceStatus(kAgentServiceName, &state), 0u);
  EXPECT_EQ(state, static_cast<DWORD>(SERVICE_STOPPED));
  ASSERT_TRUE(UnInstallAgentService());
  EXPECT_EQ(QuerySCMServiceStatus(kAgentServiceName, &state), static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
  korva::test::LogCapture log;
  EXPECT_FALSE(UnInstallAgentService());
  EXPECT_TRUE(
      korva::test::HasLogLine(log.Text(), "UnInstallAgentService", "OpenService failed due to the following error."));
}

TEST_F(ServiceStatusTest, StartTypeIsPutBackToAutomaticAndTheFlagNoticesADemandStart) {
  ASSERT_TRUE(InstallAgentService());
  korva::UpdateRestoreStartTypeFlag();
  EXPECT_FALSE(RestoreStartTypeFlag);
  ASSERT_TRUE(ChangeServiceConfigW(OpenAgentService(SERVICE_CHANGE_CONFIG).get(), SERVICE_NO_CHANGE,
                                   SERVICE_DEMAND_START, SERVICE_NO_CHANGE, nullptr, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, nullptr));
  korva::UpdateRestoreStartTypeFlag();
  EXPECT_TRUE(RestoreStartTypeFlag);
  EXPECT_TRUE(ChangeServiceStartupTypeToAuto(kAgentServiceName));
  const UniqueServiceHandle service = OpenAgentService(SERVICE_QUERY_CONFIG);
  DWORD needed = 0;
  QueryServiceConfigW(service.get(), nullptr, 0, &needed);
  std::vector<BYTE> buffer(needed);
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
  ASSERT_TRUE(needed != 0 && QueryServiceConfigW(service.get(), config, needed, &needed));
  EXPECT_EQ(config->dwStartType, static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_FALSE(ChangeServiceStartupTypeToAuto(L"No Such Korva Service"));
}

// Wine stores service DACLs without applying them, so the rules are checked as we hand them over.
TEST(ServiceAccessRules, AuthenticatedUsersMayOnlyQueryAndInterrogate) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(korva::service::kServiceSecurityDescriptor,
                                                                   SDDL_REVISION_1, &descriptor, nullptr));
  const korva::win::UniqueLocalMemory owner(descriptor);
  BOOL present = FALSE, defaulted = FALSE;
  PACL dacl = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted));
  ASSERT_TRUE(present && dacl != nullptr);
  ASSERT_EQ(dacl->AceCount, 3);
  // What the DACL's allowing entries give the well-known account `kind`.
  const auto granted = [dacl](WELL_KNOWN_SID_TYPE kind) {
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof sid;
    EXPECT_TRUE(CreateWellKnownSid(kind, nullptr, sid, &size));
    ACCESS_MASK mask = 0;
    for (DWORD i = 0; i < dacl->AceCount; ++i) {
      ACCESS_ALLOWED_ACE* ace = nullptr;
      if (GetAce(dacl, i, reinterpret_cast<void**>(&ace)) && ace->Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
          EqualSid(&ace->SidStart, sid))
        mask |= ace->Mask;
    }
    return mask;
  };
  EXPECT_EQ(granted(WinLocalSystemSid), static_cast<ACCESS_MASK>(GENERIC_ALL));
  EXPECT_EQ(granted(WinBuiltinAdministratorsSid), static_cast<ACCESS_MASK>(GENERIC_ALL));
  const ACCESS_MASK users = granted(WinAuthenticatedUserSid);
  const ACCESS_MASK mayQuery = SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_INTERROGATE;
  EXPECT_EQ(users & mayQuery, mayQuery);
  EXPECT_EQ(users & (SERVICE_STOP | SERVICE_START | SERVICE_PAUSE_CONTINUE | SERVICE_USER_DEFINED_CONTROL |
                     SERVICE_CHANGE_CONFIG | WRITE_DAC | WRITE_OWNER | DELETE | GENERIC_ALL | GENERIC_WRITE),
            0u);
}

}  // namespace
