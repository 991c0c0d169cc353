// Notification threads, the access log and the configuration program, in-process.
#include <windows.h>

#include <regex>

#include "service/control_handler.h"
#include "service/entry_point.h"
#include "service/notifications.h"
#include "settings/registry.h"
#include "support/service_fixture.h"
#include "win/strings.h"

namespace {

using korva::test::HasLogLine;
using korva::test::HasLogLineStartingWith;
using NotificationsTest = korva::test::ServiceHostTest;

TEST_F(NotificationsTest, AccessLogHasOneHeaderThenARowPerNotificationAndNoFinalLineBreak) {
  PrintAgentServiceAccessLog("Device_Event_Notification");
  PrintAgentServiceAccessLog("User_Logon_Notification");
  // Each run of digits as one '#': the layout is checked, not the time of writing.
  EXPECT_EQ(std::regex_replace(AccessLog(), std::regex("[0-9]+"), "#"),
            "DATE\t\tNOTIFICATION-TIME\tNOTIFICATION-RECEIVED\r\n----\t\t-----------------\t---------------------"
            "\r\n#-#-#\t#:#:#\t\t\tDevice_Event_Notification\t\r\n#-#-#\t#:#:#\t\t\tUser_Logon_Notification\t");
}

TEST_F(NotificationsTest, SubProductRowsGoUnderTheBasePathOrTheInstallFolderWhenItIsEmpty) {
  korva::test::TempDir base;
  CreateDirectoryW(base.File(L"logs").c_str(), nullptr);
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "BasePath", REG_SZ, base.NarrowPath()), 0);
  PrintAgentServiceAccessLog("Restore_Device_Notification");
  EXPECT_EQ(CountOf(korva::test::ReadFileBytes(base.File(L"logs\\korva_agentserviceaccess.log")),
                    "Restore_Device_Notification"),
            1u);
  EXPECT_EQ(AccessLog(), "");
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "BasePath", REG_SZ, ""), 0);
  PrintAgentServiceAccessLog("Restore_Device_Notification");
  EXPECT_EQ(CountOf(AccessLog(), "Restore_Device_Notification"), 1u);
}

TEST_F(NotificationsTest, EachCodeWritesItsRowAndNullOrUnknownCodesOnlyLog) {
  for (int* code : {&HibernateOrStandbyCode, &ResumeCode, &BootNotificationCode}) EXPECT_EQ(InvokeShutdown(code), 0u);
  int unknown = 9;
  EXPECT_EQ(InvokeShutdown(&unknown), 0u);
  EXPECT_EQ(InvokeShutdown(nullptr), 0u);
  const std::string access = AccessLog();
  EXPECT_EQ(CountOf(access, "\t\t\t"), 3u);
  for (const char* row : {"\tMachine_HibernateOrStandby_Notification\t",
                          "\tMachine_Resume_HibernateOrStandby_Notification\t", "\tMachine_Bootup_Notification\t"}) {
    EXPECT_EQ(CountOf(access, row), 1u) << row;
  }
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "InvokeShutdown", "lpParam :0"));
  EXPECT_TRUE(HasLogLine(log, "InvokeShutdown", "lpParam :9"));
  EXPECT_TRUE(HasLogLine(log, "InvokeShutdown", "Root Path :" + dir_.NarrowPath() + "\\\\bin"));
}

TEST_F(NotificationsTest, ConfigurationProgramRunsWithItsArgumentsAndResetsTheAssumedLogon) {
  const std::wstring exe = bin_->Add(L"korvaConfig");
  AssumedLogonFlag.store(1);
  ExecuteConfiguration();
  const std::vector<korva::test::JournalEntry> journal = bin_->Journal();
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].commandLine, "\"" + korva::win::WideToUtf8(exe) + "\" 40 0 1 1");
  EXPECT_EQ(journal[0].parentPid, GetCurrentProcessId());
  EXPECT_EQ(AssumedLogonFlag.load(), 0);
  const std::string log = log_->Text();
  for (const char* line : {"Command Line Params ->40 0 1 1", "OpenProcessToken : Process opened successfully.",
                           "CreateProcessAsUser config.exe [40 0 1 1] process created successfully.",
                           "ExecuteConfiguration Method is Ended."}) {
    EXPECT_TRUE(HasLogLine(log, "ExecuteConfiguration", line)) << line;
  }
}

TEST_F(NotificationsTest, ConfigurationProgramOverItsTimeIsTerminated) {
  bin_->Add(L"korvaConfig");
  bin_->SetBehaviour(L"korvaConfig", 7, 60000);
  const ULONGLONG started = GetTickCount64();
  korva::ExecuteConfigurationWithin(500);
  EXPECT_LT(GetTickCount64() - started, 30000u);  // not the program's minute
  EXPECT_EQ(bin_->Journal().size(), 1u);
  EXPECT_TRUE(HasLogLine(log_->Text(), "ExecuteConfiguration",
                         "Terminating the process config.exe [40 0 1 1] due to time exceeded."));
}

TEST_F(NotificationsTest, MissingConfigurationProgramFallsBackAndLogsBothFailures) {
  ExecuteConfiguration();  // no korvaConfig.exe in bin
  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLineStartingWith(
      log, "ExecuteConfiguration",
      "CreateProcessAsUser of config.exe [40 0 1 1] is failed to create due to following error :"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteConfiguration",
                         "As a workaround we are calling the CreateProcess to execute config.exe."));
  EXPECT_TRUE(
      HasLogLineStartingWith(log, "ExecuteConfiguration",
                             "CreateProcess of config.exe [40 0 1 1] is failed to create due to following error :"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteConfiguration", "ExecuteConfiguration Method is Ended."));
}

}  // namespace
