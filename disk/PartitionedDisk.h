// The partition node tree of one disk and the interface every table format's driver (MBR,
// GPT) implements. Commands read and change partitions only through this interface.
#pragma once
#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "disk/DiskDrive.h"

namespace Corvo::Disk {

enum class PartitionScheme { Mbr, Gpt };
// Role names: "PRIMARY", "EXTENDED", "LOGICAL", "AUXILIARY", "UNKNOWN".
enum class PartitionRole { Primary, Extended, Logical, Auxiliary, Unknown };
const char* roleName(PartitionRole role);

// 16 bytes in the on-disk (mixed-endian) GUID layout.
using GuidBytes = std::array<uint8_t, 16>;

class PartitionNode {
 public:
  PartitionRole role = PartitionRole::Unknown;
  uint64_t firstBlock = 0;  // absolute sector on the disk
  uint64_t blockCount = 0;
  uint8_t type = 0;         // MBR type byte; 0 for GPT entries
  bool active = false;
  // Where the entry is stored: the boot record's sector and slot (MBR), or the entry index
  // in the array (GPT, tableBlock 0).
  uint64_t tableBlock = 0;
  int slot = -1;
  // GPT entries.
  GuidBytes typeGuid{}, uniqueGuid{};
  uint64_t attributes = 0;
  std::u16string name;

  // Tree: a primary extended partition holds the first logical drive and the first auxiliary
  // (link) entry; each auxiliary entry holds the next logical drive and the next link.
  PartitionNode* parent = nullptr;
  std::vector<std::unique_ptr<PartitionNode>> children;

  uint64_t lastBlock() const { return firstBlock + blockCount - 1; }
  bool isLogical() const { return role == PartitionRole::Logical; }
  bool isExtendedType() const;   // 0x05, 0x0F, 0x85 and their hidden forms 0x15, 0x1F
  bool isDosExtended() const;    // 0x05 or 0x0F
  bool isHiddenType() const;     // hidden flag of the type table row
  // The primary extended partition holding this logical drive (null otherwise).
  const PartitionNode* extendedContainer() const;
};

// Facts the table reader found that the consistency checks and the status display report.
struct TableFacts {
  bool nonZeroUnusedEntry = false;  // an unused slot held non-zero bytes
  unsigned extendedDosCount = 0;    // extended DOS partitions in the master boot record
  // Damage found while reading (a chain that loops, a link outside the extended partition,
  // a missing 0xAA55 signature, a bad GPT CRC, ...), one sentence each, in the order found.
  std::vector<std::string> problems;
};

// What a table kind can hold besides plain partitions. The front end asks before it calls a
// verb; a verb the kind lacks is refused (NotSupported) without a write.
struct TableCapabilities {
  bool extendedPartitions = false;  // createExtended
  bool logicalDrives = false;       // createLogical
  bool activeFlag = false;          // setActive, clearActive
  bool typeBytes = false;           // setType (hide and unhide)
};

// The filesystem a created partition is formatted with.
enum class FormatKind : int { None = 0, FatFull = 1, FatQuick = 2, Ntfs = 3, Ext2 = 4, Exfat = 5 };

// A request to create a partition (as the creation command builds it).
struct CreationRequest {
  static constexpr int64_t kCylinderAlignment = -1;  // align to cylinders (and tracks)
  static constexpr int64_t kMegabyteAlignment = -2;  // align to 1 MiB (2^20 bytes) of the disk's sectors
  static constexpr uint64_t kLargest = 0xFFFFFFFFull;  // as large as the free space allows
  uint64_t sizeBlocks = kLargest;
  bool placeAtEnd = false;
  FormatKind formatKind = FormatKind::None;
  int versionCode = 9;  // NTFS 5..9, ext2 10
  std::string label;
  char letter = 0;
  int64_t alignment = kCylinderAlignment;  // or kMegabyteAlignment, or a unit in sectors
  // The type the user chose, replacing the one the format would pick: an MBR type byte (0: none)
  // or a GPT type GUID (zero: none), whichever the disk's scheme uses.
  uint8_t mbrType = 0;
  GuidBytes gptType{};
  uint64_t largestAvailable = 0;  // out: the largest size that would have fitted, in sectors
};

// The system's entry for a partition: the number the system gives it, its range, type byte,
// active flag, container flag (extended types) and GPT identity.
OsLayoutEntry osLayoutEntry(const PartitionNode& node, uint32_t number);
// Tells the system a layout. Returns the text of its refusal (empty when it took the layout
// or was not to be told): a refusal is a warning, the tables stand.
std::string reportOsLayout(DiskDrive& drive, const OsLayout& layout);

// One boot record as stored, for the raw table display.
struct RawBootRecord {
  uint64_t block = 0;
  std::array<uint8_t, 512> bytes{};
};

class PartitionedDisk {
 public:
  virtual ~PartitionedDisk() = default;

