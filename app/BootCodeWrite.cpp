#include "app/BootCodeWrite.h"

#include "app/CmdStatus.h"
#include "app/TableBackups.h"
#include "core/Error.h"
#include "core/Message.h"

namespace Kdisk {

using namespace Corvo::Core;

bool loadBootCodeFile(const std::string& path, std::vector<uint8_t>& code) {
  try {
    code = Corvo::Disk::readBootCodeFile(path);
  } catch (const Error& e) {
    message(mkError, "Cannot read boot code file %s -- %s", path.c_str(), e.text().c_str());
    return false;
  }
  return true;
}

bool bootRecordFree(FixedDisk& disk, bool wipe) {
  try {
    disk.drive->requireWritable();
    disk.drive->prepareForChange(0, wipe ? disk.drive->blockCount() : 1);
  } catch (const Error& e) {
    message(mkError, "Cannot write master boot record -- %s", e.text().c_str());
    return false;
  }
  return true;
}

int writeBootCodeToDisk(FixedDisk& disk, const std::vector<uint8_t>& code, Corvo::Disk::DiskIdMode mode, bool wipe) {
  std::string warning;
  if (!backUpTables(disk, "Cannot write master boot record -- %s")) return 1;
  try {
    TableWatch watch(disk);
    warning = Corvo::Disk::writeMasterBootCode(*disk.layout, code, mode, wipe);
  } catch (const Error& e) {
    message(mkError, "Cannot write master boot record -- %s", e.text().c_str());
    return 1;
  }
  if (!warning.empty()) message(mkWarning, "%s", warning.c_str());
  message(mkInformation, "The master boot record of fixed disk %u has been reinitialised", disk.index + 1);
  // The record is written: a table that cannot be read again costs only the display.
  showChangedDisk(disk, {}, nullptr, Reread::Anew);
  return 0;
}

}  // namespace Kdisk
