// /RESTORE:file: writes back the partition table sectors a writing command saved before it
// changed the disk (see TableBackups.h).
#include "app/CmdStatus.h"
#include "app/Commands.h"
#include "app/FixedDisks.h"
#include "app/TableBackups.h"
#include "core/Error.h"
#include "core/Message.h"
#include "core/Trace.h"

namespace Kdisk {

using namespace Corvo::Core;

int commandRestore(SwitchSet& set) {
  TraceScope scope("commandRestore");
  if (!set.validate({&swRESTORE, &swR, &swX, &swI, &swU, &swS, &swY, &swSURE, &swDIAG})) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  std::string file;
  set.isPresent(swRESTORE, &file);
  if (file.empty()) {
    message(mkError, "Switch requires a value -- /RESTORE");
    return 2;
  }
  const uint32_t index = parseDiskNumber(set);
  if (index == kNoDisk) return 2;
  // The file is read and checked before the disk is looked at: a bad file changes nothing.
  Corvo::Disk::TableBackupContents backup;
  try {
    backup = Corvo::Disk::readTableBackup(file);
  } catch (const Error& e) {
    message(mkError, "Cannot read backup file %s -- %s", visibleText(file).c_str(), e.text().c_str());
    return 1;
  }
  FixedDisk* disk = findDisk(index);
  if (!disk) return 1;
  const unsigned number = index + 1;
  const char* failText = "Cannot restore the partition tables of fixed disk %u -- %s";
  const std::string mismatch = Corvo::Disk::tableBackupMismatch(backup, *disk->drive);
  if (!mismatch.empty()) {
    message(mkError, failText, number, ("the backup does not belong to this disk: " + mismatch).c_str());
    return 1;
  }
  // Every partition may change: the whole disk must be free.
  try {
    disk->drive->requireWritable();
    disk->drive->prepareForChange(0, disk->drive->blockCount());
  } catch (const Error& e) {
    message(mkError, failText, number, e.text().c_str());
    return 1;
  }
  if (message(mkQuestionPrompted,
              "The partition tables of fixed disk %u will be replaced by the %u sectors saved in %s at %s. Continue?",
              number, static_cast<unsigned>(backup.sectors.size()), visibleText(file).c_str(),
              backup.time.c_str()) != 1)
    return 1;
  // What the restore overwrites is saved too: a restore can be undone like any change.
  if (!backUpTables(*disk, format(failText, number, "%s").c_str())) return 1;
  std::string warning;
  try {
    TableWatch watch(*disk);
    warning = Corvo::Disk::restoreTableBackup(*disk->drive, backup);
  } catch (const Error& e) {
    message(mkError, failText, number, e.text().c_str());
    return 1;
  }
  message(mkInformation, "The partition tables of fixed disk %u have been restored from %s", number,
          visibleText(file).c_str());
  showChangedDisk(*disk, warning, nullptr, Reread::Anew);
  return 0;
}

}  // namespace Kdisk
