#include "filesystem/Recognition.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "core/Endian.h"
#include "disk/BlockDevice.h"
#include "filesystem/ext2/Ext2Structures.h"
#include "filesystem/fat/FatStructures.h"
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
  uint32_t u32(size_t offset) const {
    uint32_t v = 0;
    for (size_t i = 0; i < 4; ++i) v |= uint32_t(byte(offset + i)) << (8 * i);
    return v;
  }
  uint64_t u64(size_t offset) const { return uint64_t(u32(offset)) | (uint64_t(u32(offset + 4)) << 32); }

 private:
  const uint8_t* data_;
  size_t length_;
};

bool isNtfs(const Content& c) {
  namespace Boot = Ntfs::Boot;
  if (!c.equals(Boot::kOemOffset, "NTFS    ", 8)) return false;
  const unsigned s = c.byte(Boot::SectorsPerCluster.offset), r = c.byte(Boot::ClustersPerRecord.offset),
                 x = c.byte(Boot::ClustersPerIndexBlock.offset);
  // File records of 1 KB (2 sectors) and index buffers of 4 KB (8 sectors), given either as
  // clusters or, when a cluster is larger, as a negative power of two of bytes.
  bool fileRecord = s < 3 ? r * s == 2 : r == 0xF6;
  if (!fileRecord) return false;
  return s < 9 ? x * s == 8 : x == 0xF4;
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
  buf.assign(count * FatBootSectorView::kSize, 0);
  try {
    device.read(first, count, buf.data());
    return true;
  } catch (const Core::Error&) {
    return false;
  }
}

std::string trimmedName(const uint8_t* p, size_t n) {
  std::string s(reinterpret_cast<const char*>(p), n);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
  return s;
}

}  // namespace

std::string fatVolumeLabel(Disk::BlockDevice& device, bool fat32) {
  std::vector<uint8_t> boot;
  if (!readSectors(device, 0, 1, boot)) return {};
  const FatBootSectorView bs(boot.data());
  const uint32_t clusterSectors = bs.sectorsPerCluster();
  if (bs.bytesPerSector() == FatBootSectorView::kSize && clusterSectors != 0) {
    const uint32_t fatSectors = fat32 ? bs.sectorsPerFat32() : bs.sectorsPerFat16();
    const uint64_t dataStart = bs.reservedSectors() + uint64_t{bs.fatCount()} * fatSectors;
    uint64_t rootSector = dataStart;
    uint64_t rootSectors = (uint64_t{bs.rootEntries()} * FatDirEntry::kSize + 511) / 512;
    if (fat32) {
      const uint32_t rootCluster = bs.rootCluster();
      rootSector = rootCluster >= 2 ? dataStart + uint64_t{rootCluster - 2} * clusterSectors : 0;
      rootSectors = clusterSectors;
    }
    rootSectors = std::min<uint64_t>(rootSectors, 64);
    std::vector<uint8_t> dir;
    if (rootSector && readSectors(device, rootSector, rootSectors, dir)) {
      for (size_t off = 0; off + FatDirEntry::kSize <= dir.size(); off += FatDirEntry::kSize) {
        const uint8_t* e = dir.data() + off;
        const uint8_t first = e[FatDirEntry::kName.offset], attributes = FatDirEntry::kAttributes.get(e);
        if (first == FatDirEntry::kEndMark) break;
        if (first == FatDirEntry::kDeletedMark || attributes == FatDirEntry::kAttrLongName) continue;
        if ((attributes & FatDirEntry::kAttrVolumeLabel) && !(attributes & FatDirEntry::kAttrDirectory))
          return trimmedName(e + FatDirEntry::kName.offset, FatDirEntry::kName.size);
      }
    }
  }
  const std::string copy = trimmedName(bs.label(fat32), FatBootSectorView::kLabelSize);
  return copy == "NO NAME" ? std::string() : copy;
}

}  // namespace Corvo::Filesystem
