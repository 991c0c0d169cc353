// The removable drive inventory, in-process: scans over a table of volumes (Wine has no hot-plug
// disks), and one scan of the real volumes.
#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "devicecontrol/drive_inventory.h"
#include "devicecontrol/volume_probe.h"
#include "support/service_fixture.h"
#include "settings/log.h"

namespace {

using korva::test::HasLogLine;
using Paths = std::vector<std::wstring>;

// One volume as the table probe reports it.
struct TableVolume final : korva::ProbedVolume {
  TableVolume(const wchar_t* id, Paths paths, unsigned type, std::optional<int> media, std::optional<unsigned> bus,
              bool hotplug = true)
      : name(std::wstring(L"\\\\?\\Volume{") + id + L"}\\"), mountPaths(std::move(paths)), driveType(type),
        mediaType(media), busType(bus), hotplug(hotplug) {}
  bool IsHotplugDevice() override { return hotplug; }
  std::vector<std::wstring> MountPaths() override { return mountPaths; }
  unsigned DriveType(const std::wstring&) override { return driveType; }
  std::optional<int> MediaType() override { return mediaType; }

  std::wstring name;
  Paths mountPaths;
  unsigned driveType;
  std::optional<int> mediaType;     // nothing: the geometry query fails
  std::optional<unsigned> busType;  // nothing: the bus query fails
  bool hotplug;
  bool throws = false;  // opening it throws, as a failed allocation would
};

// Reports a fixed table of volumes. The table is changed only between scans, on the scanning thread.
class TableProbe final : public korva::VolumeProbe {
 public:
  std::vector<TableVolume> volumes;

  void ForEachVolume(const std::function<void(const std::wstring&)>& visit) override {
    for (const TableVolume& volume : volumes) visit(volume.name);
  }
  std::unique_ptr<korva::ProbedVolume> Open(const std::wstring& volumeName) override {
    for (const TableVolume& volume : volumes) {
      if (volume.name != volumeName) continue;
      if (volume.throws) throw std::runtime_error("probe failure");
      return std::make_unique<TableVolume>(volume);
    }
    return nullptr;
  }
  korva::BusTypeAnswer BusType(wchar_t driveLetter) override {
    korva::BusTypeAnswer answer;
    answer.error = ERROR_INVALID_FUNCTION;
    for (const TableVolume& volume : volumes) {
      if (volume.mountPaths.empty() || volume.mountPaths.front().front() != driveLetter || !volume.busType) continue;
      answer.known = true;
      answer.busType = *volume.busType;
    }
    return answer;
  }
};

TableVolume UsbStick() { return TableVolume(L"stick", {L"E:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb); }
TableVolume UsbDisk() { return TableVolume(L"usb-disk", {L"F:\\", L"C:\\mnt\\backup\\"}, DRIVE_FIXED, FixedMedia, BusTypeUsb); }

// The machine of most tests: a USB stick and a USB hard disk among volumes that do not count.
std::vector<TableVolume> Machine() {
  return {
      TableVolume(L"system", {L"C:\\"}, DRIVE_FIXED, FixedMedia, BusTypeSata, /*hotplug=*/false),
      UsbStick(),
      TableVolume(L"sata-hot-swap", {L"D:\\"}, DRIVE_FIXED, FixedMedia, BusTypeSata),
      TableVolume(L"card-reader", {L"G:\\"}, DRIVE_REMOVABLE, Unknown, BusTypeUsb),
      TableVolume(L"floppy", {L"A:\\"}, DRIVE_REMOVABLE, std::nullopt, std::nullopt),
      TableVolume(L"cdrom", {L"H:\\"}, DRIVE_CDROM, RemovableMedia, BusTypeUsb),
      UsbDisk(),
  };
}

class DriveInventoryTest : public korva::test::ServiceHostTest {
 protected:
  void SetUp() override {
    ServiceHostTest::SetUp();
    korva::ResetRemovableDrivesForTest();
    korva::SetVolumeProbeForTest(&probe_);
  }
  void TearDown() override {
    korva::SetVolumeProbeForTest(nullptr);
    korva::ResetRemovableDrivesForTest();
    ServiceHostTest::TearDown();
  }
  // Scans with `volumes` and returns what was logged during the scan.
  std::string Scan(std::vector<TableVolume> volumes, int attachNewDrives, int maxSeverity = korva::log::kVerbose) {
    probe_.volumes = std::move(volumes);
    log_.reset();  // the old capture closes the log, so it goes first
    log_ = std::make_unique<korva::test::LogCapture>(maxSeverity);
    UpdateRemovableDriveEntries(attachNewDrives);
    return log_->Text();
  }
  static std::size_t Attaches(const std::string& log) {
    return CountOf(log, "[ AttachFilterToDrive ] @@@ Inside AttachFilterToDrive @@@\r\n");
  }

  TableProbe probe_;
};

TEST_F(DriveInventoryTest, ListsTheUsbStickAndTheUsbDiskOnlyAndAttachesThem) {
  const std::string log = Scan(Machine(), 1);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  EXPECT_TRUE(HasLogLine(log, "UpdateRemovableDriveEntries", "Failed to get drive geometry information."));
  EXPECT_EQ(Attaches(log), 2u);
  EXPECT_EQ(CountOf(log, "[ ExecuteFileShadowApplication ] @@@ Inside ExecuteFileShadowApplication @@@\r\n"), 2u);
  // Each drive is attached, then handed to the file shadow.
  EXPECT_LT(log.find("Update for Drive :E:\\"), log.find("@@@ Inside AttachFilterToDrive @@@"));
  EXPECT_LT(log.find("@@@ Inside AttachFilterToDrive @@@"), log.find("@@@ Inside ExecuteFileShadowApplication @@@"));
}

TEST_F(DriveInventoryTest, RescansAttachOnlyDrivesThatAreNewAndSurviveAFailingProbe) {
  Scan(Machine(), 1);
  std::string log = Scan(Machine(), 1);  // the same drives: nothing changes, nothing is attached
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  EXPECT_EQ(Attaches(log), 0u);
  EXPECT_EQ(CountOf(log, "Update for Drive :"), 0u);

  std::vector<TableVolume> withoutStick = Machine();
  withoutStick.erase(std::find_if(withoutStick.begin(), withoutStick.end(),
                                  [](const TableVolume& volume) { return volume.name == UsbStick().name; }));
  log = Scan(withoutStick, 1);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"F:\\"}));
  EXPECT_EQ(Attaches(log), 0u);

  log = Scan(Machine(), 1);  // the stick comes back: attached again, after the kept drive
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"F:\\", L"E:\\"}));
  EXPECT_EQ(CountOf(log, "Update for Drive :"), 1u);
  EXPECT_EQ(Attaches(log), 1u);

  TableVolume lower = UsbStick();  // the same stick spelled in lower case is the same drive
  lower.mountPaths = {L"e:\\"};
  log = Scan({lower, UsbDisk()}, 1);
  ASSERT_EQ(korva::RemovableDrives().size(), 2u);
  EXPECT_EQ(Attaches(log), 0u);

  TableVolume broken = UsbDisk();  // an exception during the scan leaves the list as it was
  broken.throws = true;
  log = Scan({UsbStick(), broken}, 1);
  EXPECT_EQ(korva::RemovableDrives().size(), 2u);
  EXPECT_TRUE(HasLogLine(log, "UpdateRemovableDriveEntries", "Exception caught."));
}

