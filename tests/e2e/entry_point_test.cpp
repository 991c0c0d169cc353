// The executable end to end under Wine: command line, exit codes, console lines, and the service
// installed, started, stopped and removed through the real service control manager.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "settings/registry.h"
#include "support/service_support.h"
#include "support/test_support.h"
#include "win/bitness.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

using korva::test::HasLogLine;
using korva::test::HasLogLineStartingWith;
using korva::win::UniqueServiceHandle;

using korva::test::QueryAgentServiceConfig;
using korva::test::ServiceExecutable;

class EntryPointTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(korva::test::PrepareCleanAgent(dir_.NarrowPath()));
  }
  void TearDown() override {
    korva::test::RemoveAgent();
  }

  korva::test::ProgramResult Run(const std::wstring& arguments, DWORD timeoutMs = 60000) {
    return korva::test::RunProgram(L"\"" + ServiceExecutable() + L"\"" + arguments, timeoutMs);
  }
  std::string Log() const { return korva::test::ReadFileBytes(dir_.File(L"logs\\korva_agentservice.log")); }

  korva::test::TempDir dir_;
};

TEST_F(EntryPointTest, InstallInUpperCaseIgnoresFurtherArgumentsAndQuotesThePath) {
  const korva::test::ProgramResult result = Run(L" /I /U extra");
  ASSERT_TRUE(result.finished);
  EXPECT_EQ(result.exitCode, 0u);
  EXPECT_NE(result.output.find("Main : Going to install TESK Agent service."), std::string::npos) << result.output;

  const korva::test::ServiceConfig config = QueryAgentServiceConfig();
  ASSERT_TRUE(config.exists) << config.error;
  EXPECT_EQ(config.binaryPath, L"\"" + ServiceExecutable() + L"\"");
  EXPECT_EQ(config.startType, static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_EQ(config.serviceType & SERVICE_WIN32_OWN_PROCESS, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
  EXPECT_EQ(config.account, L"LocalSystem");

  const std::string log = Log();
  EXPECT_TRUE(HasLogLine(log, "main", std::string(82, '*')));
  EXPECT_TRUE(HasLogLine(log, "main", "Log Opened."));
  EXPECT_TRUE(HasLogLine(log, "main", "Going to install TESK Agent service."));
  EXPECT_TRUE(HasLogLine(log, "InstallAgentService", "Service installed successfully."));
  EXPECT_TRUE(HasLogLine(log, "main", "Log Closed."));
  EXPECT_TRUE(HasLogLine(log, "initialize", "TESK agent Installed Directory is NULL. So getting QV agent directory."));
  EXPECT_TRUE(HasLogLine(log, "initialize", "Local Agent Installed Directory : " + dir_.NarrowPath()));
  // IsWow64Process's answer: 1 for the PE32 in the 64-bit prefix, 0 for the PE32+.
  const std::string wow64 = korva::win::kIs64BitBuild ? "0" : "1";
  EXPECT_TRUE(HasLogLine(log, "initialize", "IS_WOW_64 : " + wow64));
  EXPECT_TRUE(HasLogLine(log, "initialize", "is_WOW_64 : " + wow64));
  EXPECT_TRUE(HasLogLine(log, "InitiateWow64", "hk32libW is not null."));
}

TEST_F(EntryPointTest, InstallingAgainUpdatesTheExistingService) {
  ASSERT_EQ(Run(L" /i").exitCode, 0u);
  {
    const UniqueServiceHandle service = korva::test::OpenAgentService(SERVICE_CHANGE_CONFIG);
    ASSERT_TRUE(ChangeServiceConfigW(service.get(), SERVICE_NO_CHANGE, SERVICE_DEMAND_START, SERVICE_NO_CHANGE,
                                     L"C:\\elsewhere.exe", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
  }
  ASSERT_EQ(Run(L" /i").exitCode, 0u);
  const korva::test::ServiceConfig config = QueryAgentServiceConfig();
  EXPECT_EQ(config.binaryPath, L"\"" + ServiceExecutable() + L"\"");
  EXPECT_EQ(config.startType, static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_TRUE(HasLogLine(Log(), "InstallAgentService", "Service already exists; its configuration is updated."));
}

TEST_F(EntryPointTest, InstalledServiceStartsAndStopsThenUninstallRemovesIt) {
  ASSERT_EQ(Run(L" /i").exitCode, 0u);
  {
    const UniqueServiceHandle service =
        korva::test::OpenAgentService(SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
    ASSERT_TRUE(service);
    ASSERT_TRUE(StartServiceW(service.get(), 0, nullptr)) << GetLastError();
    EXPECT_EQ(korva::test::WaitForServiceState(service.get(), SERVICE_RUNNING, 30000), static_cast<DWORD>(SERVICE_RUNNING));
  }
  // Uninstall stops the running service itself before deleting it.
  const korva::test::ProgramResult result = Run(L" /U");
  EXPECT_EQ(result.exitCode, 0u);
  EXPECT_NE(result.output.find("Main : Going to uninstall TESK Agent service."), std::string::npos);
  const korva::test::ServiceConfig config = QueryAgentServiceConfig();
  EXPECT_FALSE(config.exists);
  EXPECT_EQ(config.error, static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));

  const std::string log = Log();
  EXPECT_TRUE(HasLogLine(log, "ServiceMain", "TESK agent service started successfully."));
  EXPECT_TRUE(HasLogLine(log, "HandlerEx", "SERVICE_CONTROL_STOP Event (Manual Service Stop) is triggered."));
  // The running service holds the log open against other writers, so the uninstaller's own
  // lines cannot reach it.
  EXPECT_FALSE(HasLogLine(log, "main", "Going to uninstall TESK Agent service."));
}

TEST_F(EntryPointTest, UninstallWithoutAServiceReportsAndStillExitsZero) {
  const korva::test::ProgramResult result = Run(L" /u");
  EXPECT_EQ(result.exitCode, 0u);
  const std::string log = Log();
  EXPECT_TRUE(HasLogLine(log, "UnInstallAgentService", "OpenService failed due to the following error."));
  EXPECT_TRUE(HasLogLine(log, "printErrorMsgForID", "Error ID      :1060"));
  EXPECT_TRUE(HasLogLine(log, "main", "Log Closed."));
}

TEST_F(EntryPointTest, UnknownSwitchIsAnInvalidParameter) {
  const korva::test::ProgramResult result = Run(L" -i");
  ASSERT_TRUE(result.finished);
  EXPECT_EQ(result.exitCode, 1u);
  EXPECT_EQ(result.output, "Main : Invalid parameter : -i ");
  const std::string log = Log();
  EXPECT_TRUE(HasLogLine(log, "main", "Invalid parameter : -i"));
  EXPECT_TRUE(HasLogLine(log, "main", "Log Closed."));
  EXPECT_FALSE(QueryAgentServiceConfig().exists);
}

TEST_F(EntryPointTest, LogLevelZeroWritesNoLogAtAll) {
  korva::test::SetLogLevel("korva_agentservice", 0);
  EXPECT_EQ(Run(L" -x").exitCode, 1u);
  EXPECT_FALSE(korva::test::FileExists(dir_.File(L"logs\\korva_agentservice.log")));
}

TEST_F(EntryPointTest, WithoutArgumentsFromAConsoleTheDispatcherFailureIsLoggedAndExitIsZero) {
  const korva::test::ProgramResult result = Run(L"", 120000);
  ASSERT_TRUE(result.finished);
  EXPECT_EQ(result.exitCode, 0u);
  const std::string log = Log();
  EXPECT_TRUE(HasLogLine(log, "main", "StartServiceCtrlDispatcher is failed to start due to the following error !!!"));
  EXPECT_TRUE(HasLogLine(log, "printErrorMsgForID", "Error ID      :1063"));
  EXPECT_TRUE(HasLogLineStartingWith(log, "printErrorMsgForID", "Error Message :"));
  EXPECT_FALSE(HasLogLine(log, "main", "Log Closed."));
}

}  // namespace
