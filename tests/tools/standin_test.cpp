// The stand-in helper program the other tests rely on: journal line, exit code, sleep, output.
#include <windows.h>

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "win/strings.h"

namespace {

TEST(StandIn, JournalsItsRunAndBehavesAsItsFileSays) {
  korva::test::TempDir dir;
  const korva::test::StandInFolder bin(dir.path());
  const std::wstring exe = bin.Add(L"devctrlaction64");
  bin.SetBehaviour(L"devctrlaction64", 5, 0, "hello from the helper");

  const korva::test::ProgramResult result = korva::test::RunProgram(L"\"" + exe + L"\" -c 12 -n user", 30000);
  ASSERT_TRUE(result.finished);
  EXPECT_EQ(result.exitCode, 5u);
  EXPECT_EQ(result.output, "hello from the helper\r\n");  // text-mode standard output

  const std::vector<korva::test::JournalEntry> journal = bin.Journal();
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].name, "devctrlaction64");
  EXPECT_EQ(journal[0].commandLine, "\"" + korva::win::WideToUtf8(exe) + "\" -c 12 -n user");
  EXPECT_EQ(journal[0].parentPid, GetCurrentProcessId());
  EXPECT_FALSE(journal[0].user.empty());
}

TEST(StandIn, SleepsWhenToldAndRunsUnderEveryName) {
  korva::test::TempDir dir;
  const korva::test::StandInFolder bin(dir.path());
  const std::wstring sleeper = bin.Add(L"korvaConfig");
  const std::wstring plain = bin.Add(L"qvconfig");
  bin.SetBehaviour(L"korvaConfig", 0, 60000);

  const korva::test::ProgramResult cut = korva::test::RunProgram(L"\"" + sleeper + L"\" 40 0 1 1", 300);
  EXPECT_FALSE(cut.finished);  // still asleep when the wait ran out
  const korva::test::ProgramResult quick = korva::test::RunProgram(L"\"" + plain + L"\"", 30000);
  EXPECT_TRUE(quick.finished);
  EXPECT_EQ(quick.exitCode, 0u);

  const std::vector<korva::test::JournalEntry> journal = bin.Journal();
  ASSERT_EQ(journal.size(), 2u);
  EXPECT_EQ(journal[0].name, "korvaConfig");
  EXPECT_EQ(journal[1].name, "qvconfig");
}

}  // namespace