  // Reads the disk's tables with the first table kind whose probe recognises the disk's first
  // sector (see Load.cpp): GPT when the MBR holds the protective 0xEE entry, else MBR (a
  // blank disk is an MBR disk without partitions). Damaged tables never throw here: what
  // could be read is modelled and the damage is listed in facts().
  static std::unique_ptr<PartitionedDisk> load(DiskDrive& drive);

  DiskDrive& drive() const { return drive_; }
  virtual PartitionScheme scheme() const = 0;
  // The table kind's name as messages show it ("MBR", "GPT").
  virtual const char* kindName() const = 0;
  virtual TableCapabilities capabilities() const = 0;
  // The disk's GUID where the table kind has one and the table could be read.
  virtual std::optional<GuidBytes> diskGuid() const { return std::nullopt; }
  // Top-level nodes: MBR slots (in slot order) or GPT entries (in entry order).
  virtual const std::vector<std::unique_ptr<PartitionNode>>& roots() const = 0;
  virtual const TableFacts& facts() const = 0;
  // The master boot record and every extended boot record, in chain order.
  virtual std::vector<RawBootRecord> rawTables() const = 0;
  // Reads the tables again; node pointers from before are invalid afterwards.
  virtual void reload() = 0;
  // Sectors at the end of the disk that the table format cannot address (an MBR holds 32-bit
  // sector numbers): no partition of this table can reach them.
  virtual uint64_t blocksBeyondReach() const { return 0; }
  // The sectors that hold the disk's partition table structures, sorted: by default the boot
  // records of rawTables() (MBR: the master boot record and every extended boot record read);
  // GPT: the protective MBR, both headers and both entry arrays. A wipe never writes them,
  // whatever an entry claims, so that the disk reads with its table at every moment.
  virtual std::vector<SectorRange> tableSectors() const;

  // Partitions in display order (numbers used by /P:): the MBR slots in slot order, the
  // extended partition followed at once by its logical drives in chain order; no auxiliary
  // nodes. GPT: entries in order. Display number = index + 1.
  std::vector<PartitionNode*> displayList() const;
  PartitionNode* byDisplayNumber(unsigned number) const;  // 1-based; null when none
  PartitionNode* findByFirstBlock(uint64_t firstBlock) const;

  // Type selection flags for FAT types of new partitions.
  bool fat32Support = true;
  bool ntFat16 = false;

  // Editing. Each operation checks every rule before it writes anything, writes the tables in
  // an order that leaves a readable table after a crash at any point, then tells the OS
  // (a failed OS update is returned as a warning text in lastWarning(), not thrown).
  // create*: null when the request does not fit (request.largestAvailable is then set);
  // Core::Error for anything else.
  virtual unsigned slotCount() const = 0;         // 4 for MBR, entry count for GPT
  virtual unsigned primarySlotsInUse() const = 0;
  virtual PartitionNode* createPrimary(CreationRequest& request) = 0;
  // The verbs of capabilities(); the defaults refuse (NotSupported).
  virtual PartitionNode* createExtended(CreationRequest& request);
  virtual PartitionNode* createLogical(CreationRequest& request);
  // Removes one partition (an extended partition with all its logical drives).
  virtual void remove(PartitionNode& node) = 0;
  virtual void removeAll() = 0;
  virtual void setActive(PartitionNode& node);
  virtual void clearActive(PartitionNode& node);
  virtual void setType(PartitionNode& node, uint8_t type);  // hide and unhide

  // The layout the tables hold, as the system is told it after a change.
  virtual OsLayout osLayout() const = 0;

  const std::string& lastWarning() const { return lastWarning_; }

 protected:
  explicit PartitionedDisk(DiskDrive& drive) : drive_(drive) {}
  // The last step of every change: tells the system the layout the tables now hold; a refusal
  // becomes lastWarning().
  void reportLayout(const OsLayout& layout) {
    std::string refusal = reportOsLayout(drive_, layout);
    if (!refusal.empty()) lastWarning_ = std::move(refusal);
  }
  DiskDrive& drive_;
  std::string lastWarning_;
};

}  // namespace Corvo::Disk
