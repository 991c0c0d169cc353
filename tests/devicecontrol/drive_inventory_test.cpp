// The removable drive inventory, in-process: scans over a table of volumes (Wine has no hot-plug
// disks), and one scan of the real volumes.
#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <atomic>
#include <map>
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
using korva::test::HasLogLineStartingWith;
using Paths = std::vector<std::wstring>;

// One volume as the table probe reports it.
struct TableVolume {
  std::wstring name;
  bool hotplug = true;
  Paths mountPaths;
  unsigned driveType = DRIVE_REMOVABLE;
  std::optional<int> mediaType;    // nothing: the geometry query fails
  std::optional<unsigned> busType; // nothing: the bus query fails
  bool opens = true;
  bool throws = false;  // opening it throws, as a failed allocation would
};

class OpenedTableVolume final : public korva::ProbedVolume {
 public:
  explicit OpenedTableVolume(TableVolume volume) : volume_(std::move(volume)) {}
  bool IsHotplugDevice() override { return volume_.hotplug; }
  std::vector<std::wstring> MountPaths() override { return volume_.mountPaths; }
  unsigned DriveType(const std::wstring& /*mountPath*/) override { return volume_.driveType; }
  std::optional<int> MediaType() override { return volume_.mediaType; }

 private:
  TableVolume volume_;
};

// Reports a fixed table of volumes. The table is changed only between scans, on the scanning thread.
class TableProbe final : public korva::VolumeProbe {
 public:
  void SetVolumes(std::vector<TableVolume> volumes) { volumes_ = std::move(volumes); }

  void ForEachVolume(const std::function<void(const std::wstring&)>& visit) override {
    for (const TableVolume& volume : volumes_) visit(volume.name);
  }
  std::unique_ptr<korva::ProbedVolume> Open(const std::wstring& volumeName) override {
    for (const TableVolume& volume : volumes_) {
      if (volume.name != volumeName) continue;
      if (volume.throws) throw std::runtime_error("probe failure");
      if (volume.opens) return std::make_unique<OpenedTableVolume>(volume);
    }
    return nullptr;
  }
  korva::BusTypeAnswer BusType(wchar_t driveLetter) override {
    ++busQueries_[driveLetter];
    korva::BusTypeAnswer answer;
    answer.error = ERROR_INVALID_FUNCTION;
    for (const TableVolume& volume : volumes_) {
      if (volume.mountPaths.empty() || volume.mountPaths.front().front() != driveLetter || !volume.busType) continue;
      answer.known = true;
      answer.busType = *volume.busType;
    }
    return answer;
  }
  int BusQueries(wchar_t letter) const {
    const auto found = busQueries_.find(letter);
    return found == busQueries_.end() ? 0 : found->second;
  }

 private:
  std::vector<TableVolume> volumes_;
  std::map<wchar_t, int> busQueries_;
};

TableVolume Volume(const wchar_t* id, Paths paths, unsigned driveType, std::optional<int> media,
                   std::optional<unsigned> bus, bool hotplug = true) {
  return TableVolume{std::wstring(L"\\\\?\\Volume{") + id + L"}\\", hotplug, std::move(paths), driveType, media, bus};
}

constexpr int kFixedMedia = FixedMedia;  // 12
constexpr unsigned kSata = BusTypeSata;  // 11