TEST_F(DriveInventoryTest, WithoutAttachTheListIsUpdatedButNothingIsAttached) {
  EXPECT_EQ(Attaches(Scan({UsbStick()}, 0)), 0u);  // the first fill
  const std::string log = Scan({UsbStick(), UsbDisk()}, 0);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  EXPECT_EQ(Attaches(log), 0u);
}

TEST_F(DriveInventoryTest, ReadersOnOtherThreadsNeverSeeAHalfMergedList) {
  const std::vector<TableVolume> two = {UsbStick(), UsbDisk()};
  std::vector<TableVolume> four = two;
  four.push_back(TableVolume(L"stick-2", {L"K:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb));
  four.push_back(TableVolume(L"stick-3", {L"L:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb));
  const Paths small = {L"E:\\", L"F:\\"};
  const Paths large = {L"E:\\", L"F:\\", L"K:\\", L"L:\\"};
  Scan(two, 0, korva::log::kError);  // a quiet log keeps the scans short, so merges come often

  std::atomic<bool> done{false};
  std::atomic<long> reads{0}, torn{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      for (; !done.load(); ++reads) {
        const Paths seen = korva::RemovableDrives();
        if (seen != small && seen != large) ++torn;
      }
    });
  }
  int listedLarge = 0;
  for (int scan = 0; scan < 2000; ++scan) {
    probe_.volumes = scan % 2 == 0 ? four : two;
    UpdateRemovableDriveEntries(0);
    if (korva::RemovableDrives() == large) ++listedLarge;
  }
  done.store(true);
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_GT(reads.load(), 0);
  EXPECT_EQ(listedLarge, 1000);
}

// The system's own volumes through the real probe: Wine shows C: and Z: and no hot-plug volume.
TEST_F(DriveInventoryTest, ScansTheRealVolumes) {
  korva::SetVolumeProbeForTest(nullptr);
  std::size_t volumes = 0;
  korva::SystemVolumeProbe().ForEachVolume([&](const std::wstring&) { ++volumes; });
  ASSERT_GT(volumes, 0u);
  const std::string log = Scan({}, 1);
  // Whatever the machine lists was scanned as removable and attached; the system drive is not listed.
  const Paths drives = korva::RemovableDrives();
  EXPECT_EQ(CountOf(log, "Removable Drive :"), drives.size());
  EXPECT_EQ(Attaches(log), drives.size());
  wchar_t windows[MAX_PATH] = {};
  ASSERT_GT(GetWindowsDirectoryW(windows, MAX_PATH), 0u);
  EXPECT_EQ(std::find(drives.begin(), drives.end(), std::wstring(windows).substr(0, 3)), drives.end());
}

}  // namespace
