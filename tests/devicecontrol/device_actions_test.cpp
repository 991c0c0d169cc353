// The device helpers started for real: the action program with its action codes and user name,
// the summary program with its event texts, and what happens when they fail.
#include "devicecontrol/device_actions.h"

#include <gtest/gtest.h>

#include "device_control_fixture.h"
#include "support/process_support.h"
#include "process/sessions.h"

namespace korva::test {
namespace {

using DeviceActionsTest = DeviceControlTest;

std::wstring OwnUserName() {
  wchar_t name[256];
  DWORD size = 256;
  return GetUserNameW(name, &size) ? std::wstring(name) : std::wstring();
}

TEST_F(DeviceActionsTest, ActionCodesReachTheActionProgramWithTheUserOnlyWhereItBelongs) {
  // A user is logged on: an explorer.exe runs in the console session.
  bin_->Add(L"explorer");
  bin_->SetBehaviour(L"explorer", 0, 120000);
  RunningStandIn explorer(bin_->folder() + L"\\explorer.exe");
  ASSERT_TRUE(explorer.started());
  const std::string user = win::WideToAnsi(OwnUserName());
  ASSERT_FALSE(user.empty());

  IsWow64Flag = FALSE;
  struct Case {
    int code;
    std::string arguments;
  };
  const Case cases[] = {{0, "-c 1"}, {12, "-c 12"}, {7, "-c 7 -n " + user}, {2, "-c 2 -n " + user}, {3, "-c 3 -n " + user}};
  for (const Case& c : cases) ProcessSecureDeviceOperation(c.code);

  // The action program is waited for, so its runs are all in the journal already, in order.
  std::vector<std::string> expected;
  for (const Case& c : cases) expected.push_back(ActionLine(c.arguments));
  EXPECT_EQ(LinesOf("devctrlaction64"), expected);
  EXPECT_TRUE(LinesOf("devctrlaction32").empty());
  EXPECT_EQ(IsWow64Flag, TRUE);  // the 64-bit prefix runs this 32-bit program under WOW64

  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLine(log, "ProcessSecureDeviceOperation", "Logged-in User Name :" + user));
  EXPECT_EQ(CountOf(log, "] Successfully Executed ExecuteDeviceApplication.\r\n"), 5u);
  EXPECT_EQ(CountOf(log, "[ ExecuteDeviceApplication ] Successfully executed.\r\n"), 5u);
  EXPECT_TRUE(HasLogLine(log, "ExecuteDeviceApplication", "@@@ End of ExecuteDeviceApplication @@@"));
}

TEST_F(DeviceActionsTest, CodeSevenNamesNobodyWhenNobodyIsLoggedOn) {
  EXPECT_EQ(ExecuteDeviceApplication(7, L""), 0u);
  EXPECT_EQ(LinesOf("devctrlaction64"), std::vector<std::string>{ActionLine("-c 7 -n ")});

  // Through the user lookup: whoever it finds (Wine may run its own explorer.exe for the desktop)
  // is the name the action program gets.
  bin_->ClearJournal();
  EXPECT_TRUE(EndSystemProcessesNamed(L"explorer.exe", 10000));
  ProcessSecureDeviceOperation(7);
  const std::string log = log_->Text();
  const std::string prefix = "] [ ProcessSecureDeviceOperation ] Logged-in User Name :";
  const std::size_t at = log.find(prefix);
  ASSERT_NE(at, std::string::npos);
  const std::string found = log.substr(at + prefix.size(), log.find("\r\n", at) - at - prefix.size());
  EXPECT_EQ(LinesOf("devctrlaction64"), std::vector<std::string>{ActionLine("-c 7 -n " + found)});
}

TEST_F(DeviceActionsTest, AFailingOrMissingActionProgramIsReportedWithoutFallingBack) {
  bin_->SetBehaviour(L"devctrlaction64", 5, 0);
  EXPECT_EQ(ExecuteDeviceApplication(12, L"alice"), 5u);
  ProcessSecureDeviceOperation(12);
  EXPECT_EQ(LinesOf("devctrlaction64").size(), 2u);

  ASSERT_TRUE(DeleteFileW((bin_->folder() + L"\\devctrlaction64.exe").c_str()));
  EXPECT_EQ(ExecuteDeviceApplication(12, L"alice"), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_TRUE(LinesOf("devctrlaction32").empty());  // no other variant is tried

  const std::string log = log_->Text();
  EXPECT_TRUE(HasLogLineStartingWith(log, "ExecuteDeviceApplication", "Error code :5"));
  EXPECT_TRUE(HasLogLineStartingWith(log, "ExecuteDeviceApplication", "Error code :2"));
  EXPECT_TRUE(HasLogLine(log, "ProcessSecureDeviceOperation", "ExecuteDeviceApplication Failed."));
  EXPECT_FALSE(HasLogLine(log, "ProcessSecureDeviceOperation", "Successfully Executed ExecuteDeviceApplication."));
}

TEST_F(DeviceActionsTest, SummaryProgramGetsTheEventTextAndRunsInItsFolder) {
  ExecuteDeviceEventAction(9, 2, L"Unknown");
  const std::vector<std::string> lines = LinesOf("korvaDevCtrlSummary", 1);
  EXPECT_EQ(lines, std::vector<std::string>{SummaryLine("-s ET_ENUM 9 2 \"Unknown\"")});
  const std::vector<JournalEntry> journal = bin_->Journal();
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].currentDirectory, Install() + "bin");

  ExecuteDeviceEventAction(1, 1, L"USB\\VID_0781&PID_5567\\4C530001");
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 2).back(), SummaryLine("-s ET_COL 1 1 \"USB\\VID_0781&PID_5567\\4C530001\""));

  // Not waited for, and its result is logged whatever it is.
  ASSERT_TRUE(DeleteFileW((bin_->folder() + L"\\korvaDevCtrlSummary.exe").c_str()));
  ExecuteDeviceEventAction(9, 2, L"Unknown");
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "] [ ExecuteDeviceEventAction ] Error code :0\r\n"), 2u);
  EXPECT_TRUE(HasLogLine(log, "ExecuteDeviceEventAction", "Error code :2"));
}

}  // namespace
}  // namespace korva::test
