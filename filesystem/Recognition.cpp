#include "filesystem/Recognition.h"

#include <algorithm>
#include <cstring>

#include "core/Endian.h"

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
  if (!c.equals(3, "NTFS    ", 8)) return false;
  const unsigned s = c.byte(13), r = c.byte(64), x = c.byte(68);
  // File records of 1 KB (2 sectors) and index buffers of 4 KB (8 sectors), given either as
  // clusters or, when a cluster is larger, as a negative power of two of bytes.
  bool fileRecord = s < 3 ? r * s == 2 : r == 0xF6;
  if (!fileRecord) return false;
  return s < 9 ? x * s == 8 : x == 0xF4;
}

unsigned bootSectorTests(const Content& c) {
  if (isNtfs(c)) return ccNtfs;
  if (c.equals(54, "FAT12   ", 8)) return ccFat12;
  if (c.equals(54, "FAT16   ", 8)) return ccFat16;
  if (c.equals(82, "FAT32   ", 8)) return ccFat32;
  if (c.equals(0, "OVLM", 4)) return ccOvlm;
  return ccNothing;
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
  if (mode == 1002) return ccNoTest;
  if (mode != 0 && mode != 1000 && mode != 1001) return ccNothing;
  const Content c(buffer, length);
  if (mode == 0 || mode == 1000) {
    unsigned r = bootSectorTests(c);
    if (r != ccNothing) return r;
    if (mode == 1000) return ccNothing;
  }
  if (isSwap(c)) return ccLinuxSwap;
  if (isLvm2(c)) return ccNothing;
  if (c.byte(1080) == 0x53 && c.byte(1081) == 0xEF) return (c.byte(1116) & 0x4) ? ccExt3 : ccExt2;
  if (c.equals(65588, "ReIsEr2Fs", 9)) return ccReiser;
  return ccNothing;
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
    case ccFat12: return fsfFat12;
    case ccFat16: return fsfFat16;
    case ccFat32: return fsfFat32;
    case ccNtfs: return fsfNtfs;
    case ccLinuxSwap: return fsfLinuxSwap;
    case ccExt2: return fsfExt2;
    case ccExt3: return fsfExt3;
    case ccReiser: return fsfReiser;
    default: return -1;
  }
}

std::string volumeLabelOf(const uint8_t* buffer, size_t length) {
  if (!buffer || length < 512) return {};
  std::string label;
  if (Core::bytesEqual(buffer + 82, "FAT32   ", 8) && buffer[66] == 0x29)
    label = trimmed(buffer + 71, 11);
  else if ((Core::bytesEqual(buffer + 54, "FAT12   ", 8) || Core::bytesEqual(buffer + 54, "FAT16   ", 8)) &&
           buffer[38] == 0x29)
    label = trimmed(buffer + 43, 11);
  // NTFS keeps its label in the $Volume file, not in the boot sector: not read here.
  if (label == "NO NAME") label.clear();
  return label;
}

}  // namespace Corvo::Filesystem
