// Linux block devices: whole-disk nodes found under /sys/block and block device nodes given
// with /ADDDISK=. The name rules and the kernel update plan are plain functions so they can
// be checked on any platform; the device access itself is Linux-only.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "disk/DiskDriveAccess.h"

namespace Corvo::Disk::LinuxDisks {

// True for the names of whole fixed disks: sd*, vd*, xvd*, nvme<N>n<M>, mmcblk<N>. Never
// partitions, loop, ram, zram, optical, device-mapper or md devices.
bool isWholeDiskName(const std::string& name);
// Natural disk order: sda < sdb < ... < sdz < sdaa; nvme0n1 < nvme0n2 < nvme1n1.
bool diskNameLess(const std::string& a, const std::string& b);

// A partition as the kernel currently shows it (sysfs start/size, 512-byte sectors).
struct KernelPartition {
  uint32_t number = 0;
  uint64_t start = 0, size = 0;
  std::string name;  // e.g. "sda1", "loop0p2"
};

struct KernelStep {
  enum Op { Delete, Resize, Add } op;
  uint32_t number;
  uint64_t start, size;  // 512-byte sectors
};

// What to tell the kernel to go from `current` to `layout`: deletes first (partitions gone or
// moved), then resizes (same start, other size), then adds. The extended partition is shown
// by the kernel as a 2-sector device at its start, and is planned that way.
std::vector<KernelStep> planKernelUpdate(const std::vector<KernelPartition>& current, const OsLayout& layout);

// Opens a block device node (Linux only; elsewhere throws NotSupported).
std::unique_ptr<DiskDriveAccess> openBlockDevice(const std::string& devPath);
// True when the path names a block device node.
bool isBlockDevice(const std::string& path);
// Refuses (Core::Error InUse) a write to sectors of a disk image file when a loop device that
// maps those sectors, or a partition of it over them, is mounted, swapped on or held (Linux
// only; elsewhere it does nothing).
void refuseIfImageBusy(const std::string& imagePath, uint64_t firstBlock, uint64_t blockCount);
// The machine's whole disks in natural order (Linux only; elsewhere empty).
std::vector<OsDiskCandidate> enumerate();

}  // namespace Corvo::Disk::LinuxDisks
