// Disk-level values of a partition table format (identifiers, slot counts, boot code), read
// from a disk and kept apart from the partition nodes.
#pragma once

#include "disk/BlockDevice.h"

namespace Corvo::Disk {

class DiskFormatProperties {
 public:
  virtual ~DiskFormatProperties() = default;
  // Fills the values from the disk's tables; values the disk does not carry stay unavailable.
  virtual void read(BlockDevice& disk) = 0;
};

}  // namespace Corvo::Disk
