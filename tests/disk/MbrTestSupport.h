// Helpers for the MBR driver tests: image fixtures built by sfdisk, sfdisk's view of an
// image, the model's view, and an in-memory disk backend with write faults.
#pragma once
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "disk/DiskDrive.h"
#include "disk/PartitionedDisk.h"
#include "support/TestSupport.h"

namespace KdiskTest {

struct PartView {
  uint64_t start = 0, size = 0;
  unsigned type = 0;
  bool boot = false;
  bool operator==(const PartView&) const = default;
};
std::string describe(const std::vector<PartView>& parts);

// Creates a sparse image of `mb` MiB and partitions it with an sfdisk script ("" leaves it
// blank). Returns false when sfdisk fails.
bool makeImage(const std::string& path, uint64_t mb, const std::string& script);
// sfdisk --json of the image, sorted by start.
std::vector<PartView> sfdiskView(const std::string& path);
// True when sfdisk --verify finds nothing wrong (for GPT: neither copy corrupt nor misplaced).
bool sfdiskClean(const std::string& path, std::string* report = nullptr);
// The model's partitions in display order, sorted by start.
std::vector<PartView> modelView(const Corvo::Disk::PartitionedDisk& disk);
std::unique_ptr<Corvo::Disk::DiskDrive> openDrive(const std::string& path);
void patchSector(const std::string& path, uint64_t sector, size_t offset, const std::vector<uint8_t>& bytes);

// One entry of a layout for the OS.
inline Corvo::Disk::OsLayoutEntry osEntry(uint32_t number, uint64_t first, uint64_t count, uint8_t type,
                                          bool container = false, uint64_t tableBlock = 0) {
  Corvo::Disk::OsLayoutEntry e;
  e.number = number;
  e.firstBlock = first;
  e.blockCount = count;
  e.type = type;
  e.container = container;
  e.tableBlock = tableBlock;
  return e;
}

}  // namespace KdiskTest
