// The volume probe: what device control's drive scan and the encrypted-volume handler's volume
// source learn about each volume from the system, behind a narrow interface so that tests can
// describe volumes the machine does not have.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shared/core/agent_folders.h"

namespace korva {

// One opened volume; closed when the object goes away.
class ProbedVolume {
 public:
  virtual ~ProbedVolume() = default;
  // True only when the hot-plug query succeeds and reports a hot-pluggable device.
  virtual bool IsHotplugDevice() = 0;
  // The volume's mount paths, the first one first; empty when they cannot be read.
  virtual std::vector<std::wstring> MountPaths() = 0;
  // The drive type (DRIVE_REMOVABLE, DRIVE_FIXED, ...) of one of its mount paths.
  virtual unsigned DriveType(const std::wstring& mountPath) = 0;
  // The media type of the disk geometry; nothing when the geometry query fails.
  virtual std::optional<int> MediaType() = 0;
};

// The bus a disk sits on, or the Win32 error that kept it from being read.
struct BusTypeAnswer {
  bool known = false;
  unsigned busType = 0;     // STORAGE_BUS_TYPE when known
  unsigned long error = 0;  // when not known
};

class VolumeProbe {
 public:
  virtual ~VolumeProbe() = default;
  // Calls `visit` with the name of each volume of the machine ("\\?\Volume{...}\"), in the
  // system's order; nothing when the volumes cannot be enumerated.
  virtual void ForEachVolume(const std::function<void(const std::wstring& volumeName)>& visit) = 0;
  // Opens a volume by the name ForEachVolume gave; null when it cannot be opened.
  virtual std::unique_ptr<ProbedVolume> Open(const std::wstring& volumeName) = 0;
  // The bus type of the disk behind a drive letter, as its volume reports it.
  virtual BusTypeAnswer BusType(wchar_t driveLetter) = 0;
  // What is known of the disks behind a drive letter: its volume's own bus and, for a volume of the
  // system's disk stack, the bus of each disk its extents lie on.
  virtual folders::DriveBuses BusesOfDrive(wchar_t driveLetter) = 0;
};

// The probe that asks the system (device I/O controls on the volumes and disks).
VolumeProbe& SystemVolumeProbe();

}  // namespace korva