TableVolume UsbStick() { return Volume(L"stick", {L"E:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb); }
TableVolume UsbDisk() {
  return Volume(L"usb-disk", {L"F:\\", L"C:\\mnt\\backup\\"}, DRIVE_FIXED, kFixedMedia, BusTypeUsb);
}

// The machine of most tests: a USB stick and a USB hard disk among volumes that do not count.
std::vector<TableVolume> Machine() {
  TableVolume locked = Volume(L"locked", {L"M:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb);
  locked.opens = false;  // another program holds it exclusively
  return {
      locked,
      Volume(L"system", {L"C:\\"}, DRIVE_FIXED, kFixedMedia, kSata, /*hotplug=*/false),
      UsbStick(),
      Volume(L"sata-hot-swap", {L"D:\\"}, DRIVE_FIXED, kFixedMedia, kSata),
      Volume(L"card-reader", {L"G:\\"}, DRIVE_REMOVABLE, Unknown, BusTypeUsb),
      Volume(L"floppy", {L"A:\\"}, DRIVE_REMOVABLE, std::nullopt, std::nullopt),
      Volume(L"cdrom", {L"H:\\"}, DRIVE_CDROM, RemovableMedia, BusTypeUsb),
      Volume(L"unmounted", {}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb),
      Volume(L"no-bus-answer", {L"J:\\"}, DRIVE_FIXED, kFixedMedia, std::nullopt),
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
  std::string Scan(std::vector<TableVolume> volumes, int attachNewDrives) {
    probe_.SetVolumes(std::move(volumes));
    FreshLog(korva::log::kVerbose);
    UpdateRemovableDriveEntries(attachNewDrives);
    return log_->Text();
  }
  // Starts a new log file (the old capture closes the log, so it goes first).
  void FreshLog(int maxSeverity) {
    log_.reset();
    log_ = std::make_unique<korva::test::LogCapture>(maxSeverity);
  }
  static std::size_t Attaches(const std::string& log) {
    return CountOf(log, "[ AttachFilterToDrive ] @@@ Inside AttachFilterToDrive @@@\r\n");
  }
  static std::size_t Shadows(const std::string& log) {
    return CountOf(log, "[ ExecuteFileShadowApplication ] @@@ Inside ExecuteFileShadowApplication @@@\r\n");
  }
  static bool Has(const std::string& log, const std::string& message) {
    return HasLogLine(log, "UpdateRemovableDriveEntries", message);
  }

  TableProbe probe_;
};

TEST_F(DriveInventoryTest, ListsTheUsbStickAndTheUsbDiskOnly) {
  const std::string log = Scan(Machine(), 1);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));

  // Only hot-plug volumes with a mount path get as far as the drive type.
  EXPECT_EQ(CountOf(log, "] [ UpdateRemovableDriveEntries ] Volumetype :"), 7u) << log;
  EXPECT_TRUE(Has(log, "Volumetype :2"));
  EXPECT_TRUE(Has(log, "Volumetype :5"));
  EXPECT_TRUE(Has(log, "MediaType :11"));
  EXPECT_TRUE(Has(log, "MediaType :0,driver will not be attached to it"));
  EXPECT_TRUE(Has(log, "Failed to get drive geometry information."));
  EXPECT_EQ(CountOf(log, "Need to check whether the Fixed drive is connected via USB or not.\r\n"), 3u);
  // The bus is asked only for the hot-plug fixed drives, by their letter.
  EXPECT_EQ(probe_.BusQueries(L'D'), 1);
  EXPECT_EQ(probe_.BusQueries(L'J'), 1);
  EXPECT_EQ(probe_.BusQueries(L'F'), 1);
  EXPECT_EQ(probe_.BusQueries(L'C') + probe_.BusQueries(L'G') + probe_.BusQueries(L'H') + probe_.BusQueries(L'E'), 0);
  EXPECT_TRUE(HasLogLineStartingWith(log, "IsUsbDevice", "Failed to define bus type for :"));
  EXPECT_EQ(CountOf(log, "] [ IsUsbDevice ] isConnectedDeviceUSB :0\r\n"), 2u);
  EXPECT_EQ(CountOf(log, "] [ IsUsbDevice ] isConnectedDeviceUSB :1\r\n"), 1u);
  EXPECT_TRUE(Has(log, "Removable Drive :E:\\"));
  EXPECT_TRUE(Has(log, "Removable Drive :F:\\"));
  EXPECT_EQ(CountOf(log, "Removable Drive :"), 2u);

  // First fill: the scan list is copied and every drive is attached, then handed to the file shadow.
  EXPECT_EQ(CountOf(log, "Global_List["), 2u);  // only the new list: the old one was empty
  EXPECT_TRUE(Has(log, "Temp_List[0] :E:\\"));
  EXPECT_TRUE(Has(log, "Temp_List[1] :F:\\"));
  EXPECT_TRUE(Has(log, "Global list is empty.Going to copy temporary list."));
  EXPECT_TRUE(Has(log, "New Global_List :"));
  EXPECT_TRUE(Has(log, "Global_List[0] :E:\\"));
  EXPECT_TRUE(Has(log, "Global_List[1] :F:\\"));
  EXPECT_EQ(Attaches(log), 2u);
  EXPECT_EQ(Shadows(log), 2u);
  const std::vector<std::string> order = {
      "[ UpdateRemovableDriveEntries ] Temp_List[1] :F:\\",
      "[ UpdateRemovableDriveEntries ] Global list is empty.Going to copy temporary list.",
      "[ UpdateRemovableDriveEntries ] Update for Drive :E:\\",
      "[ AttachFilterToDrive ] @@@ Inside AttachFilterToDrive @@@",
      "[ ExecuteFileShadowApplication ] @@@ Inside ExecuteFileShadowApplication @@@",
      "[ UpdateRemovableDriveEntries ] Update for Drive :F:\\",
      "[ AttachFilterToDrive ] @@@ Inside AttachFilterToDrive @@@",
      "[ ExecuteFileShadowApplication ] @@@ Inside ExecuteFileShadowApplication @@@",
      "[ UpdateRemovableDriveEntries ] New Global_List :",
      "[ UpdateRemovableDriveEntries ] Global_List[1] :F:\\",
      "[ UpdateRemovableDriveEntries ] @@@ End of UpdateRemovableDriveEntries @@@",
  };
  std::size_t at = 0;
  for (const std::string& line : order) {
    at = log.find(line, at);
    ASSERT_NE(at, std::string::npos) << "missing or out of order: " << line << "\n" << log;
  }
}

TEST_F(DriveInventoryTest, ASecondScanOfTheSameDrivesChangesNothingAndAttachesNothing) {
  Scan(Machine(), 1);
  const std::string log = Scan(Machine(), 1);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  EXPECT_EQ(Attaches(log), 0u);
  EXPECT_EQ(Shadows(log), 0u);
  EXPECT_EQ(CountOf(log, "Update for Drive :"), 0u);
  EXPECT_EQ(CountOf(log, "Global list is empty."), 0u);
  // The list before the merge and after it.
  EXPECT_EQ(CountOf(log, "] [ UpdateRemovableDriveEntries ] Global_List[0] :E:\\\r\n"), 2u);
  EXPECT_EQ(CountOf(log, "] [ UpdateRemovableDriveEntries ] Global_List[1] :F:\\\r\n"), 2u);
}

TEST_F(DriveInventoryTest, ADriveThatComesBackIsAttachedAgainAfterTheOthers) {
  Scan(Machine(), 1);
  std::vector<TableVolume> withoutStick = Machine();
  withoutStick.erase(std::find_if(withoutStick.begin(), withoutStick.end(),
                                  [](const TableVolume& volume) { return volume.name == UsbStick().name; }));
  std::string log = Scan(withoutStick, 1);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"F:\\"}));
  EXPECT_EQ(Attaches(log), 0u);  // a removal detaches nothing and attaches nothing

  log = Scan(Machine(), 1);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"F:\\", L"E:\\"}));
  EXPECT_EQ(CountOf(log, "Update for Drive :"), 1u);
  EXPECT_TRUE(Has(log, "Update for Drive :E:\\"));
  EXPECT_EQ(Attaches(log), 1u);
  EXPECT_EQ(Shadows(log), 1u);
}

