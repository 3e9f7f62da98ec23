// Pieces of the creation and deletion commands: value scanning, type rules and the per-kind
// routines, which work on one fixed disk record and print their own messages.
#pragma once
#include <cstdint>
#include <string>

#include "app/FixedDisks.h"
#include "app/Wipe.h"
#include "disk/PartitionedDisk.h"
#include "filesystem/fat/Fat.h"

namespace Kdisk {

// ---- Partition kinds as the commands name them.

// FAT and NTFS type bytes, plain or hidden.
bool isDosType(uint8_t type);
// A primary partition holding a DOS filesystem type (MBR) or a basic data entry (GPT).
bool isPrimaryDos(const Corvo::Disk::PartitionedDisk& disk, const Corvo::Disk::PartitionNode& node);
// The DOS extended partition of an MBR disk (0x05 or 0x0F, or their hidden forms), or null.
Corvo::Disk::PartitionNode* dosExtendedPartition(const Corvo::Disk::PartitionedDisk& disk);

// ---- Value scanning.

// Reads "number, then at most two characters" the way "%d%c%c" does; returns the number of
// items read (0 when no number was found). A number outside the int range is saturated and,
// when overflow is given, reported there.
int scanNumberChars(const std::string& text, int& number, char& c1, char& c2, bool* overflow = nullptr);
// Exactly one decimal number of at least 1 and within the int range ("%d%c" reading one item).
bool scanPositiveNumber(const std::string& text, int& number);

enum class SizeStatus { Ok, Invalid, TooSmall };
// /SZ: megabytes, or nP / np / n% of a disk of diskBlocks sectors (truncated to whole MB).
SizeStatus parsePartitionSize(const std::string& value, uint64_t diskBlocks, int& megabytes);

// The FAT size limits of /-32 and /NTFAT16 for primaries and logical drives; sizeMb 0 means
// no size was given. Returns the message to print, or null when the size is allowed.
const char* fatLimitMessage(bool primaryOrLogical, int sizeMb, bool no32, bool ntFat16);

// FAT formatter type for a new partition: from its type byte, or by its size when the byte
// does not name a FAT type (GPT entries).
Corvo::Filesystem::FatType fatTypeIndexFor(uint8_t type, uint64_t blocks, bool fat32Support, bool ntFat16);

// ---- Creation routines (return true on success).
bool createPrimaryDos(FixedDisk& disk, Corvo::Disk::CreationRequest& request);
bool createExtendedDos(FixedDisk& disk, Corvo::Disk::CreationRequest& request);
bool createLogicalDos(FixedDisk& disk, Corvo::Disk::CreationRequest& request);

// ---- Deletion routines (return true on success). displayNumber is the node's 1-based
// number in the disk's display list.
bool deletePrimaryDos(FixedDisk& disk, Corvo::Disk::PartitionNode& node, WipeMode wipeMode, unsigned customCount);
bool deleteExtendedDos(FixedDisk& disk, Corvo::Disk::PartitionNode& node, WipeMode wipeMode, unsigned customCount);
bool deleteLogicalDos(FixedDisk& disk, Corvo::Disk::PartitionNode& node, WipeMode wipeMode, unsigned customCount);
bool deleteNonDos(FixedDisk& disk, Corvo::Disk::PartitionNode& node, WipeMode wipeMode, unsigned customCount);
bool deleteAllPartitions(FixedDisk& disk, WipeMode wipeMode, unsigned customCount);

}  // namespace Kdisk
