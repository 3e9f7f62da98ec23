// Backups of the writing commands: before a command's first write to a disk, the sectors of its
// partition tables and boot code are saved in a file of the backup folder, and the file is
// named in the output; /RESTORE: writes such a file back.
#pragma once
#include <optional>
#include <string>

#include "app/FixedDisks.h"

namespace Kdisk {

// The folder of /BACKUPDIR=, else the user's own state folder.
std::string backupFolder();

// Once per disk and command, before its first write: checks that nothing holds sector 0 (a
// volume made on the whole disk), then saves the table sectors and prints the file's name. False
// after printing why not: the busy check's reason through failText (one %s), a backup that
// cannot be written as "Cannot save the partition tables of fixed disk %u -- %s".
bool backUpTables(FixedDisk& disk, const char* failText);

// While it lives, a write to a sector of the disk that its backup does not hold yet first adds
// that sector to the backup (new extended boot records, GPT areas of a disk that had none).
// Does nothing when the disk has no backup.
class TableWatch {
 public:
  explicit TableWatch(FixedDisk& disk) {
    if (disk.backup) watch_.emplace(*disk.backup);
  }

 private:
  std::optional<Corvo::Disk::TableBackup::Watch> watch_;
};

}  // namespace Kdisk
