#include "filesystem/Recognition.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "core/Endian.h"
#include "core/Utf.h"
#include "disk/BlockDevice.h"
#include "filesystem/ext2/Ext2Structures.h"
#include "filesystem/fat/FatStructures.h"
#include "filesystem/ntfs/Ntfs.h"
#include "filesystem/ntfs/NtfsStructures.h"

namespace Corvo::Filesystem {

namespace {

// The content buffer as the tests see it: bytes past the end of the caller's buffer read as 0.
class Content {
 public:
  Content(const uint8_t* data, size_t length) : data_(data), length_(data ? length : 0) {}
  bool equals(size_t offset, const char* text, size_t n) const {
    if (offset + n > length_) return false;
    return std::memcmp(data_ + offset, text, n) == 0;
  }
  uint8_t byte(size_t offset) const { return offset < length_ ? data_[offset] : 0; }
  const uint8_t* data() const { return data_; }
  size_t size() const { return length_; }
  uint32_t u32(size_t offset) const {
    uint32_t v = 0;
    for (size_t i = 0; i < 4; ++i) v |= uint32_t(byte(offset + i)) << (8 * i);
    return v;
  }
  uint64_t u64(size_t offset) const { return uint64_t(u32(offset)) | (uint64_t(u32(offset + 4)) << 32); }
  // A text field: up to its first NUL, trailing blanks removed.
  std::string text(size_t offset, size_t n) const {
    std::string s;
    for (size_t i = 0; i < n && byte(offset + i); ++i) s += static_cast<char>(byte(offset + i));
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
  }

