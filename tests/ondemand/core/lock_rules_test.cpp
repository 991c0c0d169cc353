// The on-demand lock decision and the program-name test.
#include "ondemand/core/lock_rules.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using korva::ondemand::AreRetriesCompleted;
using korva::ondemand::IsLockSet;
using korva::ondemand::IsOnDemandProgramName;
using korva::ondemand::MustBlockModule;

TEST(OnDemandLockRules, BlocksOnlyALockedModuleWhoseRetriesAreUsedUp) {
  struct Case {
    std::uint32_t lock;
    bool countRead;
    std::uint32_t count;
    bool blocked;
  };
  const Case cases[] = {
      {1, true, 4, false},                        // one retry left
      {1, true, 5, true},                         // the limit itself completes the retries
      {1, true, 6, true},   {1, false, 0, true},  // unreadable count: complete
      {0, true, 5, false},                        // not locked
      {0, false, 0, false}, {0xFFFFFFFFu, true, 0xFFFFFFFFu, true},
      {2, true, 0, false},
  };
  for (const Case& c : cases) {
    const bool blocked = MustBlockModule(IsLockSet(c.lock), AreRetriesCompleted(c.countRead, c.count));
    EXPECT_EQ(blocked, c.blocked) << "lock " << c.lock << " read " << c.countRead << " count " << c.count;
  }
}

TEST(OnDemandLockRules, RecognisesTheProgramWhateverItsCaseOrFolder) {
  EXPECT_TRUE(IsOnDemandProgramName(L"korvaOnDemand.exe"));
  EXPECT_TRUE(IsOnDemandProgramName(L"KORVAONDEMAND.EXE"));
  EXPECT_TRUE(IsOnDemandProgramName(L"korvaondemand.exe"));
  EXPECT_TRUE(IsOnDemandProgramName(L"C:\\Program Files\\Korva\\bin\\korvaOnDemand.exe"));
  EXPECT_TRUE(IsOnDemandProgramName(L"C:/agent/bin/KorvaOnDemand.Exe"));
  EXPECT_FALSE(IsOnDemandProgramName(L""));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand"));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand.exe.bak"));
  EXPECT_FALSE(IsOnDemandProgramName(L"xkorvaOnDemand.exe"));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand.exe\\other.exe"));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemanc.exe"));
  // Only ASCII letters fold: '[' (0x5B) sits 32 below '{' but is not a letter.
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand.ex{"));
}

}  // namespace
