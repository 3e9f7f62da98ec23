// exFAT formatter: writes a complete, empty exFAT volume (boot regions, FAT, allocation bitmap,
// up-case table and root directory) onto a block device (a partition).
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "disk/BlockDevice.h"
#include "filesystem/Formatter.h"

namespace Corvo::Filesystem {

// The common options (the label at most 11 UTF-16 code units; firstSector goes into the boot
// sector) and the serial, which tests fix.
struct ExfatFormatOptions : FormatOptions {
  std::optional<uint32_t> serial;  // left empty, made from the clock
};

// The message for a label that an exFAT volume cannot hold (longer than 11 UTF-16 code units,
// or with a character that a file name may not have); empty when the label fits.
std::string exfatLabelProblem(const std::string& label);

// What the formatter decides before it writes anything. Sector numbers count the device's own
// sectors from the start of the partition; clusters are numbered from 2.
struct ExfatLayout {
  uint32_t bytesPerSector = 0;
  uint32_t sectorsPerCluster = 0;
  uint64_t volumeSectors = 0;
  uint32_t fatOffset = 0, fatLength = 0;
  uint32_t clusterHeapOffset = 0;
  uint32_t clusterCount = 0;
  uint32_t bitmapClusters = 0, upcaseClusters = 0;  // from cluster 2 on, then the root's one
  uint64_t bitmapBytes = 0;
  uint32_t bitmapCluster() const { return 2; }
  uint32_t upcaseCluster() const { return bitmapCluster() + bitmapClusters; }
  uint32_t rootCluster() const { return upcaseCluster() + upcaseClusters; }
  uint32_t usedClusters() const { return bitmapClusters + upcaseClusters + 1; }
  uint32_t freeClusters() const { return clusterCount - usedClusters(); }
  uint32_t clusterBytes() const { return sectorsPerCluster * bytesPerSector; }
  uint64_t clusterSector(uint32_t cluster) const {
    return clusterHeapOffset + uint64_t{cluster - 2} * sectorsPerCluster;
  }
};

// The layout for a partition of `sectors` sectors of `bytesPerSector` bytes (512 to 4096):
// clusters of 4 KiB up to 256 MiB, 32 KiB up to 32 GiB, 128 KiB above; the FAT and the cluster
// heap aligned to the cluster size, and to 1 MiB on volumes with clusters of 32 KiB and more.
// Throws Core::Error (FormatFailed) when the partition is too small or too large for exFAT.
ExfatLayout planExfat(uint64_t sectors, uint32_t bytesPerSector);

// The recommended up-case table in its compressed form, as the volume stores it.
const std::vector<uint8_t>& exfatUpcaseTable();

// Writes the volume over the whole device: every other structure first, flushed, then the
// backup boot region, flushed, then the main boot sector and a flush. Reports progress and
// returns the summary. Throws Core::Error before writing anything when the label does not fit
// or the device is too small, and passes on the device's errors.
FormatSummary formatExfat(Disk::BlockDevice& device, const ExfatFormatOptions& options);

}  // namespace Corvo::Filesystem