 private:
  const uint8_t* data_;
  size_t length_;
};

bool isNtfs(const Content& c) {
  namespace Boot = Ntfs::Boot;
  if (!c.equals(Boot::kOemOffset, "NTFS    ", 8)) return false;
  const uint64_t cluster = uint64_t{c.byte(Boot::SectorsPerCluster.offset)} *
                           (c.byte(Boot::BytesPerSector.offset) | c.byte(Boot::BytesPerSector.offset + 1) << 8);
  // File records of 1 KB and index buffers of 4 KB, given either as clusters or, when a
  // cluster is larger, as a negative power of two of bytes.
  const auto bytes = [&](unsigned v) -> uint64_t {
    if (v < 0x80) return v * cluster;
    const uint64_t b = v >= 0xE0 ? uint64_t{1} << (256 - v) : 0;
    return b < cluster ? b : 0;
  };
  return bytes(c.byte(Boot::ClustersPerRecord.offset)) == 1024 && bytes(c.byte(Boot::ClustersPerIndexBlock.offset)) == 4096;
}

unsigned bootSectorTests(const Content& c) {
  if (isNtfs(c)) return ctNtfs;
  constexpr size_t small = FatBootSectorView::typeNameAt(false), large = FatBootSectorView::typeNameAt(true);
  if (c.equals(small, "FAT12   ", 8)) return ctFat12;
  if (c.equals(small, "FAT16   ", 8)) return ctFat16;
  if (c.equals(large, "FAT32   ", 8)) return ctFat32;
  if (c.equals(0, "OVLM", 4)) return ctOvlm;
  return ctNothing;
}

bool isSwap(const Content& c) {
  const bool v1 = c.u32(1024) == 1;
  if (v1 && (c.equals(4086, "SWAPSPACE2", 10) || c.equals(16374, "SWAPSPACE2", 10))) return true;
  return c.equals(4086, "SWAP-SPACE", 10) || c.equals(16374, "SWAP-SPACE", 10);
}

bool isLvm2(const Content& c) {
  for (uint64_t n = 1; n <= 4; ++n) {
    size_t at = static_cast<size_t>(n * 512);
    if (c.equals(at, "LABELONE", 8) && c.u64(at + 8) == n && c.equals(at + 24, "LVM2 001", 8)) return true;
  }
  return false;
}

std::string trimmed(const uint8_t* p, size_t n) {
  std::string s(reinterpret_cast<const char*>(p), n);
  size_t end = s.find_last_not_of(' ');
  s.erase(end == std::string::npos ? 0 : end + 1);
  return s;
}

}  // namespace

unsigned detectContent(const uint8_t* buffer, size_t length, unsigned mode) {
  if (mode == 1002) return ctNoTest;
  if (mode != 0 && mode != 1000 && mode != 1001) return ctNothing;
  const Content c(buffer, length);
  if (mode == 0 || mode == 1000) {
    unsigned r = bootSectorTests(c);
    if (r != ctNothing) return r;
    if (mode == 1000) return ctNothing;
  }
  if (isSwap(c)) return ctLinuxSwap;
  if (isLvm2(c)) return ctNothing;
  const size_t super = Ext2::kSuperblockOffset;
  if ((c.u32(super + Ext2::Super::magic.offset) & 0xFFFF) == Ext2::kMagic)
    return (c.u32(super + Ext2::Super::featureCompat.offset) & Ext2::kCompatHasJournal) ? ctExt3 : ctExt2;
  if (c.equals(65588, "ReIsEr2Fs", 9)) return ctReiser;
  return ctNothing;
}

const char* filesystemTypeName(int id) {
  static const char* const names[] = {"fsfFat", "fsfFat12", "fsfFat16", "fsfFat32", "fsfNtfs",
                                      "fsfNtfsWindowsNt351", "fsfNtfsWindowsNt40", "fsfNtfsWindows2000",
                                      "fsfNtfsWindowsXP", "fsfNtfsWindowsVista", "fsfExt2", "fsfExt3",
                                      "fsfReiser", "fsfXfs", "fsfLinuxSwap"};
  return id >= 0 && id <= 14 ? names[id] : "fsfUnknown";
}

int filesystemTypeOfContent(unsigned code) {
  switch (code) {
    case ctFat12: return fsfFat12;
    case ctFat16: return fsfFat16;
    case ctFat32: return fsfFat32;
    case ctNtfs: return fsfNtfs;
    case ctLinuxSwap: return fsfLinuxSwap;
    case ctExt2: return fsfExt2;
    case ctExt3: return fsfExt3;
    case ctReiser: return fsfReiser;
    default: return -1;
  }
}

std::string volumeLabelOf(const uint8_t* buffer, size_t length) {
  if (!buffer || length < FatBootSectorView::kSize) return {};
  const FatBootSectorView bs(buffer);
  const size_t n = FatBootSectorView::kLabelSize;
  std::string label;
  if (bs.typeNameIs(true, "FAT32   ") && bs.bootSignature(true) == FatBootSectorView::kExtendedSignature)
    label = trimmed(bs.label(true), n);
  else if ((bs.typeNameIs(false, "FAT12   ") || bs.typeNameIs(false, "FAT16   ")) &&
           bs.bootSignature(false) == FatBootSectorView::kExtendedSignature)
    label = trimmed(bs.label(false), n);
  // NTFS keeps its label in the $Volume file, not in the boot sector: not read here.
  if (label == "NO NAME") label.clear();
  return label;
}

namespace {

// Reads sectors of the device; false when the range lies outside it or the read fails.
bool readSectors(Disk::BlockDevice& device, uint64_t first, uint64_t count, std::vector<uint8_t>& buf) {
  if (count == 0 || first >= device.blockCount() || count > device.blockCount() - first) return false;
  buf.assign(device.bytesOf(count), 0);
  try {
    device.read(first, count, buf.data());
    return true;
  } catch (const Core::Error&) {
    return false;
  }
}

// A FAT name field as text: trailing blanks and NULs removed, a leading 0x05 standing for 0xE5,
// the bytes read in the DOS code page.
std::string fatName(const uint8_t* p, size_t n) {
  std::string s(reinterpret_cast<const char*>(p), n);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
  if (!s.empty() && static_cast<uint8_t>(s[0]) == FatDirEntry::kE5Escape) s[0] = static_cast<char>(0xE5);
  return Core::utf8FromCp850(s);
}

}  // namespace

std::string fatVolumeLabel(Disk::BlockDevice& device, bool fat32) {
  std::vector<uint8_t> boot;
  if (!readSectors(device, 0, 1, boot)) return {};
  const FatBootSectorView bs(boot.data());
  const uint32_t clusterSectors = bs.sectorsPerCluster(), sectorBytes = device.bytesPerBlock();
  if (bs.bytesPerSector() == sectorBytes && clusterSectors != 0) {
    const uint32_t fatSectors = fat32 ? bs.sectorsPerFat32() : bs.sectorsPerFat16();
    const uint64_t dataStart = bs.reservedSectors() + uint64_t{bs.fatCount()} * fatSectors;
    uint64_t rootSector = dataStart;
    uint64_t rootSectors = (uint64_t{bs.rootEntries()} * FatDirEntry::kSize + sectorBytes - 1) / sectorBytes;
    if (fat32) {
      const uint32_t rootCluster = bs.rootCluster();
      rootSector = rootCluster >= 2 ? dataStart + uint64_t{rootCluster - 2} * clusterSectors : 0;
      rootSectors = clusterSectors;
    }
    rootSectors = std::min<uint64_t>(rootSectors, std::max<uint64_t>(1, 32768 / sectorBytes));
    // The root directory's label entry decides: a volume whose entry was removed has no label,
    // whatever stale copy its boot sector keeps.
    std::vector<uint8_t> dir;
    if (rootSector && readSectors(device, rootSector, rootSectors, dir)) {
      for (size_t off = 0; off + FatDirEntry::kSize <= dir.size(); off += FatDirEntry::kSize) {
        const uint8_t* e = dir.data() + off;
        const uint8_t first = e[FatDirEntry::kName.offset], attributes = FatDirEntry::kAttributes.get(e);
        if (first == FatDirEntry::kEndMark) break;
        if (first == FatDirEntry::kDeletedMark || attributes == FatDirEntry::kAttrLongName) continue;
        if ((attributes & FatDirEntry::kAttrVolumeLabel) && !(attributes & FatDirEntry::kAttrDirectory))
          return fatName(e + FatDirEntry::kName.offset, FatDirEntry::kName.size);
      }
      return {};
    }
  }
  const std::string copy = fatName(bs.label(fat32), FatBootSectorView::kLabelSize);
  return copy == "NO NAME" ? std::string() : copy;
}

// ---- Naming a partition's content --------------------------------------------------------

namespace {

// Where the signatures and labels of the structures the content test does not name lie, in
// bytes from the partition's start (superblocks) or from the structure's start.
namespace BitLocker {
constexpr size_t kOem = 3;  // "-FVE-FS-" where a FAT or NTFS boot sector has its OEM name
}
namespace Exfat {
constexpr size_t kOem = 3, kHeapOffset = 88, kRootCluster = 96, kSectorShift = 108,
                 kClusterShift = 109;
constexpr size_t kEntrySize = 32, kLabelLength = 1, kLabelText = 2, kLabelUnits = 11;
constexpr uint8_t kEntryEnd = 0x00, kEntryLabel = 0x83;
}  // namespace Exfat
namespace Luks {
constexpr size_t kVersion = 6, kLabel = 24, kLabelSize = 48;  // the label is LUKS2's
}
namespace Swap {
constexpr size_t kVersion = 1024, kLabel = 1052, kLabelSize = 16;
}
namespace Iso9660 {
constexpr size_t kPrimary = 32768, kIdentifier = 1, kVolumeId = 40, kVolumeIdSize = 32;
}
namespace Btrfs {
constexpr size_t kSuper = 65536, kMagic = 64, kLabel = 299, kLabelSize = 256;
}
namespace Reiser {
constexpr size_t kSuper = 65536, kOldSuper = 8192, kMagic = 52, kLabel = 100, kLabelSize = 16;
}
constexpr size_t kIdentifyBytes = Btrfs::kSuper + 4096;

// Swap areas of any page size from 4 KiB to 64 KiB, made on either byte order: 2 for a
// new-style area (its version word is 1 in the maker's order; it has a label), 1 for an old one,
// 0 for none.
int swapKind(const Content& c) {
  for (size_t page = 4096; page <= 65536; page *= 2) {
    const uint32_t version = c.u32(Swap::kVersion);
    if (c.equals(page - 10, "SWAPSPACE2", 10) && (version == 1 || version == 0x01000000)) return 2;
    if (c.equals(page - 10, "SWAP-SPACE", 10)) return 1;
  }
  return 0;
}

std::string reiserMagicAt(const Content& c, size_t super) {
  for (const char* magic : {"ReIsEr2Fs", "ReIsEr3Fs", "ReIsErFs"})
    if (c.equals(super + Reiser::kMagic, magic, std::strlen(magic))) return magic;
  return {};
}

// ext2, ext3 and ext4 told apart by their feature flags; an external journal is none of them.
std::string extName(const Content& c) {
  using namespace Ext2;
  const size_t sb = kSuperblockOffset;
  const uint32_t compat = c.u32(sb + Super::featureCompat.offset), incompat = c.u32(sb + Super::featureIncompat.offset),
                 ro = c.u32(sb + Super::featureRoCompat.offset);
  if (incompat & kIncompatJournalDev) return "EXT JRNL";
  const uint32_t ext3Incompat = kIncompatFiletype | kIncompatRecover | kIncompatMetaBg,
                 ext3Ro = kRoCompatSparseSuper | kRoCompatLargeFile | kRoCompatBtreeDir;
  if ((incompat & ~ext3Incompat) || (ro & ~ext3Ro)) return "EXT4FS";
  return (compat & kCompatHasJournal) ? "EXT3FS" : "EXT2FS";
}

// The label entry of an exFAT root directory (its first cluster, at most 64 KB of it).
std::string exfatLabel(Disk::BlockDevice& device, const Content& c) {
  const unsigned sectorShift = c.byte(Exfat::kSectorShift), clusterShift = c.byte(Exfat::kClusterShift);
  const uint32_t root = c.u32(Exfat::kRootCluster);
  if (sectorShift < 9 || sectorShift > 12 || sectorShift + clusterShift > 25 || root < 2) return {};
  const uint64_t firstSector = c.u32(Exfat::kHeapOffset) + (uint64_t{root - 2} << clusterShift);
  const uint64_t bytes = std::min<uint64_t>(uint64_t{1} << (sectorShift + clusterShift), 65536);
  std::vector<uint8_t> dir;
  const uint64_t at = firstSector << sectorShift, blockBytes = device.bytesPerBlock();
  if (at % blockBytes || !readSectors(device, at / blockBytes, std::max<uint64_t>(1, bytes / blockBytes), dir)) return {};
  for (size_t at = 0; at + Exfat::kEntrySize <= dir.size(); at += Exfat::kEntrySize) {
    const uint8_t type = dir[at];
    if (type == Exfat::kEntryEnd) break;
    if (type != Exfat::kEntryLabel) continue;
    std::u16string label;
    const size_t units = std::min<size_t>(dir[at + Exfat::kLabelLength], Exfat::kLabelUnits);
    for (size_t i = 0; i < units; ++i) label.push_back(static_cast<char16_t>(Core::get16(&dir[at + Exfat::kLabelText + 2 * i])));
    return Core::utf8FromUtf16(label);
  }
  return {};
}

VolumeContent identify(Disk::BlockDevice& device, const Content& c) {
  // Encrypted and exFAT volumes first: a BitLocker boot sector keeps a FAT32 type string.
  if (c.equals(BitLocker::kOem, "-FVE-FS-", 8)) return {"BITLOCKER", {}};
  if (c.equals(Exfat::kOem, "EXFAT   ", 8)) return {"EXFAT", exfatLabel(device, c)};
  if (c.equals(0, "LUKS\xBA\xBE", 6)) {
    const bool v2 = c.byte(Luks::kVersion) == 0 && c.byte(Luks::kVersion + 1) == 2;
    return {"LUKS", v2 ? c.text(Luks::kLabel, Luks::kLabelSize) : std::string()};
  }
  const unsigned code = detectContent(c.data(), c.size(), 0);
  switch (code) {
    case ctFat12: return {"FAT12", fatVolumeLabel(device, false)};
    case ctFat16: return {"FAT16", fatVolumeLabel(device, false)};
    case ctFat32: return {"FAT32", fatVolumeLabel(device, true)};
    case ctNtfs: return {"NTFS/HPFS", ntfsVolumeLabel(device)};
    case ctExt2:
    case ctExt3: return {extName(c), Ext2::volumeLabelOf(c.data(), c.size())};
    default: break;
  }
  if (const int swap = swapKind(c)) return {"LINUX SWAP", swap == 2 ? c.text(Swap::kLabel, Swap::kLabelSize) : std::string()};
  if (isLvm2(c)) return {"LVM2", {}};
  for (const size_t super : {Reiser::kSuper, Reiser::kOldSuper}) {
    const std::string magic = reiserMagicAt(c, super);
    if (magic.empty()) continue;
    // Only the 3.6 format has a label field.
    return {"REISERFS", magic == "ReIsErFs" ? std::string() : c.text(super + Reiser::kLabel, Reiser::kLabelSize)};
  }
  if (c.equals(Btrfs::kSuper + Btrfs::kMagic, "_BHRfS_M", 8))
    return {"BTRFS", c.text(Btrfs::kSuper + Btrfs::kLabel, Btrfs::kLabelSize)};
  if (c.byte(Iso9660::kPrimary) == 1 && c.equals(Iso9660::kPrimary + Iso9660::kIdentifier, "CD001", 5))
    return {"ISO9660", c.text(Iso9660::kPrimary + Iso9660::kVolumeId, Iso9660::kVolumeIdSize)};
  return {};
}

}  // namespace

VolumeContent identifyVolume(Disk::BlockDevice& partition) {
  const uint64_t sectors =
      std::min<uint64_t>(partition.blocksOf(kIdentifyBytes + partition.bytesPerBlock() - 1), partition.blockCount());
  std::vector<uint8_t> buf;
  if (!readSectors(partition, 0, sectors, buf)) return {};
  VolumeContent v;
  try {
    v = identify(partition, Content(buf.data(), buf.size()));
  } catch (const Core::Error&) {
    return {};
  }
  v.label = Core::validUtf8(v.label);
  return v;
}

}  // namespace Corvo::Filesystem