TEST_F(DriveInventoryTest, PathsDifferingOnlyInCaseAreOneDrive) {
  Scan({UsbStick()}, 1);
  TableVolume lower = UsbStick();
  lower.mountPaths = {L"e:\\"};
  const std::string log = Scan({lower, UsbDisk()}, 1);
  const Paths drives = korva::RemovableDrives();
  ASSERT_EQ(drives.size(), 2u);
  EXPECT_EQ(CompareStringOrdinal(drives[0].c_str(), -1, L"E:\\", -1, TRUE), CSTR_EQUAL);
  EXPECT_EQ(drives[1], L"F:\\");
  EXPECT_EQ(CountOf(log, "Update for Drive :"), 1u);
  EXPECT_TRUE(Has(log, "Update for Drive :F:\\"));
  EXPECT_EQ(Attaches(log), 1u);
}

TEST_F(DriveInventoryTest, WithoutAttachTheListIsUpdatedButNothingIsAttached) {
  std::string log = Scan({UsbStick()}, 0);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\"}));
  EXPECT_TRUE(Has(log, "Global list is empty.Going to copy temporary list."));
  EXPECT_EQ(CountOf(log, "Update for Drive :"), 0u);  // a first fill names drives only to attach them
  EXPECT_EQ(Attaches(log) + Shadows(log), 0u);

  log = Scan({UsbStick(), UsbDisk()}, 0);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\", L"F:\\"}));
  EXPECT_TRUE(Has(log, "Update for Drive :F:\\"));  // later merges name every new drive
  EXPECT_EQ(Attaches(log) + Shadows(log), 0u);
}

