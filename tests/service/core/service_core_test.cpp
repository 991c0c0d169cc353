// The service host's pure core: the status reports by state.
#include <gtest/gtest.h>

#include <string>

#include "service/core/agent_folder_rules.h"
#include "service/core/service_status_rules.h"

namespace svc = korva::service;

namespace {

// Pending states accept nothing and count their checkpoint, with a wait hint longer than the
// handler's own 20 s waits; settled states reset both, and only a stopped service accepts nothing.
TEST(ServiceStatusRules, ControlsCheckpointAndWaitHintByState) {
  const std::uint32_t agents = svc::kAcceptStop | svc::kAcceptShutdown | svc::kAcceptPauseContinue |
                               svc::kAcceptPowerEvent | svc::kAcceptSessionChange;
  for (std::uint32_t state : {svc::kStartPending, svc::kStopPending, svc::kPausePending, svc::kContinuePending}) {
    const svc::StatusReport first = svc::StatusReportFor(state, 0);
    EXPECT_EQ(first.controlsAccepted, 0u) << state;
    EXPECT_EQ(first.checkPoint, 1u) << state;
    EXPECT_GT(first.waitHint, 20000u) << state;
    EXPECT_EQ(svc::StatusReportFor(state, first.checkPoint).checkPoint, 2u) << state;
  }
  for (const auto& [state, accepted] :
       {std::pair{svc::kRunning, agents}, {svc::kPaused, agents}, {svc::kStopped, 0u}}) {
    const svc::StatusReport report = svc::StatusReportFor(state, 7);
    EXPECT_EQ(report.controlsAccepted, accepted) << state;
    EXPECT_EQ(report.checkPoint + report.waitHint, 0u) << state;
  }
}

// Only a named folder on a drive of this machine gets the agent folders' access list.
TEST(AgentFolderRules, OnlyAFullLocalFolderBelowADriveRoot) {
  const struct {
    std::wstring folder;
    bool secured;
  } cases[] = {
      {L"C:\\Program Files (x86)\\Kestrelix\\Tallowmere\\KorvaAgent\\", true},
      {L"d:\\Korva", true},
      {L"C:\\Korva\\..data", true},  // a name, not a step up
      {L"", false},
      {L"C:\\", false},
      {L"C:\\\\/", false},  // still the root
      {L"C:", false},
      {L"C:Korva", false},
      {L"Korva\\bin", false},
      {L"\\Korva", false},
      {L"\\\\server\\share\\Korva", false},
      {L"\\\\?\\C:\\Korva", false},
      {L"C:\\Korva\\..", false},
      {L"C:\\Korva\\..\\Windows", false},
      {L"C:\\Korva/../Windows", false},
      {std::wstring(L"C:\\Korva\0x", 10), false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(svc::IsAgentFolderToSecure(c.folder), c.secured) << std::string(c.folder.begin(), c.folder.end());
  }
}

}  // namespace
