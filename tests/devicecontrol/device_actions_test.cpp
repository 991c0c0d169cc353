// The device helpers started for real: the action program with its action codes and user name,
// the summary program with its event texts, and what happens when they fail.
#include "devicecontrol/device_actions.h"

#include <gtest/gtest.h>

#include "device_control_fixture.h"
#include "support/process_support.h"
#include "win/bitness.h"

namespace korva::test {
namespace {

using DeviceActionsTest = DeviceControlTest;

TEST_F(DeviceActionsTest, ActionCodesReachTheActionProgramWithTheUserOnlyWhereItBelongs) {
  // A user is logged on: an explorer.exe runs in the console session.
  bin_->Add(L"explorer");
  bin_->SetBehaviour(L"explorer", 0, 120000);
  RunningStandIn explorer(bin_->folder() + L"\\explorer.exe");
  ASSERT_TRUE(explorer.started());
  wchar_t name[256];
  DWORD size = 256;
  ASSERT_TRUE(GetUserNameW(name, &size));
  const std::string user = win::WideToAnsi(name);

  IsWow64Flag = FALSE;
  const std::pair<int, std::string> cases[] = {{0, "-c 1"}, {12, "-c 12"}, {7, "-c 7 -n " + user}, {2, "-c 2 -n " + user}};
  std::vector<std::string> expected;
  for (const auto& [code, arguments] : cases) {
    ProcessSecureDeviceOperation(code);
    expected.push_back(ActionLine(arguments));
  }
  // The action program is waited for, so its runs are all in the journal already, in order.
  EXPECT_EQ(LinesOf("devctrlaction64"), expected);
  EXPECT_TRUE(LinesOf("devctrlaction32").empty());
  // The flag is IsWow64Process's answer: only the PE32 runs under WOW64 in the 64-bit prefix.
  EXPECT_EQ(IsWow64Flag, korva::win::kIs64BitBuild ? FALSE : TRUE);
  EXPECT_EQ(CountOf(log_->Text(), "] Successfully Executed ExecuteDeviceApplication.\r\n"), 4u);

  // Nobody logged on: "-n" with an empty name.
  bin_->ClearJournal();
  EXPECT_EQ(ExecuteDeviceApplication(7, L""), 0u);
  EXPECT_EQ(LinesOf("devctrlaction64"), std::vector<std::string>{ActionLine("-c 7 -n ")});
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
  EXPECT_TRUE(HasLogLine(log, "ProcessSecureDeviceOperation", "ExecuteDeviceApplication Failed."));
}

TEST_F(DeviceActionsTest, SummaryProgramGetsTheEventTextAndRunsInItsFolder) {
  ExecuteDeviceEventAction(9, 2, L"Unknown");
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 1), std::vector<std::string>{SummaryLine("-s ET_ENUM 9 2 \"Unknown\"")});
  const std::vector<JournalEntry> journal = bin_->Journal();
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].currentDirectory, Install() + "bin");

  // Not waited for, and its result is logged whatever it is.
  ASSERT_TRUE(DeleteFileW((bin_->folder() + L"\\korvaDevCtrlSummary.exe").c_str()));
  ExecuteDeviceEventAction(9, 2, L"Unknown");
  EXPECT_TRUE(HasLogLine(log_->Text(), "ExecuteDeviceEventAction", "Error code :2"));
}

}  // namespace
}  // namespace korva::test
