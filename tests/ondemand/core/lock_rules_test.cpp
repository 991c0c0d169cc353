// The on-demand lock decision and the program-name test.
#include "ondemand/core/lock_rules.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using namespace korva::ondemand;

TEST(OnDemandLockRules, BlocksOnlyALockedModuleWhoseRetriesAreUsedUp) {
  const struct { std::uint32_t lock; bool countRead; std::uint32_t count; bool blocked; } cases[] = {
      {1, true, 4, false},  // one retry left
      {1, true, 5, true},   // the limit itself completes the retries
      {2, false, 0, true},  // unreadable count: complete
      {0, true, 5, false},  // not locked
  };
  for (const auto& c : cases) {
    const bool blocked = MustBlockModule(IsLockSet(c.lock), AreRetriesCompleted(c.countRead, c.count));
    EXPECT_EQ(blocked, c.blocked) << "lock " << c.lock << " read " << c.countRead << " count " << c.count;
  }
}

TEST(OnDemandLockRules, RecognisesTheProgramWhateverItsCaseOrFolder) {
  EXPECT_TRUE(IsOnDemandProgramName(L"KORVAONDEMAND.EXE"));
  EXPECT_TRUE(IsOnDemandProgramName(L"C:/agent/bin/KorvaOnDemand.Exe"));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand.exe.bak"));
  EXPECT_FALSE(IsOnDemandProgramName(L"xkorvaOnDemand.exe"));
  EXPECT_FALSE(IsOnDemandProgramName(L"korvaOnDemand.ex{"));  // '{' is no letter: only ASCII letters fold
}

}  // namespace
