// The system's volume probe: volume enumeration and the storage I/O controls of the drive scan
// and of the encrypted-volume handler's volume source.
#include "shared/volume_probe.h"

#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
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
static_assert(offsetof(VOLUME_DISK_EXTENTS, Extents) == 8 && sizeof(DISK_EXTENT) == 24,
              "extents as the system lays them out");

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

std::wstring DriveDevice(wchar_t driveLetter) { return {L'\\', L'\\', L'.', L'\\', driveLetter, L':'}; }

// Opened for queries only: no read or write access is asked, so the disk's lists are not in the way.
win::UniqueFileHandle OpenDevice(const std::wstring& device) {
  return win::UniqueFileHandle(
      CreateFileW(device.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
}

// The bus of the device behind an opened volume or disk.
BusTypeAnswer QueryBusType(HANDLE device) {
  BusTypeAnswer answer;
  STORAGE_PROPERTY_QUERY query{};
  query.PropertyId = StorageDeviceProperty;
  query.QueryType = PropertyStandardQuery;
  // The size first: some drivers refuse a buffer smaller than their whole descriptor.
  STORAGE_DESCRIPTOR_HEADER header{};
  DWORD returned = 0;
  if (!DeviceIoControl(device, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query, &header, sizeof header, &returned,
                       nullptr)) {
    answer.error = GetLastError();
    return answer;
  }
  constexpr DWORD kMaxDescriptorBytes = 64 * 1024;
  const DWORD size = std::min(std::max<DWORD>(header.Size, sizeof(STORAGE_DEVICE_DESCRIPTOR)), kMaxDescriptorBytes);
  std::vector<BYTE> bytes(size);
  if (!DeviceIoControl(device, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query, bytes.data(), size, &returned,
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

// Whether Windows is a server edition (a domain controller's included); read once. The multi-session
// edition of Windows Enterprise calls itself a server, but is a workstation that many users share.
bool RunsServerEdition() {
  static const bool server = [] {
    constexpr DWORD kMultiSessionEnterprise = 0xAF;  // PRODUCT_SERVERRDSH
    OSVERSIONINFOEXW workstation{};
    workstation.dwOSVersionInfoSize = sizeof workstation;
    workstation.wProductType = VER_NT_WORKSTATION;
    const DWORDLONG condition = VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL);
    if (VerifyVersionInfoW(&workstation, VER_PRODUCT_TYPE, condition) != FALSE ||
        GetLastError() != ERROR_OLD_WIN_VERSION) {
      return false;
    }
    DWORD product = 0;
    return GetProductInfo(10, 0, 0, 0, &product) != FALSE && product != kMultiSessionEnterprise;
  }();
  return server;
}

// The device a drive letter names in the system's namespace (\Device\HarddiskVolume3); empty
// when it cannot be read.
std::wstring DosDeviceTarget(wchar_t driveLetter) {
  const wchar_t drive[] = {driveLetter, L':', L'\0'};
  std::vector<wchar_t> target(kVolumeNameChars + 1, L'\0');
  const DWORD n = QueryDosDeviceW(drive, target.data(), kVolumeNameChars);
  return n == 0 ? std::wstring() : std::wstring(target.data());
}

// The numbers of the disks a volume's extents lie on, each once, in the order given; none when the
// volume names no disk, an extent is empty, or the answer cannot be read. The answer is read at most
// at kMaxExtents, far more than a volume extended again and again has.
std::vector<DWORD> ExtentDisks(HANDLE volume) {
  constexpr DWORD kMaxExtents = 1024;
  constexpr DWORD kHeaderBytes = offsetof(VOLUME_DISK_EXTENTS, Extents);
  const auto extentCount = [](const std::vector<BYTE>& bytes) {
    DWORD count = 0;
    std::memcpy(&count, bytes.data(), sizeof count);
    return count;
  };
  std::vector<BYTE> bytes(sizeof(VOLUME_DISK_EXTENTS), 0);
  DWORD returned = 0;
  bool answered = DeviceIoControl(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, bytes.data(),
                                  static_cast<DWORD>(bytes.size()), &returned, nullptr) != FALSE;
  if (!answered && GetLastError() == ERROR_MORE_DATA) {
    // The count is written even when the extents do not fit; a zeroed buffer reads as none.
    const DWORD count = extentCount(bytes);
    if (count == 0 || count > kMaxExtents) return {};
    bytes.assign(kHeaderBytes + count * sizeof(DISK_EXTENT), 0);
    returned = 0;
    answered = DeviceIoControl(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, bytes.data(),
                               static_cast<DWORD>(bytes.size()), &returned, nullptr) != FALSE;
  }
  returned = std::min(returned, static_cast<DWORD>(bytes.size()));
  if (!answered || returned < kHeaderBytes) return {};
  const DWORD count = extentCount(bytes);
  if (count == 0 || count > kMaxExtents || returned < kHeaderBytes + count * sizeof(DISK_EXTENT)) return {};
  std::vector<DWORD> disks;
  for (DWORD i = 0; i < count; ++i) {
    DISK_EXTENT extent{};
    std::memcpy(&extent, bytes.data() + kHeaderBytes + i * sizeof(DISK_EXTENT), sizeof extent);
    if (extent.ExtentLength.QuadPart <= 0) return {};
    if (std::find(disks.begin(), disks.end(), extent.DiskNumber) == disks.end()) disks.push_back(extent.DiskNumber);
  }
  return disks;
}

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
    const win::UniqueFileHandle volume = OpenDevice(DriveDevice(driveLetter));
    if (!volume) return BusTypeAnswer{false, 0, GetLastError()};
    return QueryBusType(volume.get());
  }

  folders::DriveBuses BusesOfDrive(wchar_t driveLetter) override {
    folders::DriveBuses buses;
    buses.server = RunsServerEdition();
    // The letter's device is read first, and a volume of the system's own disk stack is opened by
    // that name: its extents and its own bus then come from the device whose name was judged, even
    // if the letter is given to another meanwhile. Any other volume driver (a user-mode file
    // system's, an encrypted container's) answers what it likes, and a disk number it makes up is
    // most likely the boot disk's: its extents are not asked for.
    const std::wstring target = DosDeviceTarget(driveLetter);
    const bool diskStack = folders::IsDiskStackVolume(target);
    const win::UniqueFileHandle volume =
        OpenDevice(diskStack ? L"\\\\?\\GLOBALROOT" + target : DriveDevice(driveLetter));
    if (!volume) return buses;
    const BusTypeAnswer own = QueryBusType(volume.get());
    if (own.known) buses.volume = own.busType;
    if (!diskStack) return buses;
    const std::vector<DWORD> disks = ExtentDisks(volume.get());
    if (disks.empty()) return buses;
    buses.disks.emplace();
    for (const DWORD disk : disks) {
      const win::UniqueFileHandle opened = OpenDevice(L"\\\\.\\PhysicalDrive" + std::to_wstring(disk));
      const BusTypeAnswer answer = opened ? QueryBusType(opened.get()) : BusTypeAnswer{};
      buses.disks->push_back(answer.known ? std::optional<unsigned>(answer.busType) : std::nullopt);
    }
    return buses;
  }
};

}  // namespace

// Never destroyed: path walks use it from threads that outlive the process's static objects.
VolumeProbe& SystemVolumeProbe() {
  static auto* const probe = new SystemProbe;
  return *probe;
}

}  // namespace korva
