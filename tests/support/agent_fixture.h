// In-process fixtures: a test agent folder with stand-ins, the globals pointed at it, a captured log, volumes.
#pragma once

#include <windows.h>
#include <winioctl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "devicecontrol/drive_inventory.h"
#include "devicecontrol/restore_cycle.h"
#include "devicecontrol/summary_runs.h"
#include "shared/volume_probe.h"
#include "fileaudit/filter_cycle.h"
#include "power/power_tracking.h"
#include "settings/agent_parameters.h"
#include "service/wiring.h"
#include "settings/registry.h"
#include "shared/monitoring_state.h"
#include "shared/agent_environment.h"
#include "shared/service_state.h"
#include "support/test_support.h"
#include "win/strings.h"

namespace korva::test {

class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WireSubsystems();  // as the service does first
    CleanAgentRegistry();
    CreateDirectoryW(bin_.folder().c_str(), nullptr);
    CreateDirectoryW(dir_.File(L"logs").c_str(), nullptr);
    AgentInstallDirGlobal = dir_.NarrowPath();
    ConfigProgramPath = dir_.File(L"bin\\korvaConfig.exe");
    ResetAgentParametersForTest();
    devicecontrol::ForgetSummaryRunsForTest();  // a shutdown handled before leaves the queue stopping
    SetInstallDirectory(Install());
    ServiceStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    savedWow64_ = IsWow64Flag;
    ResetFlags();
    SetFilterTimerDueMsForTest(3600000);  // a filter timer a test arms never fires while it runs
    log_ = std::make_unique<LogCapture>(6);
  }
  void TearDown() override {
    // A timer queue the test made goes with its timers.
    DeleteFilterTimerQueueForTest();
    DeleteRevokeQueue();
    SetFilterTimerDueMsForTest(0);
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
    ServiceStopRequested.store(false);
    ResetOrderlyEndForTest();  // each test a run of its own, whose end is not recorded yet
  }
  // A revoke timer queue as the service makes it; deleting it waits for a callback under way.
  static bool NewRevokeQueue() { return (TempAccessRevokeTimerQueue = CreateTimerQueue()) != nullptr; }
  static bool DeleteRevokeQueue() {
    if (TempAccessRevokeTimerQueue == nullptr) return true;
    const bool deleted =
        DeleteTimerQueueEx(std::exchange(TempAccessRevokeTimerQueue, nullptr), INVALID_HANDLE_VALUE) != FALSE;
    TempAccessRevokeTimer = nullptr;
    return deleted;
  }
  static void SetInstallDirectory(const std::string& folder) {  // as the settings file would set it
    AgentParameters.installDirectory.reset(static_cast<char*>(std::calloc(folder.size() + 1, 1)));
    std::memcpy(AgentParameters.installDirectory.get(), folder.c_str(), folder.size());
  }
  // Adds the stand-in `name` to bin (see StandInFolder::Add); returns its path in the ANSI code page.
  std::string AddStandIn(const std::wstring& name, int exitCode = 0, unsigned long sleepMs = 0) {
    return win::WideToAnsi(bin_.Add(name, exitCode, sleepMs));
  }
  [[nodiscard]] std::string Install() const { return dir_.NarrowPath() + "\\"; }  // AgentParameters' folder
  [[nodiscard]] std::string AccessLog() const {
    return ReadFileBytes(dir_.File(L"logs\\korva_agentserviceaccess.log"));
  }
  [[nodiscard]] std::size_t Rows(const std::string& name) const { return CountOf(AccessLog(), "\t\t\t" + name + "\t"); }
  // Waits until the log holds `part` `count` times, at most `timeoutMs`. The bounds here are generous
  // (only a failing wait takes them whole): while ten Wine prefixes start beside the suite, a step that
  // starts programs can take many seconds.
  [[nodiscard]] bool WaitForLog(const std::string& part, std::size_t count = 1, unsigned long timeoutMs = 30000) const {
    return WaitUntil([&] { return CountOf(log_->Peek(), part) >= count; }, timeoutMs);
  }
  std::string LoggedBy(const std::function<void()>& step) const {  // what `step` logged
    const std::size_t mark = log_->Peek().size();
    step();
    return log_->Peek().substr(mark);
  }
  [[nodiscard]] static bool StopEventSignalled() { return WaitForSingleObject(ServiceStopEvent, 0) == WAIT_OBJECT_0; }
  // The command lines the journal holds for `name`, waiting up to 30 s for `count` of them.
  [[nodiscard]] std::vector<std::string> LinesOf(const std::string& name, std::size_t count = 0) const {
    std::vector<std::string> lines;
    WaitUntil([&] {
      lines.clear();
      for (const JournalEntry& entry : bin_.Journal()) {
        if (entry.name == name) lines.push_back(entry.commandLine);
      }
      return lines.size() >= count;
    }, 30000);
    return lines;
  }

  TempDir dir_;
  StandInFolder bin_{dir_.File(L"bin")};
  std::unique_ptr<LogCapture> log_;
  BOOL savedWow64_ = FALSE;
};

