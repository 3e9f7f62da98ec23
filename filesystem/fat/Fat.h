// FAT12/16/32 formatter: type descriptors whose format operation writes a complete FAT
// filesystem onto a block device (a partition).
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include "disk/BlockDevice.h"

namespace Corvo::Filesystem {

struct FatFormatOptions {
  bool verify = false;  // false: quick format
  uint16_t sectorsPerTrack = 63;
  uint16_t heads = 255;
  uint32_t hiddenSectors = 0;  // the partition's first sector on the disk
  std::optional<std::string> label;
};

// The FAT label rules. report clear: the length and leading-whitespace failures return
// false silently; the per-character failures are always printed.
bool validateVolumeLabel(const std::string& label, bool report);

// typeIndex: 0 FAT12, 1 FAT16, 2 FAT32. Formats the whole device; prints its own progress and
// step messages; throws Core::Error (after printing the failed step's message) on failure.
void formatFat(Disk::BlockDevice& device, int typeIndex, const FatFormatOptions& options);

}  // namespace Corvo::Filesystem
