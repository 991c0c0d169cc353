// Watched services: query answers as states, and which changes give a line.
#include <gtest/gtest.h>

#include "devicecontrol/core/service_watch.h"

namespace {

using korva::devicecontrol::ChangeLine;
using korva::devicecontrol::StateOf;
using State = korva::devicecontrol::WatchedState;

TEST(ServiceWatch, OnlySettledChangesGiveALine) {
  EXPECT_EQ(StateOf(1060, 0), State::kAbsent);
  EXPECT_EQ(StateOf(5, 4), State::kPending);  // a failed look decides nothing
  EXPECT_EQ(StateOf(0, 2), State::kPending);  // start pending
  EXPECT_EQ(ChangeLine("RFCOMM", State::kStopped, State::kPending), std::nullopt);
  EXPECT_EQ(ChangeLine("RFCOMM", State::kRunning, State::kRunning), std::nullopt);
  EXPECT_EQ(ChangeLine("BthServ", State::kPending, State::kRunning), "The BthServ service started.");
  EXPECT_EQ(ChangeLine("BthServ", State::kAbsent, State::kRunning), "The BthServ service was installed (running).");
}

}  // namespace
