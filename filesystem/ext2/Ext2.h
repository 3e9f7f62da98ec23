// ext2 formatter: lays out and writes an empty ext2 revision 1 filesystem (root directory and
// lost+found) onto a block device (a partition).
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "disk/BlockDevice.h"
#include "filesystem/Formatter.h"

namespace Corvo::Filesystem {

using Ext2Uuid = std::array<uint8_t, 16>;

// The common options (the label at most kExt2LabelBytes bytes; ext2 uses no other) and the
// identity of the new filesystem.
struct Ext2FormatOptions : FormatOptions {
  // Left empty, the formatter takes a random UUID and hash seed and the current time; tests set
  // them to compare whole images.
  std::optional<Ext2Uuid> uuid, hashSeed;
  std::optional<uint32_t> now;  // seconds since 1970
};

inline constexpr size_t kExt2LabelBytes = 16;

// The message for a label longer than an ext2 volume name holds; empty when the label fits.
std::string ext2LabelProblem(const std::string& label);

// What the formatter computes before it writes anything. Block numbers count filesystem blocks
// from the start of the partition.
struct Ext2Layout {
  uint32_t blockSize = 0;       // 1024 or 4096
  uint32_t firstDataBlock = 0;  // 1 with 1 KiB blocks, else 0
  uint32_t blockCount = 0;      // the filesystem's blocks (the partition may hold a few more)
  uint32_t blocksPerGroup = 0;
  uint32_t groupCount = 0;
  uint32_t inodeSize = 0;
  uint32_t inodesPerGroup = 0;
  uint32_t inodeTableBlocks = 0;  // per group
  uint32_t descriptorBlocks = 0;  // the group descriptor table
  uint32_t lostFoundBlocks = 0;
  uint32_t reservedBlocks = 0;    // for the administrator: 5 per cent
  uint64_t freeBlocks = 0, inodeCount = 0, freeInodes = 0;
  uint64_t unusedSectors = 0;     // of the partition, past the filesystem's last block

  bool hasSuperblockCopy(uint32_t group) const;  // groups 0, 1 and powers of 3, 5 and 7
  uint32_t groupFirstBlock(uint32_t group) const;
  uint32_t groupBlocks(uint32_t group) const;
  // Blocks at the start of the group that are in use: the superblock and descriptor copies,
  // both bitmaps, the inode table and, in group 0, the root directory and lost+found.
  uint32_t groupUsedBlocks(uint32_t group) const;
  uint32_t blockBitmapBlock(uint32_t group) const;
  uint32_t inodeBitmapBlock(uint32_t group) const;
  uint32_t inodeTableBlock(uint32_t group) const;
  uint32_t rootDirectoryBlock() const { return inodeTableBlock(0) + inodeTableBlocks; }
  std::vector<uint32_t> superblockCopies() const;  // block numbers of the backups
};

// Computes the layout for a device of `sectors` sectors of `sectorBytes` bytes. Throws
// Core::Error (FormatFailed) when no ext2 layout fits.
Ext2Layout computeExt2Layout(uint64_t sectors, uint32_t sectorBytes);

// Writes the filesystem over the whole device: metadata and directories first, then a flush,
// then the primary superblock and a flush. Reports progress and returns the summary.
// Throws Core::Error before writing anything when the label is too long or the device too
// small, and passes on the device's errors.
FormatSummary formatExt2(Disk::BlockDevice& device, const Ext2FormatOptions& options);

}  // namespace Corvo::Filesystem
