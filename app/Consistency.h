// Consistency checks of a disk's partition tables: every finding is printed as information
// naming the disk; nothing is repaired.
#pragma once
#include <cstdint>

#include "disk/PartitionedDisk.h"

namespace Kdisk {

// diskIndex is 0-based; messages use diskIndex + 1. Returns true when anything was printed.
bool checkPartitionTables(const Corvo::Disk::PartitionedDisk& disk, uint32_t diskIndex, bool isBootDisk);

}  // namespace Kdisk
