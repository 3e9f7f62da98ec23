// Backups of the sectors a command is about to overwrite in a disk's partition tables and boot
// code, and their restoration. A backup is a file of its own: the disk's identity (size,
// sector size, path, model and serial, table identifier), the time, and the saved sectors with
// their numbers, closed by a CRC-32 of everything before it.
#pragma once
#include <array>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "disk/PartitionedDisk.h"

namespace Corvo::Disk {

// The sectors that hold the disk's partition table structures as read: the master boot record
// and every extended boot record of the chain (MBR disks); the protective MBR, both GPT headers
// and both entry arrays (GPT disks).
std::set<uint64_t> tableSectors(const PartitionedDisk& layout);

struct SavedSector {
  uint64_t block = 0;
  std::vector<uint8_t> bytes;  // one sector of the disk
};

struct TableBackupContents {
  std::string time;  // "YYYY-MM-DD hh:mm:ss UTC"
  std::string command;
  std::string path, model, serial;
  uint64_t blocks = 0;
  uint32_t bytesPerSector = 0;
  std::string tableId;  // "MBR disk signature 1234ABCD", "GPT disk GUID ...", or "none"
  // The saved sectors: first the table's own (tableSectors when the backup was made), then those
  // added before a write first reached them (structures the change made).
  std::vector<SavedSector> sectors;
  size_t tableCount = 0;  // how many of sectors are the table's own
};

// A backup being made. The constructor saves the current table sectors (tableSectors) in a new
// file in `folder` (created if missing) and flushes it; it throws Core::Error (WriteFailed,
// OpenFailed) when it cannot, before anything on the disk has changed. While a Watch lives,
// every write to a sector of the disk that the file does not hold yet first adds the sector's
// current contents to the file (rewritten and flushed); a failure there throws and the write
// does not happen. Destroying the backup stops watching and keeps the file.
class TableBackup {
 public:
  TableBackup(const PartitionedDisk& layout, const std::string& folder, const std::string& command);
  ~TableBackup();
  TableBackup(const TableBackup&) = delete;
  TableBackup& operator=(const TableBackup&) = delete;

  const std::string& file() const { return file_; }
  size_t savedCount() const { return contents_.sectors.size(); }

  class Watch {
   public:
    explicit Watch(TableBackup& backup);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

   private:
    TableBackup& backup_;
  };

 private:
  void add(uint64_t first, uint64_t count);
  // Reads one sector of the disk into the backup as it is now.
  void save(uint64_t block);
  void store();
  DiskDrive& drive_;
  std::string file_;
  TableBackupContents contents_;
  std::set<uint64_t> saved_;
};

// The bytes of a backup file and back. parseTableBackup throws Core::Error (InvalidImage)
// naming what is wrong.
std::string serializeTableBackup(const TableBackupContents& contents);
TableBackupContents parseTableBackup(const std::string& bytes);
TableBackupContents readTableBackup(const std::string& path);

// Why the backup was not made from this drive (its size, sector size, or its path or model
// and serial differ), or empty when it was.
std::string tableBackupMismatch(const TableBackupContents& backup, const DiskDrive& drive);

// Writes the saved sectors back in an order that keeps the disk readable at every instant, each
// flushed before the next: first the saved table from the bottom up (extended boot records from
// the last, the backup GPT entry array, the backup GPT header, the primary entry array, the
// primary header, the master boot record), then the sectors of the structures the change had
// made, which nothing reaches any more once the saved table is back. Then tells
// the system the layout the disk holds now; its refusal is returned (empty when it took it).
std::string restoreTableBackup(DiskDrive& drive, const TableBackupContents& backup);
// The order restoreTableBackup writes in (for tests).
std::vector<uint64_t> restoreOrder(const TableBackupContents& backup);

// The file name of a new backup of the drive made at `time` (seconds since 1970):
// "<disk name>-YYYYMMDD-hhmmss.kdbak"; the disk name is the last part of its path with
// characters other than letters, digits, '-', '_' and '.' replaced by '_'.
std::string tableBackupFileName(const std::string& diskPath, int64_t time);

}  // namespace Corvo::Disk
