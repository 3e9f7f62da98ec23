// Recognition of what a partition holds, from its first 64 KB.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace Corvo::Disk {
class BlockDevice;
}

namespace Corvo::Filesystem {

// Bytes of the partition's start that detectContent looks at (the highest offset read is 65596).
inline constexpr size_t kContentBytes = 65597;

enum ContentCode : unsigned {
  ctNothing = 0,  // also an LVM2 physical volume label
  ctFat12 = 3,
  ctFat16 = 4,
  ctFat32 = 5,
  ctNtfs = 6,
  ctLinuxSwap = 7,
  ctExt2 = 8,
  ctExt3 = 9,
  ctReiser = 10,
  ctOvlm = 11,
  ctNoTest = 20012,
};

enum FilesystemType : int {
  fsfFat = 0, fsfFat12 = 1, fsfFat16 = 2, fsfFat32 = 3, fsfNtfs = 4, fsfNtfsWindowsNt351 = 5,
  fsfNtfsWindowsNt40 = 6, fsfNtfsWindows2000 = 7, fsfNtfsWindowsXP = 8, fsfNtfsWindowsVista = 9,
  fsfExt2 = 10, fsfExt3 = 11, fsfReiser = 12, fsfXfs = 13, fsfLinuxSwap = 14,
};

// mode: 0 every test, 1000 boot-sector tests only, 1001 only the tests beyond the boot
// sector, 1002 no test (returns 20012); anything else returns 0. Buffers shorter than
// kContentBytes are treated as zero-padded.
unsigned detectContent(const uint8_t* buffer, size_t length, unsigned mode);
const char* filesystemTypeName(int id);  // "fsfFat" ... "fsfLinuxSwap", else "fsfUnknown"
// The filesystem type identifier for a content code; -1 when the code names no filesystem.
int filesystemTypeOfContent(unsigned code);
// The volume label in a FAT boot sector (trimmed; empty for "NO NAME", for no label and for
// anything that is not a FAT boot sector).
std::string volumeLabelOf(const uint8_t* buffer, size_t length);
// The label of the FAT volume on the device: the root directory's label entry, else the boot
// sector's copy ("NO NAME" counting as none). fat32 tells which boot sector layout to read.
// Empty when nothing can be read; never throws.
std::string fatVolumeLabel(Disk::BlockDevice& device, bool fat32);

// What a partition holds, as the status display and /STATUS /JSON name it.
struct VolumeContent {
  // "FAT12", "FAT16", "FAT32", "NTFS/HPFS", "EXFAT", "EXT2FS", "EXT3FS", "EXT4FS", "EXT JRNL"
  // (an external ext3/4 journal), "LINUX SWAP", "REISERFS", "BTRFS", "LUKS", "LVM2", "ISO9660",
  // "BITLOCKER"; empty when nothing is recognised.
  std::string filesystem;
  std::string label;  // whole, as UTF-8; empty when there is none
};
// Looks at the partition's first 68 KB (the content test's 64 KB and the superblocks at 64 KB)
// and, for the label, at the structures they point to. Never throws: a partition whose start
// cannot be read holds nothing recognisable.
VolumeContent identifyVolume(Disk::BlockDevice& partition);

}  // namespace Corvo::Filesystem
