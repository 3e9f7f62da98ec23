// On-disk structures of exFAT: the boot sector, the extended boot sector's signature, the FAT
// entries and the root directory's entries (allocation bitmap, up-case table, volume label),
// with the checksums of the boot region and the up-case table. Each field is named once here,
// with its offset inside its structure, and read and written through it (core/Field.h).
#pragma once
#include <cstddef>
#include <cstdint>

#include "core/Field.h"

namespace Corvo::Filesystem::Exfat {

using F8 = Core::Field8;
using F16 = Core::Field16;
using F32 = Core::Field32;
using F64 = Core::Field64;
using Bytes = Core::ByteField;

// The boot region: boot sector, 8 extended boot sectors, OEM parameters, a reserved sector and
// the checksum sector, twice (main, then backup).
inline constexpr uint32_t kBootRegionSectors = 12;
inline constexpr uint32_t kExtendedBootSectors = 8;
inline constexpr uint32_t kChecksumSector = 11;  // within its region
inline constexpr uint32_t kBackupBootRegion = 12;

// The boot sector; offsets from the sector's start.
namespace Boot {
inline constexpr Bytes jumpBoot{0, 3}, fileSystemName{3, 8}, mustBeZero{11, 53};
inline constexpr F64 partitionOffset{64}, volumeLength{72};
inline constexpr F32 fatOffset{80}, fatLength{84}, clusterHeapOffset{88}, clusterCount{92}, rootDirectoryCluster{96},
    volumeSerial{100};
inline constexpr F16 fileSystemRevision{104}, volumeFlags{106};
inline constexpr F8 bytesPerSectorShift{108}, sectorsPerClusterShift{109}, numberOfFats{110}, driveSelect{111},
    percentInUse{112};
inline constexpr Bytes bootCode{120, 390};
inline constexpr F16 bootSignature{510};
}  // namespace Boot
inline constexpr uint8_t kJumpBoot[3] = {0xEB, 0x76, 0x90};
inline constexpr char kFileSystemName[] = "EXFAT   ";
inline constexpr uint16_t kRevision = 0x0100;  // 1.00
inline constexpr uint8_t kDriveSelect = 0x80;
inline constexpr uint8_t kHalt = 0xF4;  // fills the boot code of a volume that boots nothing
inline constexpr uint16_t kBootSignature = 0xAA55;
// The last four bytes of every extended boot sector.
inline constexpr uint32_t kExtendedBootSignature = 0xAA550000;
// Boot sector bytes left out of the boot checksum: VolumeFlags and PercentInUse.
inline constexpr bool isVolatileBootByte(size_t offset) {
  return (offset >= Boot::volumeFlags.offset && offset < Boot::volumeFlags.end()) || offset == Boot::percentInUse.offset;
}

// FAT entries: 32 bits each; entries 0 and 1 hold the media type and a constant.
inline constexpr uint32_t kFatEntryBytes = 4;
inline constexpr uint32_t kFatMediaEntry = 0xFFFFFFF8, kFatEntry1 = 0xFFFFFFFF;
inline constexpr uint32_t kEndOfChain = 0xFFFFFFFF;
inline constexpr uint32_t kFirstCluster = 2;
inline constexpr uint64_t kMaxClusters = 0xFFFFFFF5;  // 2^32 - 11

// Directory entries: 32 bytes; the first byte is the entry type.
inline constexpr uint32_t kEntryBytes = 32;
namespace Entry {
inline constexpr F8 type{0};
}  // namespace Entry
inline constexpr uint8_t kTypeAllocationBitmap = 0x81, kTypeUpcaseTable = 0x82, kTypeVolumeLabel = 0x83;
// A volume label entry not in use: the volume has no label.
inline constexpr uint8_t kTypeNoVolumeLabel = 0x03;

// The allocation bitmap and up-case table entries: where the structure lies and its length.
namespace Bitmap {
inline constexpr F8 flags{1};
inline constexpr F32 firstCluster{20};
inline constexpr F64 dataLength{24};
}  // namespace Bitmap
namespace Upcase {
inline constexpr F32 tableChecksum{4}, firstCluster{20};
inline constexpr F64 dataLength{24};
}  // namespace Upcase
namespace Label {
inline constexpr F8 characterCount{1};
inline constexpr Bytes volumeLabel{2, 22};
}  // namespace Label
inline constexpr size_t kLabelUnits = 11;

// The boot region checksum over its first 11 sectors (the boot sector's volatile bytes left
// out); the checksum sector repeats it.
uint32_t bootChecksum(const uint8_t* region, uint32_t bytesPerSector);
// The up-case table's checksum, kept in its directory entry.
uint32_t tableChecksum(const uint8_t* data, size_t size);

}  // namespace Corvo::Filesystem::Exfat
