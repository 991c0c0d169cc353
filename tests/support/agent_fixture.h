// In-process fixture for the service's routines: a test agent folder (bin with stand-ins, logs), the
// process globals pointed at it and put back afterwards, a clean agent registry and a captured log.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "devicecontrol/restore_cycle.h"
#include "devicecontrol/settings_monitor.h"
#include "settings/agent_parameters.h"
#include "shared/agent_environment.h"
#include "shared/service_state.h"
#include "support/test_support.h"
#include "win/strings.h"

namespace korva::test {

class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CleanAgentRegistry();
    CreateDirectoryW(bin_.folder().c_str(), nullptr);
    CreateDirectoryW(dir_.File(L"logs").c_str(), nullptr);
    AgentInstallDirGlobal = dir_.NarrowPath();
    ConfigProgramPath = dir_.File(L"bin\\korvaConfig.exe");
    ResetAgentParametersForTest();
    AgentParameters.installDirectory = static_cast<char*>(std::calloc(Install().size() + 1, 1));
    std::memcpy(AgentParameters.installDirectory, Install().c_str(), Install().size());
    ServiceStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    savedWow64_ = IsWow64Flag;
    ResetFlags();
    log_ = std::make_unique<LogCapture>(6);
  }
  void TearDown() override {
    log_.reset();
    CloseHandle(ServiceStopEvent);
    ServiceStopEvent = nullptr;
    IsWow64Flag = savedWow64_;
    ResetFlags();
    ResetAgentParametersForTest();
    AgentInstallDirGlobal.clear();
    CleanAgentRegistry();
  }
  static void ResetFlags() {
    for (auto* flag :
         {&ShutdownInProgressFlag, &AssumedLogonFlag, &MonitorEncryptedDevice, &SkipRestoreUnpluggedBlocked}) {
      flag->store(0);
    }
  }
  // Adds the stand-in `name` to bin (see StandInFolder::Add); returns its path in the ANSI code page.
  std::string AddStandIn(const std::wstring& name, int exitCode = 0, unsigned long sleepMs = 0,
                         const std::string& output = "") {
    return win::WideToAnsi(bin_.Add(name, exitCode, sleepMs, output));
  }
  std::string Install() const { return dir_.NarrowPath() + "\\"; }  // AgentParameters' folder
  std::string AccessLog() const { return ReadFileBytes(dir_.File(L"logs\\korva_agentserviceaccess.log")); }
  std::size_t Rows(const std::string& name) const { return CountOf(AccessLog(), "\t\t\t" + name + "\t"); }
  // Waits until the log holds `part` `count` times, at most `timeoutMs`.
  bool WaitForLog(const std::string& part, std::size_t count = 1, unsigned long timeoutMs = 10000) const {
    return WaitUntil([&] { return CountOf(log_->Peek(), part) >= count; }, timeoutMs);
  }
  std::string LoggedBy(const std::function<void()>& step) const {  // what `step` logged
    const std::size_t mark = log_->Peek().size();
    step();
    return log_->Peek().substr(mark);
  }
  bool StopEventSignalled() const { return WaitForSingleObject(ServiceStopEvent, 0) == WAIT_OBJECT_0; }
  // The command lines the journal holds for `name`, waiting up to 10 s for `count` of them.
  std::vector<std::string> LinesOf(const std::string& name, std::size_t count = 0) const {
    std::vector<std::string> lines;
    WaitUntil([&] {
      lines.clear();
      for (const JournalEntry& entry : bin_.Journal()) {
        if (entry.name == name) lines.push_back(entry.commandLine);
      }
      return lines.size() >= count;
    }, 10000);
    return lines;
  }

  TempDir dir_;
  StandInFolder bin_{dir_.File(L"bin")};
  std::unique_ptr<LogCapture> log_;
  BOOL savedWow64_ = FALSE;
};

// A heap text a launcher hands back, freed with free() as the launchers' callers do.
struct HeapText {
  HeapText() = default;
  HeapText(const HeapText&) = delete;
  ~HeapText() { std::free(text); }
  std::string str() const { return text != nullptr ? text : ""; }
  char* text = nullptr;
};

inline std::string Quoted(const std::string& path) { return "\"" + path + "\""; }

}  // namespace korva::test
