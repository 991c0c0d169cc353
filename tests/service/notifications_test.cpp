// Notification threads, the access log and the configuration program, in-process.
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "service/control_handler.h"
#include "service/entry_point.h"
#include "service/notifications.h"
#include "support/service_fixture.h"
#include "settings/registry.h"
#include "win/strings.h"

namespace {

using korva::test::HasLogLine;

class NotificationsTest : public korva::test::ServiceHostTest {};

TEST_F(NotificationsTest, FirstRowOfANewFileComesAfterTheHeaderAndLaterRowsDoNot) {
  PrintAgentServiceAccessLog("Device_Event_Notification");
  PrintAgentServiceAccessLog("User_Logon_Notification");
  const std::string access = AccessLog();
  const std::string header =
      "DATE\t\tNOTIFICATION-TIME\tNOTIFICATION-RECEIVED\r\n----\t\t-----------------\t---------------------";
  ASSERT_EQ(access.rfind(header, 0), 0u) << access;
  EXPECT_EQ(CountOf(access, "DATE\t\t"), 1u);
  // Each row: line break, d-m-yyyy, tab, hh:mm:ss, three tabs, the name, a closing tab.
  std::size_t at = header.size();
  for (const char* name : {"Device_Event_Notification", "User_Logon_Notification"}) {
    ASSERT_EQ(access.compare(at, 2, "\r\n"), 0) << access;
    const std::size_t tab = access.find('\t', at + 2);
    const std::string date = access.substr(at + 2, tab - at - 2);
    int day = 0, month = 0, year = 0;
    ASSERT_EQ(std::sscanf(date.c_str(), "%d-%d-%d", &day, &month, &year), 3) << date;
    EXPECT_GE(month, 1);
    EXPECT_LE(month, 12);
    EXPECT_GE(year, 2000);
    const std::string rest = access.substr(tab + 1, 8 + 3 + std::strlen(name) + 1);
    EXPECT_EQ(rest.substr(2, 1) + rest.substr(5, 1), "::");
    EXPECT_EQ(rest.substr(8), std::string("\t\t\t") + name + "\t");
    at = tab + 1 + rest.size();
  }
  EXPECT_EQ(at, access.size());  // the file never ends with a line break
}

TEST_F(NotificationsTest, SubProductRowsGoUnderTheBasePathOrTheInstallFolderWhenItIsEmpty) {
  korva::test::TempDir base;
  CreateDirectoryW(base.File(L"logs").c_str(), nullptr);
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "IsTESKSubProduct", REG_DWORD, "1"), 0);
  ASSERT_EQ(writeValue(korva::test::kAgentKey, "BasePath", REG_SZ, base.NarrowPath()), 0);
  PrintAgentServiceAccessLog("Restore_Device_Notification");
  EXPECT_NE(korva::test::ReadFileBytes(base.File(L"logs\\korva_agentserviceaccess.log")).find("Restore_Device_Notification"),
            std::string::npos);
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
  EXPECT_EQ(CountOf(access, "Machine_HibernateOrStandby_Notification"), 1u);
  EXPECT_EQ(CountOf(access, "Machine_Resume_HibernateOrStandby_Notification"), 1u);
  EXPECT_EQ(CountOf(access, "Machine_Bootup_Notification"), 1u);
  EXPECT_EQ(CountOf(access, "\t\t\t"), 3u);
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
  EXPECT_TRUE(HasLogLine(log, "ExecuteConfiguration", "Command Line Params ->40 0 1 1"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteConfiguration", "OpenProcessToken : Process opened successfully."));
  EXPECT_TRUE(HasLogLine(log, "ExecuteConfiguration", "CreateProcessAsUser config.exe [40 0 1 1] process created successfully."));
  EXPECT_TRUE(HasLogLine(log, "ExecuteConfiguration", "ExecuteConfiguration Method is Ended."));
}

TEST_F(NotificationsTest, ConfigurationProgramOverItsTimeIsTerminated) {
  bin_->Add(L"korvaConfig");
  bin_->SetBehaviour(L"korvaConfig", 7, 60000);
  const ULONGLONG started = GetTickCount64();
  korva::ExecuteConfigurationWithin(500);
  EXPECT_LT(GetTickCount64() - started, 30000u);
  EXPECT_EQ(bin_->Journal().size(), 1u);
  EXPECT_TRUE(HasLogLine(log_->Text(), "ExecuteConfiguration",
                         "Terminating the process config.exe [40 0 1 1] due to time exceeded."));
}

TEST_F(NotificationsTest, MissingConfigurationProgramFallsBackAndLogsBothFailures) {
  ExecuteConfiguration();  // no korvaConfig.exe in bin
  const std::string log = log_->Text();
  EXPECT_TRUE(korva::test::HasLogLineStartingWith(log, "ExecuteConfiguration",
                                                  "CreateProcessAsUser of config.exe [40 0 1 1] is failed to create due to following error :"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteConfiguration", "As a workaround we are calling the CreateProcess to execute config.exe."));
  EXPECT_TRUE(korva::test::HasLogLineStartingWith(log, "ExecuteConfiguration",
                                                  "CreateProcess of config.exe [40 0 1 1] is failed to create due to following error :"));
  EXPECT_TRUE(HasLogLine(log, "ExecuteConfiguration", "ExecuteConfiguration Method is Ended."));
}

}  // namespace
