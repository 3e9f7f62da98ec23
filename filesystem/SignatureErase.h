// Before a new filesystem is written over a partition, whatever the partition held before is
// made unrecognisable, so that a format cut short after any of its writes is never taken for
// the old filesystem with new structures half written over it.
#pragma once
#include <vector>

#include "disk/BlockDevice.h"

namespace Corvo::Filesystem {

// The areas of a device of `blocks` blocks of `bytesPerBlock` bytes where the signatures of
// filesystems, volume managers and disk images live, in blocks, merged and sorted, cut to the
// device:
// - the first 68 KiB: the FAT, NTFS and exFAT boot sectors with the FAT32 backup at sector 6
//   and the exFAT backup boot region at sector 12, XFS and LUKS headers and the LVM label at
//   the start, the ext2/3/4 superblock at 1024, the RAID 1.2 superblock at 4 KiB, the swap
//   signature at the end of the first page for pages of 4 to 64 KiB, the ISO 9660 and UDF
//   descriptors from 32 KiB, the btrfs and ReiserFS superblocks at 64 KiB;
// - the LUKS2 secondary headers (16 KiB to 4 MiB), the btrfs mirror superblocks (64 MiB and
//   256 GiB), the old NTFS backup boot sector in the middle;
// - the last 128 KiB: the NTFS backup boot sector in the last sector, the RAID 0.90 and 1.0
//   superblocks near the end.
std::vector<Disk::SectorRange> signatureAreas(uint64_t blocks, uint32_t bytesPerBlock);

// Writes zeros over every signature area of the device and flushes: the first writes of every
// format, before any new structure. Throws Core::Error when a write or the flush fails.
void eraseSignatures(Disk::BlockDevice& device);

}  // namespace Corvo::Filesystem
