// Boot code stored in new FAT volumes. The bytes are assembled from tools/bootcode/*.S by
// tools/bootcode/build.sh and kept as arrays, so the build needs no assembler.
#pragma once
#include <cstdint>

namespace Corvo::Filesystem::BootCode {

inline constexpr unsigned kFat16LoaderOffset = 62, kFat16LoaderSize = 448;
inline constexpr unsigned kFat32LoaderOffset = 90, kFat32LoaderSize = 420;
inline constexpr unsigned kFat32BootSectorSize = 512;

extern const uint8_t kFat16Loader[kFat16LoaderSize];          // FAT12/16 boot sector, offset 62
extern const uint8_t kFat32Loader[kFat32LoaderSize];          // FAT32 boot sector, offset 90
extern const uint8_t kFat32BootSector[kFat32BootSectorSize];  // FAT32 sectors 2 and 8

}  // namespace Corvo::Filesystem::BootCode
