// /GPT /WIPE: reinitialises a disk as an empty GPT disk of its whole size.
#include "app/Commands.h"
#include "app/FixedDisks.h"
#include "app/CmdStatus.h"
#include "app/TableBackups.h"
#include "core/Error.h"
#include "core/Message.h"
#include "disk/layout/GptDisk.h"

namespace Kdisk {

using namespace Corvo::Core;

int commandGpt(SwitchSet& set) {
  if (!set.validate({&swGPT, &swWIPE, &swR, &swX, &swI, &swU, &swS, &swY, &swSURE, &swDIAG})) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  if (!set.isPresent(swWIPE)) {
    message(mkError, "Required switch missing -- /WIPE");
    return 2;
  }
  const uint32_t index = parseDiskNumber(set);
  if (index == kNoDisk) return 2;
  FixedDisk* disk = findDisk(index);
  if (!disk) return 1;
  Corvo::Disk::DiskDrive& drive = *disk->drive;
  const unsigned number = index + 1;
  const char* failText = "Cannot reinitialise fixed disk %u as a GPT disk -- %s";

  // Every partition on the disk goes: the whole disk must be free to change.
  try {
    drive.requireWritable();
    drive.prepareForChange(0, drive.blockCount());
  } catch (const Error& e) {
    message(mkError, failText, number, e.text().c_str());
    return 1;
  }
  if (message(mkQuestionPrompted,
              "All partitions on fixed disk %u will be deleted and the disk reinitialised as an empty GPT disk. "
              "Continue?",
              number) != 1)
    return 1;
  if (!backUpTables(*disk, Corvo::Core::format(failText, number, "%s").c_str())) return 1;
  try {
    TableWatch watch(*disk);
    disk->layout = Corvo::Disk::initializeGptDisk(drive);
  } catch (const Error& e) {
    message(mkError, failText, number, e.text().c_str());
    return 1;
  }
  if (!disk->layout->lastWarning().empty()) message(mkWarning, "%s", disk->layout->lastWarning().c_str());
  printDiskStatus(*disk);
  return 0;
}

}  // namespace Kdisk
