// The agent fixture over a table of volumes, for the drive scans Wine cannot show (it has no
// hot-plug disks): the table is changed only between scans, on the scanning thread.
#pragma once

#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <stdexcept>

#include "devicecontrol/drive_inventory.h"
#include "devicecontrol/volume_probe.h"
#include "support/agent_fixture.h"

namespace korva::test {

// One volume; opened, a copy answers as the volume says. No media type: the geometry query fails;
// no bus type: the bus query fails. One that throws when opened stands for a failed allocation.
struct Volume final : ProbedVolume {
  Volume(std::wstring id, std::vector<std::wstring> paths, unsigned type, std::optional<int> media,
         std::optional<unsigned> bus, bool hotplug = true, bool throws = false)
      : name(L"\\\\?\\Volume{" + id + L"}\\"), paths(std::move(paths)), type(type), media(media), bus(bus),
        hotplug(hotplug), throws(throws) {}
  bool IsHotplugDevice() override { return hotplug; }
  std::vector<std::wstring> MountPaths() override { return paths; }
  unsigned DriveType(const std::wstring&) override { return type; }
  std::optional<int> MediaType() override { return media; }
  std::wstring name;
  std::vector<std::wstring> paths;
  unsigned type;
  std::optional<int> media;
  std::optional<unsigned> bus;
  bool hotplug, throws;
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
  std::vector<Volume> volumes;
};

inline const Volume kStick{L"stick", {L"E:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb};

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
