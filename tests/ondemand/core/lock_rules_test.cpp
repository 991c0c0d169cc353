// The on-demand lock decision and the program-name test.
#include "ondemand/core/lock_rules.h"

#include <gtest/gtest.h>

namespace {

using namespace korva::ondemand;

TEST(OnDemandLockRules, BlocksOnlyALockedModuleWhoseRetriesAreUsedUp) {
  EXPECT_FALSE(MustBlockModule(IsLockSet(1), AreRetriesCompleted(true, 4)));  // one retry left
  EXPECT_TRUE(MustBlockModule(IsLockSet(1), AreRetriesCompleted(true, 5)));   // the limit itself completes them
  EXPECT_TRUE(MustBlockModule(IsLockSet(2), AreRetriesCompleted(false, 0)));  // an unreadable count completes them
  EXPECT_FALSE(MustBlockModule(IsLockSet(0), AreRetriesCompleted(true, 5)));  // not locked
}

TEST(OnDemandLockRules, RecognisesTheProgramWhateverItsCaseOrFolder) {
  EXPECT_TRUE(IsOnDemandProgramName(L"KORVAONDEMAND.EXE"));
  EXPECT_TRUE(IsOnDemandProgramName(L"C:/agent/bin/KorvaOnDemand.Exe"));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand.exe.bak"));
  EXPECT_FALSE(IsOnDemandProgramName(L"xkorvaOnDemand.exe"));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand.ex{"));  // '{' is no letter: only ASCII letters fold
}

}  // namespace
