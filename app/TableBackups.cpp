#include "app/TableBackups.h"

#include "app/Entry.h"
#include "core/Config.h"
#include "core/Error.h"
#include "core/Message.h"
#include "core/System.h"

namespace Kdisk {

using namespace Corvo::Core;

std::string backupFolder() {
  const std::string chosen = Config::getString(Config::kBackupFolderKey, "");
  return chosen.empty() ? userStateFolder() : chosen;
}

bool backUpTables(FixedDisk& disk, const char* failText) {
  if (disk.backup) return true;
  try {
    disk.drive->requireWritable();
    disk.drive->prepareForChange(0, 1);
  } catch (const Error& e) {
    message(mkError, failText, e.text().c_str());
    return false;
  }
  const std::string folder = backupFolder();
  if (folder.empty()) {
    message(mkError, "Cannot save the partition tables of fixed disk %u -- no backup folder (give one with /BACKUPDIR=)",
            disk.index + 1);
    return false;
  }
  std::string command;
  const auto& args = processArguments();
  for (size_t i = 1; i < args.size(); ++i) command += (i > 1 ? " " : "") + args[i];
  try {
    disk.backup = std::make_unique<Corvo::Disk::TableBackup>(*disk.layout, folder, command);
  } catch (const Error& e) {
    message(mkError, "Cannot save the partition tables of fixed disk %u -- %s", disk.index + 1, e.text().c_str());
    return false;
  }
  message(mkInformation, "The partition tables of fixed disk %u are saved in %s", disk.index + 1,
          disk.backup->file().c_str());
  return true;
}

}  // namespace Kdisk
