// Chooses the table driver for a disk.
#include "disk/PartitionedDisk.h"

namespace Corvo::Disk {

std::unique_ptr<PartitionedDisk> PartitionedDisk::load(DiskDrive&) {
  throw Core::Error(Core::ErrorId::NotSupported, "Partition tables cannot be read by this build");
}

}  // namespace Corvo::Disk