TEST_F(DriveInventoryTest, AnExceptionDuringTheScanIsLoggedAndLeavesTheListAsItWas) {
  Scan({UsbStick()}, 1);
  TableVolume broken = UsbDisk();
  broken.throws = true;
  const std::string log = Scan({UsbStick(), broken}, 1);
  EXPECT_EQ(korva::RemovableDrives(), (Paths{L"E:\\"}));
  EXPECT_TRUE(Has(log, "Exception caught."));
  EXPECT_TRUE(Has(log, "@@@ End of UpdateRemovableDriveEntries @@@"));
  EXPECT_EQ(Attaches(log), 0u);
}

TEST_F(DriveInventoryTest, ReadersOnOtherThreadsNeverSeeAHalfMergedList) {
  const std::vector<TableVolume> two = {UsbStick(), UsbDisk()};
  std::vector<TableVolume> four = two;
  four.push_back(Volume(L"stick-2", {L"K:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb));
  four.push_back(Volume(L"stick-3", {L"L:\\"}, DRIVE_REMOVABLE, RemovableMedia, BusTypeUsb));
  const Paths small = {L"E:\\", L"F:\\"};
  const Paths large = {L"E:\\", L"F:\\", L"K:\\", L"L:\\"};
  // A quiet log keeps the scans short, so merges come often.
  FreshLog(korva::log::kError);
  probe_.SetVolumes(two);
  UpdateRemovableDriveEntries(0);

  std::atomic<bool> done{false};
  std::atomic<long> reads{0};
  std::atomic<long> torn{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      while (!done.load()) {
        const Paths seen = korva::RemovableDrives();
        if (seen != small && seen != large) ++torn;
        ++reads;
      }
    });
  }
  int listedLarge = 0;
  for (int scan = 0; scan < 2000; ++scan) {
    probe_.SetVolumes(scan % 2 == 0 ? four : two);
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
  korva::VolumeProbe& system = korva::SystemVolumeProbe();
  std::vector<std::wstring> names;
  system.ForEachVolume([&](const std::wstring& name) { names.push_back(name); });
  ASSERT_FALSE(names.empty());
  bool systemDriveMounted = false;
  wchar_t windows[MAX_PATH] = {};
  ASSERT_GT(GetWindowsDirectoryW(windows, MAX_PATH), 0u);
  const std::wstring systemRoot = std::wstring(windows).substr(0, 3);  // "C:\"
  for (const std::wstring& name : names) {
    EXPECT_EQ(name.rfind(L"\\\\?\\Volume{", 0), 0u);
    EXPECT_EQ(name.back(), L'\\');
    const auto volume = system.Open(name);
    if (!volume) continue;
    for (const std::wstring& path : volume->MountPaths()) {
      if (CompareStringOrdinal(path.c_str(), -1, systemRoot.c_str(), -1, TRUE) == CSTR_EQUAL) {
        systemDriveMounted = true;
        EXPECT_EQ(volume->DriveType(path), static_cast<unsigned>(DRIVE_FIXED));
      }
    }
  }
  EXPECT_TRUE(systemDriveMounted);

  FreshLog(korva::log::kVerbose);
  UpdateRemovableDriveEntries(1);
  const bool usb = IsUsbDevice(systemRoot.front());
  const std::string log = log_->Text();
  EXPECT_TRUE(Has(log, "@@@ End of UpdateRemovableDriveEntries @@@"));
  EXPECT_TRUE(HasLogLine(log, "IsUsbDevice", std::string("isConnectedDeviceUSB :") + (usb ? "1" : "0")));
  // Whatever the machine lists was scanned as removable and attached.
  const Paths drives = korva::RemovableDrives();
  EXPECT_EQ(CountOf(log, "Removable Drive :"), drives.size());
  EXPECT_EQ(Attaches(log), drives.size());
  EXPECT_EQ(std::find(drives.begin(), drives.end(), systemRoot), drives.end());
}

}  // namespace
