// FAT on-disk structures: the boot sector with its BPB, the FSInfo sector and the directory
// entry. Each field's offset is written here once; the formatter writes through these views
// and the readers (recognition, labels) read through them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "core/Endian.h"

namespace Corvo::Filesystem {

// Read access to a 512-byte FAT boot sector. FAT12/16 and FAT32 share the fields up to 36;
// the extended BPB (drive number, serial, label, type string) follows at 36 or at 64.
class FatBootSectorView {
 public:
  static constexpr size_t kSize = 512;
  static constexpr size_t kJumpAt = 0, kOemNameAt = 3, kBytesPerSectorAt = 11, kSectorsPerClusterAt = 13,
                          kReservedSectorsAt = 14, kFatCountAt = 16, kRootEntriesAt = 17, kTotalSectors16At = 19,
                          kMediaAt = 21, kSectorsPerFat16At = 22, kSectorsPerTrackAt = 24, kHeadsAt = 26,
                          kHiddenSectorsAt = 28, kTotalSectors32At = 32;
  // FAT32 only.
  static constexpr size_t kSectorsPerFat32At = 36, kExtFlagsAt = 40, kVersionAt = 42, kRootClusterAt = 44,
                          kFsInfoSectorAt = 48, kBackupBootSectorAt = 50;
  // Extended BPB, relative to its start.
  static constexpr size_t kExtendedSmallAt = 36, kExtendedFat32At = 64;
  static constexpr size_t kDriveNumberRel = 0, kBootSignatureRel = 2, kSerialRel = 3, kLabelRel = 7,
                          kTypeNameRel = 18;
  static constexpr size_t kOemNameSize = 8, kLabelSize = 11, kTypeNameSize = 8;
  static constexpr size_t kSignatureAt = 510;
  static constexpr uint8_t kExtendedSignature = 0x29;

  static constexpr size_t extendedAt(bool fat32) { return fat32 ? kExtendedFat32At : kExtendedSmallAt; }
  static constexpr size_t typeNameAt(bool fat32) { return extendedAt(fat32) + kTypeNameRel; }
  static constexpr size_t labelAt(bool fat32) { return extendedAt(fat32) + kLabelRel; }
  static constexpr size_t bootSignatureAt(bool fat32) { return extendedAt(fat32) + kBootSignatureRel; }

  explicit FatBootSectorView(const uint8_t* bytes) : c_(bytes) {}

  uint16_t bytesPerSector() const { return Core::get16(c_ + kBytesPerSectorAt); }
  uint8_t sectorsPerCluster() const { return c_[kSectorsPerClusterAt]; }
  uint16_t reservedSectors() const { return Core::get16(c_ + kReservedSectorsAt); }
  uint8_t fatCount() const { return c_[kFatCountAt]; }
  uint16_t rootEntries() const { return Core::get16(c_ + kRootEntriesAt); }
  uint16_t sectorsPerFat16() const { return Core::get16(c_ + kSectorsPerFat16At); }
  uint32_t sectorsPerFat32() const { return Core::get32(c_ + kSectorsPerFat32At); }
  uint32_t rootCluster() const { return Core::get32(c_ + kRootClusterAt); }
  uint8_t bootSignature(bool fat32) const { return c_[bootSignatureAt(fat32)]; }
  const uint8_t* label(bool fat32) const { return c_ + labelAt(fat32); }
  bool typeNameIs(bool fat32, const char* name) const {
    return Core::bytesEqual(c_ + typeNameAt(fat32), name, kTypeNameSize);
  }

 protected:
  const uint8_t* c_;
};

// Write access to the same fields (the formatter's side).
class FatBootSector : public FatBootSectorView {
 public:
  explicit FatBootSector(uint8_t* bytes) : FatBootSectorView(bytes), p_(bytes) {}

