// The GPT table driver: reads both copies of the table, models the used entries as primary
// partitions, and writes every change to both copies and the protective MBR.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "disk/PartitionedDisk.h"
#include "disk/layout/GptFormat.h"

namespace Corvo::Disk {

// Reads a GPT disk (the caller found the protective 0xEE entry in the MBR). Damage that
// leaves no usable header copy is reported in facts().problems with no partitions.
std::unique_ptr<PartitionedDisk> loadGptDisk(DiskDrive& drive);

// Writes a new, empty GPT over the whole disk: a protective MBR (the boot code area and the
// disk signature of the old boot record stay), both headers built from the defaults with a
// new random disk GUID, usable blocks 34 to (last block - 33), and zeroed entry arrays; the
// old extended boot records and an old backup GPT header away from the last block are
// cleared. Every step is flushed before the next, in an order that leaves the old table or
// the new one readable at every point. The caller has already prepared (locked or checked)
// every existing partition. Returns the disk as read back, the OS told.
std::unique_ptr<PartitionedDisk> initializeGptDisk(DiskDrive& drive);

class PartitionedDiskGpt : public PartitionedDisk {
 public:
  explicit PartitionedDiskGpt(DiskDrive& drive);

  PartitionScheme scheme() const override { return PartitionScheme::Gpt; }
  const char* kindName() const override { return "GPT"; }
  // Plain partitions only: no extended partitions, active flag or type bytes.
  TableCapabilities capabilities() const override { return {}; }
  std::optional<GuidBytes> diskGuid() const override;
  const std::vector<std::unique_ptr<PartitionNode>>& roots() const override { return roots_; }
  const TableFacts& facts() const override { return facts_; }
  std::vector<RawBootRecord> rawTables() const override;
  void reload() override;
  std::vector<SectorRange> tableSectors() const override;

  unsigned slotCount() const override;
  unsigned primarySlotsInUse() const override;
  PartitionNode* createPrimary(CreationRequest& request) override;
  void remove(PartitionNode& node) override;
  void removeAll() override;

  // False when neither header copy could be used (the disk then shows no partitions and
  // refuses changes).
  bool hasValidTable() const { return valid_; }
  const GptHeader& primaryHeader() const { return primary_; }
  const GptHeader& backupHeader() const { return backup_; }
  GptRecord record(uint32_t index) const { return table_.record(index); }

 private:
  friend std::unique_ptr<PartitionedDisk> initializeGptDisk(DiskDrive& drive);
  void load();
  bool usePrimaryPastEnd(GptTableCopy& primary);
  std::unique_ptr<PartitionNode> makeNode(uint32_t index) const;
  void requireWritable(const char* what) const;
  int indexOf(const PartitionNode& node) const;
  // Writes a new entry into the free slot `index` for the sectors [start, start + size) (GPT
  // blocks), with a fresh unique GUID, and reports the new layout.
  PartitionNode* addEntry(uint32_t index, uint64_t start, uint64_t size, const GuidBytes& type);
  // Writes both copies of the table (backup first) and repairs the protective MBR.
  void writeTables();
  // Writes the changed table_; when that fails, table_ goes back to `before` and the tables
  // are read again from the disk (which may hold either state), and the error is thrown on.
  void commitTables(const GptTableCopy& before);
  // The tables as the system is told them.
  OsLayout osLayout() const override;

  std::vector<std::unique_ptr<PartitionNode>> roots_;
  TableFacts facts_;
  std::array<uint8_t, 512> mbr_{};
  bool valid_ = false;
  GptTableCopy table_;  // the copy in use: its header and the entry array
  GptHeader primary_, backup_;
};

}  // namespace Corvo::Disk
