// FAT on-disk structures: the boot sector with its BPB, the FSInfo sector and the directory
// entry. Each field is declared here once (core/Field.h); the formatter writes through these
// views and the readers (recognition, labels) read through them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "core/Field.h"

namespace Corvo::Filesystem {

// Read access to a 512-byte FAT boot sector. FAT12/16 and FAT32 share the fields up to 36;
// the extended BPB (drive number, serial, label, type string) follows at 36 or at 64.
class FatBootSectorView {
 public:
  static constexpr size_t kSize = 512;
  static constexpr Core::ByteField kJump{0, 3}, kOemName{3, 8};
  static constexpr Core::Field16 kBytesPerSector{11};
  static constexpr Core::Field8 kSectorsPerCluster{13};
  static constexpr Core::Field16 kReservedSectors{14};
  static constexpr Core::Field8 kFatCount{16};
  static constexpr Core::Field16 kRootEntries{17}, kTotalSectors16{19};
  static constexpr Core::Field8 kMedia{21};
  static constexpr Core::Field16 kSectorsPerFat16{22}, kSectorsPerTrack{24}, kHeads{26};
  static constexpr Core::Field32 kHiddenSectors{28}, kTotalSectors32{32};
  // FAT32 only.
  static constexpr Core::Field32 kSectorsPerFat32{36};
  static constexpr Core::Field16 kExtFlags{40}, kVersion{42};
  static constexpr Core::Field32 kRootCluster{44};
  static constexpr Core::Field16 kFsInfoSector{48}, kBackupBootSector{50};
  // The extended BPB, at 36 (FAT12/16) or 64 (FAT32); its fields relative to its start.
  static constexpr size_t kExtendedSmallAt = 36, kExtendedFat32At = 64;
  static constexpr Core::Field8 kDriveNumberRel{0}, kBootSignatureRel{2};
  static constexpr Core::Field32 kSerialRel{3};
  static constexpr Core::ByteField kLabelRel{7, 11}, kTypeNameRel{18, 8};
  static constexpr size_t kOemNameSize = kOemName.size, kLabelSize = kLabelRel.size, kTypeNameSize = kTypeNameRel.size;
  static constexpr Core::Field16 kSignature{510};
  static constexpr uint8_t kExtendedSignature = 0x29;

  static constexpr size_t extendedAt(bool fat32) { return fat32 ? kExtendedFat32At : kExtendedSmallAt; }
  static constexpr size_t typeNameAt(bool fat32) { return extendedAt(fat32) + kTypeNameRel.offset; }
  static constexpr size_t labelAt(bool fat32) { return extendedAt(fat32) + kLabelRel.offset; }
  static constexpr size_t bootSignatureAt(bool fat32) { return extendedAt(fat32) + kBootSignatureRel.offset; }

  explicit FatBootSectorView(const uint8_t* bytes) : c_(bytes) {}

  uint16_t bytesPerSector() const { return kBytesPerSector.get(c_); }
  uint8_t sectorsPerCluster() const { return kSectorsPerCluster.get(c_); }
  uint16_t reservedSectors() const { return kReservedSectors.get(c_); }
  uint8_t fatCount() const { return kFatCount.get(c_); }
  uint16_t rootEntries() const { return kRootEntries.get(c_); }
  uint16_t sectorsPerFat16() const { return kSectorsPerFat16.get(c_); }
  uint32_t sectorsPerFat32() const { return kSectorsPerFat32.get(c_); }
  uint32_t rootCluster() const { return kRootCluster.get(c_); }
  uint8_t bootSignature(bool fat32) const { return kBootSignatureRel.get(c_ + extendedAt(fat32)); }
  const uint8_t* label(bool fat32) const { return c_ + labelAt(fat32); }
  bool typeNameIs(bool fat32, const char* name) const {
    return std::memcmp(c_ + typeNameAt(fat32), name, kTypeNameSize) == 0;
  }

 protected:
  const uint8_t* c_;
};

// Write access to the same fields (the formatter's side).
class FatBootSector : public FatBootSectorView {
 public:
  explicit FatBootSector(uint8_t* bytes) : FatBootSectorView(bytes), p_(bytes) {}