  void setJump(bool fat32) {
    p_[kJumpAt] = 0xEB;
    p_[kJumpAt + 1] = static_cast<uint8_t>(extendedAt(fat32) + 26 - 2);  // past the extended BPB
    p_[kJumpAt + 2] = 0x90;
  }
  void setOemName(const char* name) { std::memcpy(p_ + kOemNameAt, name, kOemNameSize); }
  void setBytesPerSector(uint16_t v) { Core::put16(p_ + kBytesPerSectorAt, v); }
  void setSectorsPerCluster(uint8_t v) { p_[kSectorsPerClusterAt] = v; }
  void setReservedSectors(uint16_t v) { Core::put16(p_ + kReservedSectorsAt, v); }
  void setFatCount(uint8_t v) { p_[kFatCountAt] = v; }
  void setRootEntries(uint16_t v) { Core::put16(p_ + kRootEntriesAt, v); }
  void setTotalSectors16(uint16_t v) { Core::put16(p_ + kTotalSectors16At, v); }
  void setMedia(uint8_t v) { p_[kMediaAt] = v; }
  void setSectorsPerFat16(uint16_t v) { Core::put16(p_ + kSectorsPerFat16At, v); }
  void setSectorsPerTrack(uint16_t v) { Core::put16(p_ + kSectorsPerTrackAt, v); }
  void setHeads(uint16_t v) { Core::put16(p_ + kHeadsAt, v); }
  void setHiddenSectors(uint32_t v) { Core::put32(p_ + kHiddenSectorsAt, v); }
  void setTotalSectors32(uint32_t v) { Core::put32(p_ + kTotalSectors32At, v); }
  void setSectorsPerFat32(uint32_t v) { Core::put32(p_ + kSectorsPerFat32At, v); }
  void setExtFlags(uint16_t v) { Core::put16(p_ + kExtFlagsAt, v); }
  void setVersion(uint16_t v) { Core::put16(p_ + kVersionAt, v); }
  void setRootCluster(uint32_t v) { Core::put32(p_ + kRootClusterAt, v); }
  void setFsInfoSector(uint16_t v) { Core::put16(p_ + kFsInfoSectorAt, v); }
  void setBackupBootSector(uint16_t v) { Core::put16(p_ + kBackupBootSectorAt, v); }
  // The extended BPB: drive number 0x80, signature 0x29, serial; label and type string are
  // written by the caller through labelField() and typeNameField().
  void setExtended(bool fat32, uint32_t serial) {
    const size_t at = extendedAt(fat32);
    p_[at + kDriveNumberRel] = 0x80;
    p_[at + kBootSignatureRel] = kExtendedSignature;
    Core::put32(p_ + at + kSerialRel, serial);
  }
  uint8_t* labelField(bool fat32) { return p_ + labelAt(fat32); }
  uint8_t* typeNameField(bool fat32) { return p_ + typeNameAt(fat32); }
  void setSignature() { Core::put16(p_ + kSignatureAt, 0xAA55); }

 private:
  uint8_t* p_;
};

// The FAT32 FSInfo sector.
struct FatFsInfo {
  static constexpr size_t kLeadSignatureAt = 0, kStructSignatureAt = 484, kFreeCountAt = 488, kNextFreeAt = 492,
                          kTrailSignatureAt = 510;
  static void init(uint8_t* p, uint32_t freeCount, uint32_t nextFree) {
    std::memset(p, 0, FatBootSectorView::kSize);
    Core::put32(p + kLeadSignatureAt, 0x41615252);
    Core::put32(p + kStructSignatureAt, 0x61417272);
    setFreeCount(p, freeCount);
    Core::put32(p + kNextFreeAt, nextFree);
    Core::put16(p + kTrailSignatureAt, 0xAA55);
  }
  static void setFreeCount(uint8_t* p, uint32_t count) { Core::put32(p + kFreeCountAt, count); }
};

// A 32-byte directory entry.
struct FatDirEntry {
  static constexpr size_t kSize = 32;
  static constexpr size_t kNameAt = 0, kNameSize = 11, kAttributesAt = 11, kCreateTimeAt = 14, kCreateDateAt = 16,
                          kAccessDateAt = 18, kWriteTimeAt = 22, kWriteDateAt = 24;
  static constexpr uint8_t kEndMark = 0x00, kDeletedMark = 0xE5;
  static constexpr uint8_t kE5Escape = 0x05;  // a first byte 0xE5 as stored
  static constexpr uint8_t kAttrVolumeLabel = 0x08, kAttrDirectory = 0x10, kAttrLongName = 0x0F;
};

}  // namespace Corvo::Filesystem
