// The 512-byte BIOS boot record (master or extended): boot code, Windows disk identifiers,
// four 16-byte slots and the 0xAA55 signature.
#pragma once
#include <array>
#include <cstdint>
#include <vector>

#include "disk/BlockDevice.h"

namespace Corvo::Disk {

struct Chs {
  uint32_t cylinder = 0;
  uint32_t head = 0;
  uint32_t sector = 0;
  bool operator==(const Chs&) const = default;
};

// A known boot-code image: the MD5 digest (lower-case hex) of a record's first `length` bytes.
struct KnownBootCode {
  size_t length;
  const char* md5;
};

class BiosBootRecord {
 public:
  static constexpr size_t kSize = 512;
  static constexpr size_t kBootCodeSize = 446;
  static constexpr size_t kSlotTableOffset = 446;
  static constexpr size_t kSlotSize = 16;
  static constexpr unsigned kMaxSlots = 4;
  static constexpr uint16_t kSignature = 0xAA55;

  // Empty record: zeroed, with the signature written.
  explicit BiosBootRecord(bool hasTable = true, uint64_t slotCount = 4);
  // From a 512-byte image (null: all zero, no signature).
  BiosBootRecord(bool hasTable, uint64_t slotCount, const uint8_t* image);

  uint64_t getSlotCount() const { return slotCount_; }
  bool hasTable() const { return hasTable_; }
  static size_t size() { return kSize; }
  const uint8_t* data() const { return bytes_.data(); }
  uint8_t* data() { return bytes_.data(); }
  bool hasSignature() const;
  uint16_t getSignature() const;  // the word at 510 as stored
  void setSignature();
  bool isAllZero() const;

  // Slot access; an index of 4 or more selects no slot (reads give zero, writes do nothing).
  bool isSlotEmpty(unsigned slot) const;
  uint8_t getType(unsigned slot) const;
  void setType(unsigned slot, uint8_t type);
  uint8_t getStatus(unsigned slot) const;
  bool isActive(unsigned slot) const;
  void setActive(unsigned slot);
  void deactivate(unsigned slot);
  uint32_t getStartBlock(unsigned slot) const;
  uint32_t getBlockCount(unsigned slot) const;
  Chs getSlotChs(unsigned slot, bool end) const;
  void clearSlot(unsigned slot);
  // The protective slot of a GPT disk: type 0xEE from block 1 over blockCount blocks, CHS
  // from 0/0/2 to the largest triple.
  void setProtectiveSlot(unsigned slot, uint32_t blockCount);
  bool isProtectiveSlot(unsigned slot, uint32_t blockCount) const;
  // Writes a slot: status 0, both CHS triples, the type (switched to its LBA form when the
  // start lies beyond the CHS limit and the type is cylinder-limited), start and count.
  // chsBase is added to startBlock for the CHS triples only (extended boot records store
  // starts relative to a base, CHS absolute). Start and count must fit in 32 bits.
  void setSlot(unsigned slot, uint64_t startBlock, uint64_t blockCount, uint8_t type, uint32_t heads,
               uint32_t sectorsPerTrack, uint64_t chsBase = 0);

  // Block address to CHS for a slot of the given type; overflow (when given) is set when the
  // address lies at cylinder 1024 or beyond and the triple was clamped.
  static Chs blockToChs(uint64_t block, uint8_t type, uint32_t heads, uint32_t sectorsPerTrack,
                        bool* overflow = nullptr);
  // "BiosBootRecord::MaxoutCylinder", default 1022 for the cylinder-limited family, else 1023.
  static uint32_t maxoutCylinder(uint8_t type);

  // Windows 9x identifier at 220: present only under recognised boot code with bytes 218
  // and 219 zero. The setters leave the record untouched when it is not present.
  bool isBootCodeRecognised() const;
  bool is9xIdAvailable() const;
  // The same test against another table of images.
  bool is9xIdAvailable(const std::vector<KnownBootCode>& known) const;
  uint32_t getWindows9xId() const;
  void setWindows9xId(uint32_t id);
  void regenerateWindows9xId();
  // Windows NT disk signature at 440.
  uint32_t getWindowsNtId() const;
  void setWindowsNtId(uint32_t id);
  void clearWindowsNtId() { setWindowsNtId(0); }
  // Boot code: 446 bytes when the record has a slot table, none otherwise.
  size_t bootCodeSize() const { return hasTable_ ? kBootCodeSize : 0; }
  std::vector<uint8_t> getBootCode() const;
  // Copies up to bootCodeSize() bytes; the rest of the area is zeroed.
  void setBootCode(const uint8_t* code, size_t length);

 private:
  bool addressable(unsigned slot) const { return slot < kMaxSlots && slot < slotCount_; }
  uint8_t* slotPtr(unsigned slot) { return bytes_.data() + kSlotTableOffset + slot * kSlotSize; }
  const uint8_t* slotPtr(unsigned slot) const { return bytes_.data() + kSlotTableOffset + slot * kSlotSize; }

  std::array<uint8_t, kSize> bytes_{};
  uint64_t slotCount_;
  bool hasTable_;
};

// The three images under which the Windows 9x identifier counts.
const std::vector<KnownBootCode>& knownBootCodes();
// True when the record's leading bytes match one of the images.
bool matchesKnownBootCode(const uint8_t* record, const std::vector<KnownBootCode>& known);

// A fresh non-zero value for a disk identifier.
uint32_t newDiskIdentifier();

}  // namespace Corvo::Disk
