// /DISKWIPE: overwrites every sector of one disk, the system disk or all disks, optionally
// keeping the diagnostic / utility partitions with their boot record entries.
#include <algorithm>

#include "app/Commands.h"
#include "app/FixedDisks.h"
#include "app/PartitionCommands.h"
#include "app/CmdStatus.h"
#include "app/TableBackups.h"
#include "core/Error.h"
#include "core/Message.h"
#include "disk/Wipe.h"
#include "disk/layout/WipedDisk.h"

namespace Kdisk {

using namespace Corvo::Core;
using Corvo::Disk::PartitionNode;
using Corvo::Disk::WipeExtent;
using Corvo::Disk::wmCustom;
using Corvo::Disk::wmDod;
using Corvo::Disk::wmQuick;

namespace {

// Asks, then wipes one disk. False when the disk was refused, declined or not wiped whole.
bool wipeWholeDisk(FixedDisk& disk, int mode, unsigned customCount, bool keepUtility) {
  Corvo::Disk::DiskDrive& drive = *disk.drive;
  const unsigned number = disk.index + 1;
  const char* failText = "Cannot wipe fixed disk %u -- %s";
  std::vector<const PartitionNode*> kept;
  if (keepUtility) kept = Corvo::Disk::keptUtilityPartitions(*disk.layout);
  // Kept partitions stay out of the passes, and so does sector 0, which is rewritten with
  // their entries alone before the first pass.
  std::vector<WipeExtent> keep;
  if (!kept.empty()) keep.push_back({0, 1});
  for (const PartitionNode* n : kept) keep.push_back({n->firstBlock, n->blockCount});
  const std::vector<WipeExtent> extents = extentsOutside(drive.blockCount(), keep);

  try {
    drive.requireWritable();
    for (const WipeExtent& e : extents) drive.prepareForChange(e.first, e.count);
  } catch (const Error& e) {
    message(mkError, failText, number, e.text().c_str());
    return false;
  }
  if (message(mkQuestionPrompted, "All data on fixed disk %u will be permanently destroyed. Continue?", number) != 1)
    return false;

  const auto list = disk.layout->displayList();
  for (const PartitionNode* n : kept) {
    const unsigned shown = static_cast<unsigned>(std::find(list.begin(), list.end(), n) - list.begin()) + 1;
    message(mkInformation, "Partition %u on fixed disk %u is kept", shown, number);
  }
  if (!backUpTables(disk, Corvo::Core::format(failText, number, "%s").c_str())) return false;
  bool ok = true;
  try {
    if (!kept.empty()) Corvo::Disk::writeKeptBootRecord(drive, kept);
    const std::vector<WipeExtent> failed = wipeDevice(drive, mode, customCount, extents);
    if (!failed.empty()) {
      message(mkError, failText, number, reportUnwrittenSectors(failed, 0, number).c_str());
      ok = false;
    }
  } catch (const Error& e) {
    message(mkError, failText, number, e.text().c_str());
    ok = false;
  }
  // The system is told whatever the disk holds now, a failed wipe included.
  const std::string warning = Corvo::Disk::reportWipedLayout(drive, kept);
  return showChangedDisk(disk, warning, nullptr, Reread::Anew, ok) && ok;
}

}  // namespace

int commandDiskWipe(SwitchSet& set) {
  if (!set.validate({&swDISKWIPE, &swDODWIPE, &swDOD, &swCUSTOMWIPE, &swCUSTOM, &swKEEPCORVOBOOT, &swDISK, &swR, &swX,
                     &swI, &swU, &swS, &swY, &swSURE, &swDIAG})) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  // /DOD and /CUSTOM: are the short forms of /DODWIPE and /CUSTOMWIPE:.
  std::string customValue, shortValue;
  const bool dodLong = set.isPresent(swDODWIPE), dodShort = set.isPresent(swDOD);
  const bool customLong = set.isPresent(swCUSTOMWIPE, &customValue), customShort = set.isPresent(swCUSTOM, &shortValue);
  if (int{dodLong || dodShort} + int{customLong || customShort} > 1 ||
      (customLong && customShort && customValue != shortValue)) {
    message(mkError, "Conflicting switches. Specify one of /DODWIPE or /CUSTOMWIPE");
    return 2;
  }
  if (customShort) customValue = shortValue;
  const int mode = dodLong || dodShort ? wmDod : customLong || customShort ? wmCustom : wmQuick;
  int customCount = 0;
  if (mode == wmCustom && (!scanPositiveNumber(customValue, customCount) || customCount > 100)) {
    message(mkError, "Invalid custom wipe passes -- %s", customValue.c_str());
    return 2;
  }
  const bool keepUtility = set.isPresent(swKEEPCORVOBOOT);

  std::vector<uint32_t> list;
  if (int rc = selectDiskList(set, list)) return rc;
  if (std::find(list.begin(), list.end(), kNoDisk) != list.end()) return 2;  // reported already

  bool ok = true;
  if (!set.isPresent(swDISK)) {
    FixedDisk* disk = findDisk(list.front());
    if (!disk) return 1;
    ok = wipeWholeDisk(*disk, mode, static_cast<unsigned>(customCount), keepUtility);
  } else {
    // /DISK:ALL and /DISK:SYSTEM: a disk that cannot be reached is reported once and fails
    // the command; the others are wiped.
    reportInaccessibleDisks();
    for (uint32_t index : list) {
      FixedDisk* disk = nullptr;
      for (FixedDisk* d : fixedDisks())
        if (d->index == index) disk = d;
      if (!disk || !disk->ok()) {
        ok = false;
        continue;
      }
      ok &= wipeWholeDisk(*disk, mode, static_cast<unsigned>(customCount), keepUtility);
    }
  }
  return ok ? 0 : 1;
}

}  // namespace Kdisk
