// The MBR table driver: the master boot record's four slots and the chain of extended boot
// records inside each extended partition, read into the partition node tree and changed
// through the PartitionedDisk interface.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "disk/PartitionedDisk.h"
#include "disk/layout/BiosBootRecord.h"

namespace Corvo::Disk {

// One boot record as read from the disk.
class PartitionNodeBootRecord {
 public:
  PartitionNodeBootRecord(uint64_t block, const BiosBootRecord& record) : block_(block), record_(record) {}
  virtual ~PartitionNodeBootRecord() = default;
  uint64_t block() const { return block_; }
  const BiosBootRecord& record() const { return record_; }

 protected:
  uint64_t block_;
  BiosBootRecord record_;
};

// A boot record whose slots describe partitions. base() is the block slot starts count from.
class PartitionNodeBiosPartitionContainer : public PartitionNodeBootRecord {
 public:
  using PartitionNodeBootRecord::PartitionNodeBootRecord;
  virtual uint64_t slotBase(unsigned slot) const = 0;
  // True when the slot may hold an extended type (a container or a link).
  virtual bool mayHoldExtended(unsigned slot) const = 0;
  // Absolute first block and count of a slot.
  std::pair<uint64_t, uint64_t> getSlotBlockRange(unsigned slot) const {
    return {slotBase(slot) + record_.getStartBlock(slot), record_.getBlockCount(slot)};
  }
  // A node for a slot that holds a partition (range, type, active flag, where it is stored).
  std::unique_ptr<PartitionNode> makePartitionFromSlot(unsigned slot, PartitionRole role) const;
  // A node for a slot holding an extended type; null when this slot may not hold one.
  std::unique_ptr<PartitionNode> createContainerInSlot(unsigned slot, PartitionRole role) const {
    return mayHoldExtended(slot) ? makePartitionFromSlot(slot, role) : nullptr;
  }
};

class PartitionNodeBiosPartitionContainerMaster : public PartitionNodeBiosPartitionContainer {
 public:
  explicit PartitionNodeBiosPartitionContainerMaster(const BiosBootRecord& r) : PartitionNodeBiosPartitionContainer(0, r) {}
  uint64_t slotBase(unsigned) const override { return 0; }
  bool mayHoldExtended(unsigned slot) const override { return slot < 4; }
};

// An extended boot record: slot 0 (the logical drive) counts from the record itself, slot 1
// (the link to the next record) from the start of the outermost extended partition.
class PartitionNodeBiosPartitionContainerEbr : public PartitionNodeBiosPartitionContainer {
 public:
  PartitionNodeBiosPartitionContainerEbr(uint64_t block, const BiosBootRecord& r, uint64_t extendedStart)
      : PartitionNodeBiosPartitionContainer(block, r), extendedStart_(extendedStart) {}
  uint64_t slotBase(unsigned slot) const override { return slot == 1 ? extendedStart_ : block_; }
  bool mayHoldExtended(unsigned slot) const override { return slot == 1; }

  PartitionNode* holder = nullptr;   // the extended or auxiliary node holding this record's entries
  PartitionNode* logical = nullptr;  // slot 0, when it holds a drive
  PartitionNode* link = nullptr;     // slot 1, when it links to a further record
  // End (exclusive) of the area the record and its drive take.
  uint64_t usedEnd() const;

 private:
  uint64_t extendedStart_;
};

// The first record of a chain, at the start of the extended partition.
class PartitionNodeBiosPartitionContainerExtended : public PartitionNodeBiosPartitionContainerEbr {
 public:
  using PartitionNodeBiosPartitionContainerEbr::PartitionNodeBiosPartitionContainerEbr;
};
// A further record of a chain, reached through the link of the record before it.
class PartitionNodeBiosPartitionContainerAuxiliary : public PartitionNodeBiosPartitionContainerEbr {
 public:
  using PartitionNodeBiosPartitionContainerEbr::PartitionNodeBiosPartitionContainerEbr;
};

// Reads an MBR disk: the master boot record, then every chain of extended boot records.
std::unique_ptr<PartitionedDisk> loadMbrDisk(DiskDrive& drive);

}  // namespace Corvo::Disk
