// What a whole-disk wipe leaves of a disk's partition table: nothing, or the diagnostic /
// utility partitions it was asked to keep, each with its entry in the master boot record.
#pragma once
#include <string>
#include <vector>

#include "disk/PartitionedDisk.h"

namespace Corvo::Disk {

// The partitions a whole-disk wipe keeps: the primary partitions of an MBR disk whose type is
// of the diagnostic / utility class (0x12, 0xA0, 0xDE, 0xFE), lying past sector 0. GPT disks
// have none.
std::vector<const PartitionNode*> keptUtilityPartitions(const PartitionedDisk& disk);

// Rewrites sector 0 so that it holds only the kept partitions' slots, as they were, and the
// signature (boot code, disk identifiers and every other slot zero), then flushes.
void writeKeptBootRecord(DiskDrive& drive, const std::vector<const PartitionNode*>& kept);

// Tells the OS the layout a wiped disk has now: no partitions, or the kept ones. Returns the
// text of a failed update (the caller reports it as a warning), empty when done.
std::string reportWipedLayout(DiskDrive& drive, const std::vector<const PartitionNode*>& kept);

}  // namespace Corvo::Disk