  void setJump(bool fat32) {
    const uint8_t jump[] = {0xEB, static_cast<uint8_t>(extendedAt(fat32) + 26 - 2), 0x90};  // past the extended BPB
    std::memcpy(p_ + kJump.offset, jump, kJump.size);
  }
  void setOemName(const char* name) { std::memcpy(p_ + kOemName.offset, name, kOemName.size); }
  void setBytesPerSector(uint16_t v) { kBytesPerSector.put(p_, v); }
  void setSectorsPerCluster(uint8_t v) { kSectorsPerCluster.put(p_, v); }
  void setReservedSectors(uint16_t v) { kReservedSectors.put(p_, v); }
  void setFatCount(uint8_t v) { kFatCount.put(p_, v); }
  void setRootEntries(uint16_t v) { kRootEntries.put(p_, v); }
  void setTotalSectors16(uint16_t v) { kTotalSectors16.put(p_, v); }
  void setMedia(uint8_t v) { kMedia.put(p_, v); }
  void setSectorsPerFat16(uint16_t v) { kSectorsPerFat16.put(p_, v); }
  void setSectorsPerTrack(uint16_t v) { kSectorsPerTrack.put(p_, v); }
  void setHeads(uint16_t v) { kHeads.put(p_, v); }
  void setHiddenSectors(uint32_t v) { kHiddenSectors.put(p_, v); }
  void setTotalSectors32(uint32_t v) { kTotalSectors32.put(p_, v); }
  void setSectorsPerFat32(uint32_t v) { kSectorsPerFat32.put(p_, v); }
  void setExtFlags(uint16_t v) { kExtFlags.put(p_, v); }
  void setVersion(uint16_t v) { kVersion.put(p_, v); }
  void setRootCluster(uint32_t v) { kRootCluster.put(p_, v); }
  void setFsInfoSector(uint16_t v) { kFsInfoSector.put(p_, v); }
  void setBackupBootSector(uint16_t v) { kBackupBootSector.put(p_, v); }
  // The extended BPB: drive number 0x80, signature 0x29, serial; label and type string are
  // written by the caller through labelField() and typeNameField().
  void setExtended(bool fat32, uint32_t serial) {
    uint8_t* extended = p_ + extendedAt(fat32);
    kDriveNumberRel.put(extended, 0x80);
    kBootSignatureRel.put(extended, kExtendedSignature);
    kSerialRel.put(extended, serial);
  }
  uint8_t* labelField(bool fat32) { return p_ + labelAt(fat32); }
  uint8_t* typeNameField(bool fat32) { return p_ + typeNameAt(fat32); }
  void setSignature() { kSignature.put(p_, 0xAA55); }

 private:
  uint8_t* p_;
};

// The FAT32 FSInfo sector.
struct FatFsInfo {
  static constexpr Core::Field32 kLeadSignature{0}, kStructSignature{484}, kFreeCount{488}, kNextFree{492};
  static constexpr Core::Field16 kTrailSignature{510};
  static void init(uint8_t* p, uint32_t freeCount, uint32_t nextFree) {
    std::memset(p, 0, FatBootSectorView::kSize);
    kLeadSignature.put(p, 0x41615252);
    kStructSignature.put(p, 0x61417272);
    setFreeCount(p, freeCount);
    kNextFree.put(p, nextFree);
    kTrailSignature.put(p, 0xAA55);
  }
  static void setFreeCount(uint8_t* p, uint32_t count) { kFreeCount.put(p, count); }
};

// A 32-byte directory entry.
struct FatDirEntry {
  static constexpr size_t kSize = 32;
  static constexpr Core::ByteField kName{0, 11};
  static constexpr Core::Field8 kAttributes{11};
  static constexpr Core::Field16 kCreateTime{14}, kCreateDate{16}, kAccessDate{18}, kWriteTime{22}, kWriteDate{24};
  static constexpr uint8_t kEndMark = 0x00, kDeletedMark = 0xE5;
  static constexpr uint8_t kAttrVolumeLabel = 0x08, kAttrDirectory = 0x10, kAttrLongName = 0x0F;
};

}  // namespace Corvo::Filesystem
