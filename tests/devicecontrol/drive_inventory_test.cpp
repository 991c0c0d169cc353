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
#include "settings/log.h"
#include "support/service_fixture.h"

namespace {

using korva::test::HasLogLine;
using Paths = std::vector<std::wstring>;

// One volume as the table probe reports it.
struct Volume {
  std::wstring id;
  Paths mountPaths;
  unsigned driveType;
  std::optional<int> mediaType;     // nothing: the geometry query fails
  std::optional<unsigned> busType;  // nothing: the bus query fails
  bool hotplug = true;
  bool throws = false;  // opening it throws, as a failed allocation would
  std::wstring Name() const { return L"\\\\?\\Volume{" + id + L"}\\"; }
};

struct OpenedVolume final : korva::ProbedVolume {
  explicit OpenedVolume(Volume volume) : v(std::move(volume)) {}
  bool IsHotplugDevice() override { return v.hotplug; }
  std::vector<std::wstring> MountPaths() override { return v.mountPaths; }
  unsigned DriveType(const std::wstring&) override { return v.driveType; }
  std::optional<int> MediaType() override { return v.mediaType; }
  Volume v;
};

// Reports a fixed table of volumes. The table is changed only between scans, on the scanning thread.
struct TableProbe final : korva::VolumeProbe {
  void ForEachVolume(const std::function<void(const std::wstring&)>& visit) override {
    for (const Volume& v : volumes) visit(v.Name());
  }
  std::unique_ptr<korva::ProbedVolume> Open(const std::wstring& name) override {
    for (const Volume& v : volumes) {
      if (v.Name() != name) continue;
      if (v.throws) throw std::runtime_error("probe failure");
      return std::make_unique<OpenedVolume>(v);
    }
    return nullptr;
  }
  korva::BusTypeAnswer BusType(wchar_t letter) override {
    for (const Volume& v : volumes) {
      if (!v.mountPaths.empty() && v.mountPaths.front().front() == letter && v.busType) return {true, *v.busType, 0};
    }
    return {false, 0, ERROR_INVALID_FUNCTION};
  }
  std::vector<Volume> volumes;
};

const Volume kStick{L"stick", {L"E:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb};
const Volume kUsbDisk{L"usb-disk", {L"F:\\", L"C:\\mnt\\backup\\"}, DRIVE_FIXED, FixedMedia, BusTypeUsb};

// The machine of most tests: a USB stick and a USB hard disk among volumes that do not count.
std::vector<Volume> Machine() {
  return {{L"system", {L"C:\\"}, DRIVE_FIXED, FixedMedia, BusTypeSata, /*hotplug=*/false},
          kStick,
          {L"sata-hot-swap", {L"D:\\"}, DRIVE_FIXED, FixedMedia, BusTypeSata},
          {L"card-reader", {L"G:\\"}, DRIVE_REMOVABLE, Unknown, BusTypeUsb},
          {L"floppy", {L"A:\\"}, DRIVE_REMOVABLE, std::nullopt, std::nullopt},
          {L"cdrom", {L"H:\\"}, DRIVE_CDROM, RemovableMedia, BusTypeUsb},
          kUsbDisk};
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
  std::string Scan(std::vector<Volume> volumes, int attachNewDrives, int maxSeverity = korva::log::kVerbose) {
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

TEST_F(DriveInventoryTest, RescansAttachOnlyNewDrivesWhenAskedAndSurviveAFailingProbe) {
  EXPECT_EQ(Attaches(Scan({kStick}, 0)), 0u);  // the first fill
  EXPECT_EQ(Attaches(Scan({kStick, kUsbDisk}, 0)), 0u);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  std::string log = Scan(Machine(), 1);  // the same drives: nothing changes, nothing is attached
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  EXPECT_EQ(Attaches(log) + CountOf(log, "Update for Drive :"), 0u);
  EXPECT_EQ(Attaches(Scan({kUsbDisk}, 1)), 0u);  // the stick goes...
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"F:\\"}));
  log = Scan(Machine(), 1);  // ...and comes back: attached again, after the kept drive
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"F:\\", L"E:\\"}));
  EXPECT_EQ(CountOf(log, "Update for Drive :"), 1u);
  EXPECT_EQ(Attaches(log), 1u);

  Volume broken = kUsbDisk;  // an exception during the scan leaves the list as it was
  broken.throws = true;
  EXPECT_TRUE(HasLogLine(Scan({kStick, broken}, 1), "UpdateRemovableDriveEntries", "Exception caught."));
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"F:\\", L"E:\\"}));
}

TEST_F(DriveInventoryTest, ReadersOnOtherThreadsNeverSeeAHalfMergedList) {
  const std::vector<Volume> two = {kStick, kUsbDisk};
  std::vector<Volume> four = two;
  four.push_back({L"stick-2", {L"K:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb});
  four.push_back({L"stick-3", {L"L:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb});
  const Paths small = {L"E:\\", L"F:\\"}, large = {L"E:\\", L"F:\\", L"K:\\", L"L:\\"};
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
