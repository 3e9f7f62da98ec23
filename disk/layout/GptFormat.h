// On-disk structures of a GPT disk: the header, the partition entry and the disk-level
// properties. Each field is declared once (core/Field.h) and read and written through it.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "disk/BlockDevice.h"
#include "disk/PartitionedDisk.h"

namespace Corvo::Disk {

// The 92-byte GPT header. A new header carries the defaults ("EFI PART", revision 1.0, header
// size 92, 128 entries of 128 bytes); block positions, the disk GUID and both CRCs are filled
// when the table is placed and written. Copying moves exactly the 92 bytes; the link to the
// other copy's header belongs to the object and is not copied.
class GptHeader {
 public:
  static constexpr size_t kSize = 92;
  static constexpr uint32_t kRevision = 0x00010000;
  static constexpr uint32_t kDefaultEntryCount = 128;
  static constexpr uint32_t kDefaultEntrySize = 128;

  GptHeader();
  explicit GptHeader(const uint8_t* bytes);  // copies 92 bytes
  GptHeader(const GptHeader& other);
  GptHeader& operator=(const GptHeader& other);

  static constexpr size_t size() { return kSize; }
  const uint8_t* bytes() const { return bytes_.data(); }
  void copyTo(uint8_t* out) const;   // 92 bytes
  void copyFrom(const uint8_t* in);  // 92 bytes

  bool hasSignature() const;
  uint32_t revision() const;
  uint32_t headerSize() const;
  uint32_t headerCrc() const;
  uint64_t myBlock() const;
  uint64_t alternateBlock() const;
  uint64_t firstUsableBlock() const;
  uint64_t lastUsableBlock() const;
  GuidBytes diskGuid() const;
  uint64_t entriesBlock() const;
  uint32_t entryCount() const;
  uint32_t entrySize() const;
  uint32_t entriesCrc() const;

  void setMyBlock(uint64_t v);
  void setAlternateBlock(uint64_t v);
  void setFirstUsableBlock(uint64_t v);
  void setLastUsableBlock(uint64_t v);
  void setEntriesBlock(uint64_t v);
  void setEntryCount(uint32_t v);
  void setEntrySize(uint32_t v);
  void setEntriesCrc(uint32_t v);
  void setHeaderSize(uint32_t v);
  // CRC of the 92 bytes with the CRC field taken as zero; updateHeaderCrc stores it.
  uint32_t computeHeaderCrc() const;
  void updateHeaderCrc();
  // The same over the first `size` bytes of a header's block, for a header that claims more
  // than 92 bytes; storeImageCrc writes it into the block's CRC field.
  static uint32_t imageCrc(const uint8_t* block, uint32_t size);
  static void storeImageCrc(uint8_t* block, uint32_t size);

  // Sets the disk GUID here, then on the linked header when it still carries this header's
  // old GUID, and so on along the links.
  void setGptUuid(const GuidBytes& guid);
  void linkAlternate(GptHeader* other) { alternate_ = other; }
  GptHeader* alternate() const { return alternate_; }

 private:
  std::array<uint8_t, kSize> bytes_{};
  GptHeader* alternate_ = nullptr;
};

// One 128-byte partition entry.
class GptRecord {
 public:
  static constexpr size_t kSize = 128;
  static constexpr size_t kNameUnits = 36;  // UTF-16 code units in the name field

  GptRecord() = default;
  explicit GptRecord(const uint8_t* bytes);  // copies 128 bytes
  const uint8_t* bytes() const { return bytes_.data(); }
  void copyTo(uint8_t* out) const;

  bool isUsed() const;  // type GUID not zero
  bool isAllZero() const;
  GuidBytes typeGuid() const;
  GuidBytes uniqueGuid() const;
  uint64_t firstBlock() const;
  uint64_t lastBlock() const;  // inclusive
  uint64_t attributes() const;
  std::u16string name() const;  // up to the first NUL

  void setTypeGuid(const GuidBytes& g);
  void setUniqueGuid(const GuidBytes& g);
  void setFirstBlock(uint64_t v);
  void setLastBlock(uint64_t v);
  void setAttributes(uint64_t v);
  void setName(const std::u16string& name);  // cut to 36 code units

 private:
  std::array<uint8_t, kSize> bytes_{};
};

// One copy of the table as read from a disk: its header and its entry array.
struct GptTableCopy {
  GptHeader header;
  std::vector<uint8_t> entries;  // entryCount x entrySize bytes
  GptRecord record(uint32_t index) const;
  void setRecord(uint32_t index, const GptRecord& record);
};

// GPT blocks are the disk's logical sectors (BlockDevice::bytesPerBlock()).
// Size of the entry array in GPT blocks of blockBytes bytes.
uint64_t gptEntryArrayBlocks(uint32_t entryCount, uint32_t entrySize, uint32_t blockBytes);

// Reads the copy whose header should be at GPT block `at` and checks it: signature, header
// size, header CRC, its own position, entry geometry, every block it points to lying on the
// disk and outside its usable area, and the entry array CRC. Returns an empty string when the
// copy is valid, else the reason as a sentence fragment ("has a wrong header CRC").
std::string readGptCopy(BlockDevice& disk, uint64_t at, GptTableCopy& out);

}  // namespace Corvo::Disk
