// In-process fixture for the device routines: the service fixture's agent folder with the device
// helpers as stand-ins, the device switches off, and builders for real device broadcasts.
#pragma once

#include <windows.h>
#include <dbt.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "devicecontrol/device_notifications.h"
#include "devicecontrol/restore_cycle.h"
#include "devicecontrol/settings_monitor.h"
#include "service/entry_point.h"
#include "support/service_fixture.h"
#include "win/strings.h"

namespace korva::test {

// The interface class of USB devices, which a USB stick's arrival names.
inline constexpr GUID kUsbDeviceInterface = {0xA5DCBF10, 0x6530, 0x11D2, {0x90, 0x1F, 0x00, 0xC0, 0x4F, 0xB9, 0x51, 0xED}};
inline constexpr wchar_t kUsbStickPath[] =
    L"\\\\?\\USB#VID_0781&PID_5567#4c530001#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
inline constexpr char kUsbStickInstance[] = "USB\\VID_0781&PID_5567\\4C530001";

// A DEV_BROADCAST_DEVICEINTERFACE_W as the system builds it: the name runs past the structure.
class InterfaceBroadcast {
 public:
  explicit InterfaceBroadcast(const std::wstring& name, DWORD deviceType = DBT_DEVTYP_DEVICEINTERFACE)
      : bytes_(offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) + (name.size() + 1) * sizeof(wchar_t)) {
    auto* header = reinterpret_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(bytes_.data());
    header->dbcc_size = static_cast<DWORD>(bytes_.size());
    header->dbcc_devicetype = deviceType;
    header->dbcc_classguid = kUsbDeviceInterface;
    std::memcpy(header->dbcc_name, name.c_str(), (name.size() + 1) * sizeof(wchar_t));
  }
  PDEV_BROADCAST_HDR header() { return reinterpret_cast<PDEV_BROADCAST_HDR>(bytes_.data()); }

 private:
  std::vector<std::byte> bytes_;
};

// A custom event of a volume handle.
inline DEV_BROADCAST_HANDLE HandleBroadcast(const GUID& eventGuid) {
  DEV_BROADCAST_HANDLE broadcast{};
  broadcast.dbch_size = sizeof broadcast;
  broadcast.dbch_devicetype = DBT_DEVTYP_HANDLE;
  broadcast.dbch_handle = reinterpret_cast<HANDLE>(static_cast<INT_PTR>(0x1234));
  broadcast.dbch_eventguid = eventGuid;
  broadcast.dbch_nameoffset = -1;
  return broadcast;
}

class DeviceControlTest : public ServiceHostTest {
 protected:
  void SetUp() override {
    ServiceHostTest::SetUp();
    for (const wchar_t* name : {L"devctrlaction64", L"devctrlaction32", L"korvaDevCtrlSummary"}) bin_->Add(name);
    SwitchesOff();
    savedWow64_ = IsWow64Flag;
  }
  void TearDown() override {
    SwitchesOff();
    IsWow64Flag = savedWow64_;
    ServiceHostTest::TearDown();
  }

  std::string Install() const { return dir_.NarrowPath() + "\\"; }
  // The helpers' command lines as the service starts them (note the action program's double '\').
  std::string ActionLine(const std::string& args) const { return "\"" + Install() + "\\bin\\devctrlaction64.exe\" " + args; }
  std::string SummaryLine(const std::string& args) const { return "\"" + Install() + "bin\\korvaDevCtrlSummary.exe\" " + args; }
  // The command lines the journal holds for `name`, waiting up to `timeoutMs` for `count` of them.
  std::vector<std::string> LinesOf(const std::string& name, std::size_t count = 0, unsigned long timeoutMs = 10000) const {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;) {
      std::vector<std::string> lines;
      for (const JournalEntry& entry : bin_->Journal()) {
        if (entry.name == name) lines.push_back(entry.commandLine);
      }
      if (lines.size() >= count || GetTickCount64() >= deadline) return lines;
      Sleep(20);
    }
  }

 private:
  static void SwitchesOff() {  // both device switches off
    MonitorEncryptedDevice.store(0);
    SkipRestoreUnpluggedBlocked.store(0);
  }
  BOOL savedWow64_ = FALSE;
};

}  // namespace korva::test
