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

// A disk in memory; writes touching a chosen sector fail. With osLayout set it takes layouts
// for the OS (recorded; refused with refuseLayout) and refuses changes while busy.
class MemoryDiskAccess : public Corvo::Disk::DiskDriveAccess {
 public:
  explicit MemoryDiskAccess(uint64_t blocks, uint32_t bytesPerSector = 512)
      : data(blocks * 512, 0), bytesPerSector_(bytesPerSector) {}
  static std::unique_ptr<MemoryDiskAccess> fromImage(const std::string& path);  // a copy of the file
  std::string path() const override { return "memory"; }
  Corvo::Disk::Geometry getGeometry() const override {
    Corvo::Disk::Geometry g;
    g.bytesPerSector = bytesPerSector_;
    return g;
  }
  uint64_t totalBlocks() const override { return data.size() / 512; }
  void read(uint64_t first, uint64_t count, void* buffer) override;
  void write(uint64_t first, uint64_t count, const void* buffer) override;
  void prepareForChange(uint64_t first, uint64_t count) override;
  bool supportsOsLayout() const override { return osLayout; }
  void setNativePartitionLayout(const Corvo::Disk::OsLayout& layout) override;
  std::vector<uint8_t> data;
  std::set<uint64_t> failWrites;
  std::vector<std::pair<uint64_t, uint64_t>> prepared;
  std::vector<Corvo::Disk::OsLayout> layouts;
  bool osLayout = false, refuseLayout = false, busy = false;
  uint64_t writeCount = 0;

 private:
  uint32_t bytesPerSector_;
};

}  // namespace KdiskTest
