// The RFCOMM monitor on its own thread against the real service control manager, with a stand-in
// service program registered, started, stopped and removed as "RFCOMM".
#include "devicecontrol/rfcomm_monitor.h"
#include "support/agent_fixture.h"

namespace korva::test {
namespace {

using RfcommMonitorTest = AgentTest;

TEST_F(RfcommMonitorTest, EachSettledChangeIsLoggedAndEnumeratesAgainUntilTheServiceStops) {
  const win::UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  DeleteServiceIfPresent(L"RFCOMM");
  AddStandIn(L"korvaDevCtrlSummary");
  const std::wstring program = L"\"" + bin_.Add(L"bluetooth") + L"\"";
  WriteFileBytes(bin_.folder() + L"\\bluetooth.behaviour", "service=1\r\n");
  SetRfcommPollMsForTest(100);
  const win::UniqueHandle thread(CreateThread(nullptr, 0, MonitorRFCOMMStatus, nullptr, 0, nullptr));
  ASSERT_TRUE(WaitForLog("@@@ End of QuerySCMServiceStatus @@@", 2));  // the first look is taken

  win::UniqueServiceHandle rfcomm(CreateServiceW(manager.get(), L"RFCOMM", L"RFCOMM", SERVICE_ALL_ACCESS,
                                                 SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                                 program.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  ASSERT_TRUE(rfcomm) << GetLastError();
  EXPECT_TRUE(WaitForLog("The RFCOMM service was installed (stopped)."));
  ASSERT_TRUE(StartServiceW(rfcomm.get(), 0, nullptr)) << GetLastError();
  EXPECT_TRUE(WaitForLog("The RFCOMM service started."));
  ASSERT_EQ(SendControl(rfcomm.get(), SERVICE_CONTROL_STOP), 0u);
  EXPECT_TRUE(WaitForLog("The RFCOMM service stopped."));
  ASSERT_TRUE(DeleteService(rfcomm.get()));
  rfcomm.reset();  // the service goes once no handle is open on it
  EXPECT_TRUE(WaitForLog("The RFCOMM service was removed."));
  EXPECT_EQ(LinesOf("korvaDevCtrlSummary", 4).size(), 4u);  // one enumeration per change

  ASSERT_TRUE(SetEvent(ServiceStopEvent));
  EXPECT_EQ(WaitForSingleObject(thread.get(), 10000), WAIT_OBJECT_0);
  SetRfcommPollMsForTest(0);
  const std::string log = log_->Text();
  EXPECT_EQ(CountOf(log, "The BthServ service"), 0u);
  EXPECT_EQ(CountOf(log, "The RFCOMM service"), 4u);  // each change once
  EXPECT_TRUE(HasLogLine(log, "MonitorRFCOMMStatus", "@@@ End of MonitorRFCOMMStatus @@@"));
}

}  // namespace
}  // namespace korva::test
