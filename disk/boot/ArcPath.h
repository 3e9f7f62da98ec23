// ARC paths of the NT boot loader, multi(0)disk(0)rdisk(N)partition(M)\folder, for the
// partitions of an MBR disk.
#pragma once
#include <string>

#include "disk/PartitionedDisk.h"

namespace Corvo::Disk {

// The partition(M) ordinal of a partition; 0 when the loader gives it none (an extended
// partition or a link entry).
unsigned arcPartitionOrdinal(const PartitionedDisk& layout, const PartitionNode& node);

// multi(0)disk(0)rdisk(diskIndex)partition(ordinal)\folder; diskIndex is 0-based.
std::string arcPath(unsigned diskIndex, unsigned ordinal, const std::string& folder);

}  // namespace Corvo::Disk
