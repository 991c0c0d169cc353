// In-process fixture for the service host.
#include "support/service_fixture.h"

#include <cstdlib>
#include <cstring>

#include "service/control_handler.h"
#include "service/entry_point.h"
#include "service/service_main.h"
#include "settings/agent_parameters.h"
#include "win/strings.h"

namespace korva::test {

void ServiceHostTest::SetUp() {
  CleanAgentRegistry();
  CreateDirectoryW(dir_.File(L"bin").c_str(), nullptr);
  CreateDirectoryW(dir_.File(L"logs").c_str(), nullptr);
  bin_ = std::make_unique<StandInFolder>(dir_.File(L"bin"));
  AgentInstallDirGlobal = dir_.NarrowPath();
  ConfigProgramPath = dir_.File(L"bin\\korvaConfig.exe");
  ResetAgentParametersForTest();
  const std::string install = dir_.NarrowPath() + "\\";
  AgentParameters.installDirectory = static_cast<char*>(std::calloc(install.size() + 1, 1));
  std::memcpy(AgentParameters.installDirectory, install.c_str(), install.size());
  ServiceStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ShutdownInProgressFlag.store(0);
  AssumedLogonFlag.store(0);
  log_ = std::make_unique<LogCapture>(6);
}

void ServiceHostTest::TearDown() {
  log_.reset();
  CloseHandle(ServiceStopEvent);
  ServiceStopEvent = nullptr;
  ShutdownInProgressFlag.store(0);
  AssumedLogonFlag.store(0);
  ResetAgentParametersForTest();
  AgentInstallDirGlobal.clear();
  CleanAgentRegistry();
}

std::string ServiceHostTest::AccessLog() const {
  return ReadFileBytes(dir_.File(L"logs\\korva_agentserviceaccess.log"));
}

std::size_t ServiceHostTest::CountOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

std::size_t ServiceHostTest::WaitForAccessRows(const std::string& name, std::size_t count,
                                               unsigned long timeoutMs) const {
  const ULONGLONG deadline = GetTickCount64() + timeoutMs;
  std::size_t seen = CountOf(AccessLog(), "\t\t\t" + name + "\t");
  while (seen < count && GetTickCount64() < deadline) {
    Sleep(20);
    seen = CountOf(AccessLog(), "\t\t\t" + name + "\t");
  }
  return seen;
}

bool ServiceHostTest::StopEventSignalled() const { return WaitForSingleObject(ServiceStopEvent, 0) == WAIT_OBJECT_0; }

}  // namespace korva::test
