// The on-demand program-name test (the lock decision is shown on the real registry).
#include "ondemand/core/lock_rules.h"

#include <gtest/gtest.h>

namespace {

using namespace korva::ondemand;

TEST(OnDemandLockRules, RecognisesTheProgramWhateverItsCaseOrFolder) {
  EXPECT_TRUE(IsOnDemandProgramName(L"KORVAONDEMAND.EXE"));
  EXPECT_TRUE(IsOnDemandProgramName(L"C:/agent/bin/KorvaOnDemand.Exe"));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand.exe.bak"));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand.ex{"));  // '{' is no letter: only ASCII letters fold
}

}  // namespace
