// NTFS formatter: writes a complete, empty NTFS volume onto a block device (a partition), and
// reads the volume label of an existing one.
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include "disk/BlockDevice.h"
#include "filesystem/Formatter.h"

namespace Corvo::Filesystem {

// Filesystem version codes of a creation request: the Windows version the volume is made for.
enum NtfsTarget : int { ntNt351 = 5, ntNt4 = 6, ntWindows2000 = 7, ntWindowsXP = 8, ntWindowsVista = 9 };

// The common options (versionCode is the target; 0 takes ntWindowsVista) and the serial number.
struct NtfsFormatOptions : FormatOptions {
  NtfsFormatOptions() { versionCode = ntWindowsVista; }
  std::optional<uint64_t> serial;  // random when not given
};

// NTFS labels are Unicode: at most this many UTF-16 code units.
inline constexpr size_t kNtfsLabelUnits = 32;
// The message that refuses a label longer than kNtfsLabelUnits; empty when it fits.
std::string ntfsLabelProblem(const std::string& label);

// What the formatter decides before it writes anything. Positions and counts are clusters.
struct NtfsLayout {
  uint8_t major = 3, minor = 1;
  uint32_t clusterBytes = 0;
  uint64_t totalSectors = 0;  // the boot sector's count: the partition less its last sector
  uint64_t clusters = 0;
  uint64_t mftLcn = 0, mftClusters = 0, mftRecords = 0;
  uint64_t mftMirrLcn = 0, mirrorRecords = 0;
  uint64_t logFileLcn = 0, logFileBytes = 0;
  uint64_t attrDefLcn = 0, mftBitmapLcn = 0, rootIndexLcn = 0, bitmapLcn = 0, bitmapBytes = 0;
  uint64_t upCaseLcn = 0, secureLcn = 0, secureBytes = 0;
  uint64_t usedClusters = 0;
  uint64_t freeClusters() const { return clusters - usedClusters; }
};

// The layout for a partition of `sectors` sectors; throws Core::Error (FormatFailed) when the
// partition is too small or too large for NTFS with this target.
NtfsLayout planNtfs(uint64_t sectors, int versionCode);
// The smallest partition, in sectors, that planNtfs accepts for the target.
uint64_t ntfsMinimumSectors(int versionCode);

// Writes the volume (the full-format flag of the creation request is clear for NTFS: nothing
// is verified) and returns the summary. Reports progress; throws Core::Error on failure.
FormatSummary formatNtfs(Disk::BlockDevice& device, const NtfsFormatOptions& options);

// The volume label of the NTFS volume on the device, from $Volume's $VOLUME_NAME found through
// the $MFT. Empty for no label and for anything that cannot be read as NTFS; never throws.
std::string ntfsVolumeLabel(Disk::BlockDevice& device);

}  // namespace Corvo::Filesystem
