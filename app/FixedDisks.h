// The fixed disk table: one record per disk of the disk manager, with its partition tables
// read and checked. Disk numbers are 1-based in messages and 0-based here.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/Switches.h"
#include "core/Error.h"
#include "disk/PartitionedDisk.h"
#include "disk/TableBackup.h"

namespace Kdisk {

inline constexpr unsigned kMaxFixedDisks = 128;
inline constexpr uint32_t kNoDisk = 0xFFFFFFFFu;

struct FixedDisk {
  uint32_t index = 0;                // 0-based
  Corvo::Disk::DiskDrive* drive = nullptr;
  std::unique_ptr<Corvo::Disk::PartitionedDisk> layout;  // null when the disk is inaccessible
  std::optional<Corvo::Core::Error> status;              // empty: opened and read
  // The backup of what this command overwrites in the disk's tables (made before its first
  // write, see TableBackups.h); null until then.
  std::unique_ptr<Corvo::Disk::TableBackup> backup;
  bool locked = false;  // this process holds the disk's exclusive lock
  bool ok() const { return !status && layout; }
};

// Builds the table. exclusive: the command writes, and every disk is locked for this process
// (waiting a few seconds for another holder) before its tables are read; a disk that stays
// held elsewhere is inaccessible with "Fixed disk %u is in use by another program". The
// locks are let go when the table is released.
void buildFixedDiskTable(bool exclusive = false);
void releaseFixedDiskTable();
// Appends a record made outside the disk manager (unit tests build in-memory disks this way).
void adoptFixedDisk(std::unique_ptr<FixedDisk> record);
std::vector<FixedDisk*> fixedDisks();

uint32_t parseDiskNumber(const SwitchSet& set);  // 0-based, or kNoDisk after printing why
FixedDisk* findDisk(uint32_t index);             // prints why when it returns null
void reportInaccessibleDisks();
int selectDiskList(const SwitchSet& set, std::vector<uint32_t>& list);
uint32_t systemDisk();

}  // namespace Kdisk
