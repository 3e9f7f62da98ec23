// Chooses the table driver for a disk.
#include "core/Trace.h"
#include "disk/PartitionedDisk.h"
#include "disk/layout/BiosBootRecord.h"
#include "disk/layout/GptDisk.h"
#include "disk/layout/MbrDisk.h"
#include "disk/layout/PartitionTypes.h"

namespace Corvo::Disk {

std::unique_ptr<PartitionedDisk> PartitionedDisk::load(DiskDrive& drive) {
  Core::TraceScope scope("loadPartitions");
  uint8_t buf[512];
  drive.read(0, 1, buf);
  BiosBootRecord mbr(true, 4, buf);
  if (mbr.hasSignature())
    for (unsigned slot = 0; slot < 4; ++slot)
      if (mbr.getType(slot) == kTypeGptProtective) return loadGptDisk(drive);
  return loadMbrDisk(drive);
}

}  // namespace Corvo::Disk
