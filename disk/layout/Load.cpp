// Chooses the table driver for a disk.
#include "core/Trace.h"
#include "disk/PartitionedDisk.h"
#include "disk/layout/BiosBootRecord.h"
#include "disk/layout/GptDisk.h"
#include "disk/layout/MbrDisk.h"
#include "disk/layout/PartitionTypes.h"

namespace Corvo::Disk {

namespace {

// The table kinds, tried in order: the first whose probe recognises the first sector reads the
// disk. A new kind is a driver with a probe and a factory, and one line here.
struct TableKind {
  bool (*probe)(const BiosBootRecord& firstSector);
  std::unique_ptr<PartitionedDisk> (*open)(DiskDrive& drive);
};

bool hasProtectiveEntry(const BiosBootRecord& mbr) {
  if (mbr.hasSignature())
    for (unsigned slot = 0; slot < 4; ++slot)
      if (mbr.getType(slot) == kTypeGptProtective) return true;
  return false;
}
bool anyDisk(const BiosBootRecord&) { return true; }

constexpr TableKind kTableKinds[] = {
    {hasProtectiveEntry, loadGptDisk},
    {anyDisk, loadMbrDisk},  // the last: every disk, a blank one too, reads as MBR
};

}  // namespace

std::unique_ptr<PartitionedDisk> PartitionedDisk::load(DiskDrive& drive) {
  Core::TraceScope scope("loadPartitions");
  const BiosBootRecord first(true, 4, drive.readSector(0).data());
  for (const TableKind& kind : kTableKinds)
    if (kind.probe(first)) return kind.open(drive);
  return loadMbrDisk(drive);
}

}  // namespace Corvo::Disk
