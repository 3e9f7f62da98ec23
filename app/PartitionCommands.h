// What the creation and deletion commands share: the partition kinds as they name them, the
// scanning of numbers and sizes, and the FAT rules of a new partition.
#pragma once
#include <cstdint>
#include <string>

#include "app/FixedDisks.h"
#include "disk/PartitionedDisk.h"
#include "filesystem/Formatter.h"

namespace Kdisk {

// ---- Partition kinds as the commands name them.

// FAT and NTFS type bytes, plain or hidden.
bool isDosType(uint8_t type);
// A primary partition holding a DOS filesystem type (MBR) or a basic data entry (GPT).
bool isPrimaryDos(const Corvo::Disk::PartitionedDisk& disk, const Corvo::Disk::PartitionNode& node);
// True when a primary partition other than `node` is active. Extended types do not count:
// the system never starts from them.
bool anotherActivePrimary(const Corvo::Disk::PartitionedDisk& disk, const Corvo::Disk::PartitionNode& node);
// True when the disk starts from `node` alone: an active primary, non-extended partition with
// no other active. Clearing its flag or hiding it leaves the disk unstartable. (Removing any
// active entry does too when no other primary is active: see anotherActivePrimary.)
bool isOnlyActivePrimary(const Corvo::Disk::PartitionedDisk& disk, const Corvo::Disk::PartitionNode& node);
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
// /SZ: megabytes, or nP / np / n% of a disk of diskBytes bytes (truncated to whole MB).
SizeStatus parsePartitionSize(const std::string& value, uint64_t diskBytes, int& megabytes);

// The FAT size limits of /-32 and /NTFAT16 for primaries and logical drives; sizeMb 0 means
// no size was given. Returns the message to print, or null when the size is allowed.
const char* fatLimitMessage(bool primaryOrLogical, int sizeMb, bool no32, bool ntFat16);

// What /CRE /FOR prints when the format is done: "Format complete.", a blank line, the
// summary's lines (the counted ones right-aligned in one width) and a blank line.
std::string formatSummaryText(const Corvo::Filesystem::FormatSummary& summary);

}  // namespace Kdisk
