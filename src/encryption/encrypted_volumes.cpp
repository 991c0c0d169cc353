// The system's answers for the encrypted-volume handler: removable volumes from the volume probe,
// the devices they belong to from the device tree, protection from the volume-encryption provider.
#include "encryption/encrypted_volumes.h"

#include <windows.h>
#include <cfgmgr32.h>
#include <setupapi.h>
#include <wbemidl.h>
#include <winioctl.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "encryption/core/volume_rules.h"
#include "encryption/wmi_core.h"
#include "shared/volume_probe.h"
#include "win/com_ptr.h"
#include "win/unique_handle.h"

namespace {

// GUID_DEVINTERFACE_VOLUME, spelled out: its header is not in every toolchain.
constexpr GUID kVolumeInterface = {0x53F5630D, 0xB6BF, 0x11D0, {0x94, 0xF2, 0x00, 0xA0, 0xC9, 0x1E, 0xFB, 0x8B}};

std::wstring InstancePath(DEVINST device) {
  wchar_t id[MAX_DEVICE_ID_LEN + 1] = {};
  return CM_Get_Device_IDW(device, id, MAX_DEVICE_ID_LEN, 0) == CR_SUCCESS ? std::wstring(id) : std::wstring();
}

// The instance paths of `device` and its ancestors.
std::vector<std::wstring> ChainOf(DEVINST device) {
  std::vector<std::wstring> chain;
  for (DEVINST current = device;;) {
    chain.push_back(InstancePath(current));
    DEVINST parent = 0;
    if (CM_Get_Parent(&parent, current, 0) != CR_SUCCESS) break;
    current = parent;
  }
  return chain;
}

// The device chain of the volume named `volumeName` ("\\?\Volume{...}\"), found among the volume
// interfaces of the device tree; empty when it is not there.
std::vector<std::wstring> DeviceChainOfVolume(const std::wstring& volumeName) {
  const HDEVINFO set = SetupDiGetClassDevsW(&kVolumeInterface, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
  if (set == INVALID_HANDLE_VALUE) return {};
  std::vector<std::wstring> chain;
  SP_DEVICE_INTERFACE_DATA data{};
  data.cbSize = sizeof data;
  for (DWORD i = 0; chain.empty() && SetupDiEnumDeviceInterfaces(set, nullptr, &kVolumeInterface, i, &data); ++i) {
    DWORD needed = 0;
    SetupDiGetDeviceInterfaceDetailW(set, &data, nullptr, 0, &needed, nullptr);
    if (needed < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) continue;
    std::vector<BYTE> bytes(needed);
    auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(bytes.data());
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof device;
    if (!SetupDiGetDeviceInterfaceDetailW(set, &data, detail, needed, nullptr, &device)) continue;
    wchar_t name[MAX_PATH] = {};
    const std::wstring mountPoint = std::wstring(detail->DevicePath) + L"\\";
    if (GetVolumeNameForVolumeMountPointW(mountPoint.c_str(), name, MAX_PATH) && volumeName == name) {
      chain = ChainOf(device.DevInst);
    }
  }
  SetupDiDestroyDeviceInfoList(set);
  return chain;
}

class SystemSource final : public korva::EncryptedVolumeSource {
 public:
  std::vector<korva::RemovableVolume> RemovableVolumes() override {
    std::vector<korva::RemovableVolume> volumes;
    korva::VolumeProbe& probe = korva::SystemVolumeProbe();
    probe.ForEachVolume([&](const std::wstring& volumeName) {
      const std::unique_ptr<korva::ProbedVolume> volume = probe.Open(volumeName);
      if (!volume) return;
      // A volume with no drive letter is checked by its GUID name: its files are as reachable
      // through that name ("\\?\Volume{...}\file") as another's through its letter.
      const std::wstring id = korva::encryption::VolumeId(volume->MountPaths(), volumeName);
      const std::wstring root = id.size() == 2 ? id + L"\\" : id;
      if (volume->DriveType(root) != DRIVE_REMOVABLE && !volume->IsHotplugDevice()) return;
      volumes.push_back({id, DeviceChainOfVolume(volumeName), volumeName});
    });
    return volumes;
  }

  std::optional<std::vector<std::wstring>> VolumeNames() override {
    std::vector<std::wstring> names;
    wchar_t name[MAX_PATH] = {};
    const korva::win::UniqueFindVolume find(FindFirstVolumeW(name, MAX_PATH));
    if (!find) return std::nullopt;
    do {
      names.emplace_back(name);
    } while (FindNextVolumeW(find.get(), name, MAX_PATH));
    if (GetLastError() != ERROR_NO_MORE_FILES) return std::nullopt;  // cut short: not the whole list
    return names;
  }

  korva::ProtectionAnswer ProtectionStatus(const std::wstring& volume) override {
    CWMI_Core* wmi = CWMI_Core::GetWMIInstance(korva::kVolumeEncryptionNamespace);
    // None yet while another thread still connects: a later check may find one.
    if (wmi == nullptr) return {std::nullopt, "no connection to the volume-encryption provider"};
    if (!wmi->IsConnected() || wmi->NameSpace() != korva::kVolumeEncryptionNamespace) {
      return {std::nullopt, "no connection to the volume-encryption provider", false};
    }
    korva::win::ComPtr<IEnumWbemClassObject> objects;
    const std::optional<std::wstring> query = korva::encryption::ProtectionQuery(volume);
    if (!query) return {std::nullopt, "the volume's name cannot be put in a query", false};
    // A call that hung past the checks' stall limit is cancelled: asked again later, as any failed one.
    const HRESULT executed =
        wmi->ExecuteQuery(L"WQL", query->c_str(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, objects.put());
    if (FAILED(executed)) {
      return {std::nullopt, executed == RPC_E_CALL_CANCELED ? "the query was cancelled" : "the query failed"};
    }
    korva::win::ComPtr<IWbemClassObject> object;
    ULONG returned = 0;
    if (const HRESULT next = objects->Next(30000, 1, object.put(), &returned);
        next != WBEM_S_NO_ERROR || returned != 1) {
      if (next == RPC_E_CALL_CANCELED) return {std::nullopt, "the query was cancelled"};
      return {std::nullopt, "no encryptable volume for it", true, next == WBEM_S_FALSE && returned == 0};
    }
    VARIANT value;
    VariantInit(&value);
    korva::ProtectionAnswer answer{std::nullopt, "ProtectionStatus is missing or of the wrong type"};
    if (SUCCEEDED(object->Get(L"ProtectionStatus", 0, &value, nullptr, nullptr))) {
      if (value.vt == VT_I4) answer = {value.lVal, ""};
      if (value.vt == VT_UI4) answer = {static_cast<long>(value.ulVal), ""};
    }
    VariantClear(&value);
    return answer;
  }
};

std::atomic<korva::EncryptedVolumeSource*> g_source{nullptr};

}  // namespace

namespace korva {

EncryptedVolumeSource& SystemEncryptedVolumeSource() {
  static SystemSource source;
  return source;
}

void SetEncryptedVolumeSourceForTest(EncryptedVolumeSource* source) { g_source.store(source); }

EncryptedVolumeSource& CurrentEncryptedVolumeSource() {
  EncryptedVolumeSource* source = g_source.load();
  return source != nullptr ? *source : SystemEncryptedVolumeSource();
}

}  // namespace korva
