// The system's volume probe: volume enumeration and the storage I/O controls of the drive scan
// and of the encrypted-volume handler's volume source.
#include "shared/volume_probe.h"

#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "win/unique_handle.h"

namespace korva {

namespace {

constexpr DWORD kVolumeNameChars = MAX_PATH;
constexpr DWORD kMountPathChars = MAX_PATH;
// The longest list of mount paths read: far more folders than any volume is mounted in.
constexpr DWORD kMaxMountPathChars = 64 * 1024;

static_assert(sizeof(STORAGE_HOTPLUG_INFO) == 8, "hot-plug answer is 8 bytes");
static_assert(sizeof(DISK_GEOMETRY) == 24, "geometry answer is 24 bytes");
static_assert(sizeof(STORAGE_PROPERTY_QUERY) == 12, "property query is 12 bytes");
static_assert(sizeof(STORAGE_DEVICE_DESCRIPTOR) == 40, "fixed part of the device descriptor is 40 bytes");

class SystemVolume final : public ProbedVolume {
 public:
  SystemVolume(std::wstring volumeName, win::UniqueFileHandle handle)
      : name_(std::move(volumeName)), handle_(std::move(handle)) {}

  bool IsHotplugDevice() override {
    STORAGE_HOTPLUG_INFO info{};
    DWORD returned = 0;
    if (!DeviceIoControl(handle_.get(), IOCTL_STORAGE_GET_HOTPLUG_INFO, nullptr, 0, &info, sizeof info, &returned,
                         nullptr)) {
      return false;
    }
    return info.DeviceHotplug == 1;
  }

  std::vector<std::wstring> MountPaths() override {
    // The paths come as a list of strings, each ended by a NUL, the list by one more. A list longer
    // than the first buffer (a volume mounted in many folders) is read again at the size the
    // system asks for, up to a bound.
    std::vector<wchar_t> buffer(kMountPathChars + 1);
    std::vector<std::wstring> paths;
    for (int attempt = 0; attempt < 2; ++attempt) {
      DWORD needed = 0;
      const auto size = static_cast<DWORD>(buffer.size() - 1);
      if (GetVolumePathNamesForVolumeNameW(name_.c_str(), buffer.data(), size, &needed)) {
        const wchar_t* const end = buffer.data() + size;
        for (const wchar_t* path = buffer.data(); path < end && *path != L'\0'; path += paths.back().size() + 1) {
          paths.emplace_back(path, std::find(path, end, L'\0'));
        }
        return paths;
      }
      if (GetLastError() != ERROR_MORE_DATA || needed <= size || needed > kMaxMountPathChars) return paths;
      buffer.assign(needed + 1, L'\0');
    }
    return paths;
  }

  unsigned DriveType(const std::wstring& mountPath) override { return GetDriveTypeW(mountPath.c_str()); }

  std::optional<int> MediaType() override {
    DISK_GEOMETRY geometry{};
    DWORD returned = 0;
    if (!DeviceIoControl(handle_.get(), IOCTL_DISK_GET_DRIVE_GEOMETRY, nullptr, 0, &geometry, sizeof geometry,
                         &returned, nullptr)) {
      return std::nullopt;
    }
    return static_cast<int>(geometry.MediaType);
  }

 private:
  std::wstring name_;  // with its trailing backslash, as the mount-path query wants it
  win::UniqueFileHandle handle_;
};

class SystemProbe final : public VolumeProbe {
 public:
  void ForEachVolume(const std::function<void(const std::wstring&)>& visit) override {
    wchar_t name[kVolumeNameChars] = {};
    const win::UniqueFindVolume find(FindFirstVolumeW(name, kVolumeNameChars));
    if (!find) return;
    do {
      visit(name);
    } while (FindNextVolumeW(find.get(), name, kVolumeNameChars));
  }

  std::unique_ptr<ProbedVolume> Open(const std::wstring& volumeName) override {
    // The volume itself, not its root folder: without the trailing backslash.
    std::wstring device = volumeName;
    if (!device.empty() && device.back() == L'\\') device.pop_back();
    win::UniqueFileHandle handle(
        CreateFileW(device.c_str(), 0, 0, nullptr, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING, nullptr));
    if (!handle) return nullptr;
    return std::make_unique<SystemVolume>(volumeName, std::move(handle));
  }

  BusTypeAnswer BusType(wchar_t driveLetter) override {
    BusTypeAnswer answer;
    const wchar_t device[] = {L'\\', L'\\', L'.', L'\\', driveLetter, L':', L'\0'};
    const win::UniqueFileHandle disk(
        CreateFileW(device, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!disk) {
      answer.error = GetLastError();
      return answer;
    }
    STORAGE_PROPERTY_QUERY query{};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    // The size first: some drivers refuse a buffer smaller than their whole descriptor.
    STORAGE_DESCRIPTOR_HEADER header{};
    DWORD returned = 0;
    if (!DeviceIoControl(disk.get(), IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query, &header, sizeof header,
                         &returned, nullptr)) {
      answer.error = GetLastError();
      return answer;
    }
    constexpr DWORD kMaxDescriptorBytes = 64 * 1024;
    const DWORD size = std::min(std::max<DWORD>(header.Size, sizeof(STORAGE_DEVICE_DESCRIPTOR)), kMaxDescriptorBytes);
    std::vector<BYTE> bytes(size);
    if (!DeviceIoControl(disk.get(), IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query, bytes.data(), size, &returned,
                         nullptr)) {
      answer.error = GetLastError();
      return answer;
    }
    if (returned < offsetof(STORAGE_DEVICE_DESCRIPTOR, BusType) + sizeof(STORAGE_BUS_TYPE)) {
      answer.error = ERROR_INVALID_DATA;
      return answer;
    }
    answer.known = true;
    answer.busType = static_cast<unsigned>(reinterpret_cast<const STORAGE_DEVICE_DESCRIPTOR*>(bytes.data())->BusType);
    return answer;
  }
};

}  // namespace

VolumeProbe& SystemVolumeProbe() {
  static SystemProbe probe;
  return probe;
}

}  // namespace korva