// A heap text a launcher hands back, owned as the launchers' callers own it.
struct HeapText {
  char** put() { return owner.put(); }
  [[nodiscard]] std::string str() const { return owner ? owner.get() : ""; }
  win::UniqueMallocText<char> owner;
};

inline std::string Quoted(const std::string& path) { return "\"" + path + "\""; }

// One volume: no media or bus type makes that query fail; `throws` stands for a failed allocation.
struct Volume final : ProbedVolume {
  Volume(const std::wstring& id, std::vector<std::wstring> paths, unsigned type, std::optional<int> media,
         std::optional<unsigned> bus, bool hotplug = true, bool throws = false)
      : name(L"\\\\?\\Volume{" + id + L"}\\"), paths(std::move(paths)), type(type), media(media), bus(bus),
        hotplug(hotplug), throws(throws) {}
  bool IsHotplugDevice() override { return hotplug; }
  std::vector<std::wstring> MountPaths() override { return paths; }
  unsigned DriveType(const std::wstring& /*mountPath*/) override { return type; }
  std::optional<int> MediaType() override { return media; }
  std::wstring name;
  std::vector<std::wstring> paths;
  unsigned type;
  std::optional<int> media;
  std::optional<unsigned> bus;
  bool hotplug, throws;
  std::optional<folders::DiskBuses> disks;  // the disks its extents lie on
};

struct TableProbe final : VolumeProbe {
  void ForEachVolume(const std::function<void(const std::wstring&)>& visit) override {
    for (const Volume& v : volumes) visit(v.name);
  }
  std::unique_ptr<ProbedVolume> Open(const std::wstring& name) override {
    const auto v = std::find_if(volumes.begin(), volumes.end(), [&](const Volume& v) { return v.name == name; });
    if (v != volumes.end() && v->throws) throw std::runtime_error("probe failure");
    return v != volumes.end() ? std::make_unique<Volume>(*v) : nullptr;
  }
  BusTypeAnswer BusType(wchar_t letter) override {
    for (const Volume& v : volumes) {
      if (!v.paths.empty() && v.paths.front().front() == letter && v.bus) return {true, *v.bus, 0};
    }
    return {false, 0, ERROR_INVALID_FUNCTION};
  }
  folders::DriveBuses BusesOfDrive(wchar_t letter) override {
    for (const Volume& v : volumes) {
      if (!v.paths.empty() && v.paths.front().front() == letter) return {v.bus, v.disks, server};
    }
    return {};
  }
  std::vector<Volume> volumes;
  bool server = false;  // the machine's edition
};

inline const Volume kStick{L"stick", {L"E:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb};

// Drive scans over a table of volumes (Wine has no hot-plug disks), changed only between scans.
class VolumeTableTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    ResetRemovableDrivesForTest();
    SetVolumeProbeForTest(&probe_);
  }
  void TearDown() override {
    SetVolumeProbeForTest(nullptr);
    ResetRemovableDrivesForTest();
    AgentTest::TearDown();
  }

  TableProbe probe_;
};

}  // namespace korva::test
