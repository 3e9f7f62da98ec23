// The status display's routine that prints one disk with one partition marked; the
// creation, deletion, activation and hiding commands print through it.
#pragma once
#include <cstdint>
#include <string>

#include "app/FixedDisks.h"

namespace Kdisk {

// A snapshot of the partition to mark. A removed partition is printed in its old place.
struct PartitionMark {
  uint64_t firstBlock = 0;
  uint64_t blockCount = 0;
  uint8_t type = 0;
  Corvo::Disk::PartitionRole role = Corvo::Disk::PartitionRole::Unknown;
  const char* marker = nullptr;  // "*CREATED*", "*DELETED*", ...
  bool removed = false;
};

// The mark for a partition as it stands now.
PartitionMark markOf(const Corvo::Disk::PartitionNode& node, const char* marker, bool removed = false);

void printDiskStatus(FixedDisk& disk, const PartitionMark* mark = nullptr);

// How a changed disk is read again: its driver re-reads its own tables, or a driver is chosen
// anew from what the disk holds now (after a new master boot record or a wipe).
enum class Reread { Tables, Anew };

// The end of every command that changed a disk: the warning the change left (the system not
// told of the new layout, ...), the tables read again, and the disk printed with the mark
// (nothing printed when show is false). False, after "Cannot reload partition table -- %s",
// when the tables cannot be read again; the change itself stands.
bool showChangedDisk(FixedDisk& disk, const std::string& warning, const PartitionMark* mark,
                     Reread reread = Reread::Tables, bool show = true);

// What a partition holds, as the status display shows it: the filesystem's name ("FAT32",
// "NTFS/HPFS", "EXT2FS", ...; empty when nothing was recognised) and its whole volume label.
struct PartitionContent {
  std::string filesystem;
  std::string label;
};
PartitionContent partitionContent(Corvo::Disk::DiskDrive& drive, const Corvo::Disk::PartitionNode& node);

}  // namespace Kdisk
