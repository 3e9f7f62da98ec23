// FAT12/16/32 formatter: type descriptors whose format operation writes a complete FAT
// filesystem onto a block device (a partition).
#pragma once
#include <array>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "disk/BlockDevice.h"
#include "filesystem/Formatter.h"

namespace Corvo::Core {
class Progress;
}

namespace Corvo::Filesystem {

// The FAT label rules: the message that refuses the label, empty when it may be used.
std::string fatLabelProblem(const std::string& label);

// The FAT type index (it also picks the type string of the boot sector).
enum FatType : int { ftFat12 = 0, ftFat16 = 1, ftFat32 = 2 };
// The BPB layout kind of a type: FAT12 and FAT16 share one, FAT32 has its own.
enum BpbLayoutKind : int { blSmall = 2, blFat32 = 3 };

// The FAT type of a new partition: from its type byte, or by its size in sectors when the
// byte does not name a FAT type (GPT entries); FAT32 only where it is allowed or the
// partition is too large for FAT16.
FatType fatTypeIndexFor(uint8_t type, uint64_t blocks, bool fat32Support, bool ntFat16);

// Formats the whole device (the quick/full choice is options.verify, the label, geometry and
// hidden sectors go to the boot sector) and returns the summary. Reports progress; throws
// Core::Error on failure, a failed step naming itself in the "step" property.
FormatSummary formatFat(Disk::BlockDevice& device, FatType type, const FormatOptions& options);

// The format of a new partition: FAT12, FAT16 or FAT32 as fatTypeIndexFor picks from the
// options' partition type and FAT rules and the device's size. Registered for both FAT kinds.
FormatSummary formatFatPartition(Disk::BlockDevice& device, const FormatOptions& options);

// Volume serial number made from a local time: the month and second in the top byte, the
// day, the hour, and year plus minute in the low 16 bits (32-bit wrap-around).
uint32_t fatVolumeSerial(const std::tm& localTime);

// What the formatter computes before it writes anything. Counts are sectors.
struct FatLayout {
  uint32_t reservedSectors = 0;
  uint32_t fatSectors = 0;       // both FAT copies together
  uint32_t rootDirSectors = 0;   // 0 on FAT32 (the root directory is cluster 2)
  uint32_t dataSectors = 0;      // a whole number of clusters
  uint64_t unusableSectors = 0;  // the partition's sectors beyond the four regions
  uint32_t freeClusters = 0, usedClusters = 0, badClusters = 0, totalClusters = 0;
  // Convenience copies of the BPB's choices.
  uint32_t sectorsPerCluster = 0;
  uint32_t sectorsPerFat = 0;          // one copy
  uint32_t volumeSerial = 0;
  std::array<uint8_t, 512> bootSector{};
  std::array<uint8_t, 512> fsInfo{};   // FAT32 only
};

// Base of the FAT type descriptors. One shared format operation; the types differ in the
// constants below and in the boot region they write.
class FAT {
 public:
  FAT(Disk::BlockDevice& device, FatType type);
  virtual ~FAT();
  FAT(const FAT&) = delete;
  FAT& operator=(const FAT&) = delete;

  // The type string stored in the boot sector: "FAT12", "FAT16" or "FAT32".
  virtual const char* typeName() const;
  // Writes the filesystem and returns the summary. Reports progress; on failure throws
  // Core::Error naming the failed step (sectors already written stay).
  virtual FormatSummary format(const FormatOptions& options);
  // Root directory entries of the BPB: 512 on FAT12/16, 0 on FAT32.
  virtual uint16_t rootDirectoryEntries() const { return 512; }
  virtual uint32_t reservedSectorCount() const = 0;  // starting value
  virtual BpbLayoutKind bpbLayoutKind() const = 0;
  virtual uint32_t minSectorsPerCluster() const = 0;
  virtual uint32_t maxSectorsPerCluster() const = 0;
  virtual uint32_t maxClusterCount() const = 0;
  virtual unsigned bitsPerFatEntry() const = 0;
  virtual uint32_t endOfChain() const = 0;
  // The bytes of FAT entries 0 and 1 for the given media byte.
  virtual std::vector<uint8_t> initialFatEntries(uint8_t media) const = 0;
  // Writes the reserved area except the boot sector itself (FAT32: FSInfo, the backup copies
  // and the zeroed rest); format() writes the boot sector after it.
  virtual void writeReservedArea();
  // The FAT entry value that marks a cluster as bad.
  virtual uint32_t badClusterMark() const = 0;

  // Computes the BPB and the layout for the device without writing anything. Throws
  // Core::Error (BpbFailed) when no layout fits. `now` is the local time for the serial.
  const FatLayout& buildBpb(const FormatOptions& options, const std::tm& now);
  const FatLayout& layout() const { return *layout_; }
  FatType type() const { return type_; }

 protected:
  Disk::BlockDevice& device_;
  FatType type_;
  std::unique_ptr<FatLayout> layout_;

 private:
  void buildLayoutSmall(uint64_t total);  // FAT12, FAT16
  void buildLayoutFat32(uint64_t total);  // FAT32
  void limitClusterCount();
  void fillBootSector(const FormatOptions& options, uint64_t total, const std::tm& now);
  // The steps of format(), in order; each throws its step's error on failure.
  void clearBootArea(Core::Progress& progress);
  std::array<uint8_t, 512> writeFats(Core::Progress& progress, uint32_t workBlocks);
  void writeRootDirectory(Core::Progress& progress, const FormatOptions& options, const std::tm& now);
  void verifyDataArea(Core::Progress& progress, const std::array<uint8_t, 512>& firstFatSector, uint32_t workBlocks);
  void writeBootSector(Core::Progress& progress);
  FormatSummary summary(const FormatOptions& options) const;
  void stopIfInterrupted(Core::Progress& progress);
};

class FAT12 : public FAT {
 public:
  explicit FAT12(Disk::BlockDevice& device) : FAT(device, ftFat12) {}
  uint32_t reservedSectorCount() const override { return 1; }
  BpbLayoutKind bpbLayoutKind() const override { return blSmall; }
  uint32_t minSectorsPerCluster() const override { return 8; }
  uint32_t maxSectorsPerCluster() const override { return 8; }  // always 4 KB clusters
  uint32_t maxClusterCount() const override { return 0xFF7; }
  unsigned bitsPerFatEntry() const override { return 12; }
  uint32_t endOfChain() const override { return 0xFFF; }
  std::vector<uint8_t> initialFatEntries(uint8_t media) const override { return {media, 0xFF, 0xFF}; }
  uint32_t badClusterMark() const override { return 0xFF7; }
};

class FAT16 : public FAT {
 public:
  explicit FAT16(Disk::BlockDevice& device) : FAT(device, ftFat16) {}
  uint32_t reservedSectorCount() const override { return 1; }
  BpbLayoutKind bpbLayoutKind() const override { return blSmall; }
  uint32_t minSectorsPerCluster() const override { return 4; }
  uint32_t maxSectorsPerCluster() const override { return 128; }
  uint32_t maxClusterCount() const override { return 0xFFF7; }
  unsigned bitsPerFatEntry() const override { return 16; }
  uint32_t endOfChain() const override { return 0xFFFF; }
  std::vector<uint8_t> initialFatEntries(uint8_t media) const override { return {media, 0xFF, 0xFF, 0xFF}; }
  uint32_t badClusterMark() const override { return 0xFFF7; }
};

class FAT32 : public FAT {
 public:
  explicit FAT32(Disk::BlockDevice& device) : FAT(device, ftFat32) {}
  uint16_t rootDirectoryEntries() const override { return 0; }
  uint32_t reservedSectorCount() const override { return 32; }
  BpbLayoutKind bpbLayoutKind() const override { return blFat32; }
  uint32_t minSectorsPerCluster() const override { return 8; }
  uint32_t maxSectorsPerCluster() const override { return 64; }
  uint32_t maxClusterCount() const override { return 0x0FFFFFF7; }
  unsigned bitsPerFatEntry() const override { return 32; }
  uint32_t endOfChain() const override { return 0x0FFFFFFF; }
  std::vector<uint8_t> initialFatEntries(uint8_t media) const override {
    return {media, 0xFF, 0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0x0F};
  }
  void writeReservedArea() override;
  uint32_t badClusterMark() const override { return 0x0FFFFFF7; }
};

// The descriptor of a type; throws InvalidArgument for a value outside the three.
std::unique_ptr<FAT> makeFatType(Disk::BlockDevice& device, FatType type);

}  // namespace Corvo::Filesystem
