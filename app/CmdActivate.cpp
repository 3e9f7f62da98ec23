// /ACT, /-ACT, /HIDE and /-HIDE: change the active flag or the hidden form of the type byte of
// one partition. Every rule is checked before the disk layer is asked to write anything.
#include <string>

#include "app/Commands.h"
#include "app/FixedDisks.h"
#include "app/PartitionCommands.h"
#include "app/CmdStatus.h"
#include "app/TableBackups.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "disk/layout/PartitionTypes.h"

namespace Kdisk {

using Corvo::Core::Error;
using Corvo::Core::message;
using Corvo::Core::mkError;
using Corvo::Core::mkInformation;
using Corvo::Core::mkQuestionPrompted;
using Corvo::Core::mkWarning;
using Corvo::Disk::PartitionedDisk;
using Corvo::Disk::PartitionNode;
using Corvo::Disk::PartitionRole;
using Corvo::Disk::PartitionScheme;

namespace {

uint8_t hiddenType(uint8_t type) { return Corvo::Disk::hiddenFormOfType(type); }
uint8_t visibleType(uint8_t type) { return Corvo::Disk::visibleFormOfType(type); }

struct Target {
  FixedDisk* disk = nullptr;
  PartitionNode* node = nullptr;
};

// Parses the line, the partition number and the disk; returns 0 and fills target, or an
// exit code after printing why.
int selectTarget(SwitchSet& set, const Switch& command, const Switch& opposite, bool hiding, Target& target) {
  if (!set.validate({&command, &opposite, &swActP, &swX, &swI, &swU, &swS, &swY, &swSURE, &swR, &swDIAG}, 0, 1)) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  std::string pText;
  set.isPresent(swActP, &pText);
  int number = 0;
  if (!scanPositiveNumber(pText, number)) {
    message(mkError, "Invalid partition number -- %s", pText.c_str());
    return 2;
  }
  uint32_t index = parseDiskNumber(set);
  if (index == kNoDisk) return 2;
  target.disk = findDisk(index);
  if (!target.disk) return 1;
  const Corvo::Disk::PartitionedDisk& layout = *target.disk->layout;
  const Corvo::Disk::TableCapabilities can = layout.capabilities();
  if (hiding ? !can.typeBytes : !can.activeFlag) {
    message(mkError, hiding ? "Fixed disk %u is a %s disk -- its partitions cannot be hidden or unhidden"
                            : "Fixed disk %u is a %s disk -- its partitions have no active flag",
            index + 1, layout.kindName());
    return 1;
  }
  target.node = target.disk->layout->byDisplayNumber(static_cast<unsigned>(number));
  if (!target.node) {
    message(mkError, "Invalid partition number -- %d", number);
    return 1;
  }
  return 0;
}

// Reads the tables again after a change and prints the disk with the partition marked.
int reloadAndShow(FixedDisk& disk, const PartitionMark& mark) {
  return showChangedDisk(disk, disk.layout->lastWarning(), &mark) ? 0 : 1;
}

}  // namespace

int commandActivate(CommandCode code, SwitchSet& set) {
  Corvo::Core::TraceScope scope("commandActivate");
  const bool activate = code == ccActivate;
  Target t;
  if (int rc = selectTarget(set, activate ? swACT : swDeACT, activate ? swDeACT : swACT, false, t)) return rc;
  FixedDisk& disk = *t.disk;
  PartitionedDisk& layout = *disk.layout;
  PartitionNode& node = *t.node;

  if (activate) {
    if (node.active) {
      message(mkWarning, "The specified partition is already active");
      printDiskStatus(disk);
      return 0;
    }
    const char* refusal = nullptr;
    if (node.isLogical())
      refusal = "Logical DOS drives may not be set active";
    else if (node.isHiddenType())
      refusal = "Hidden partitions may not be set active";
    else if (node.isDosExtended())
      refusal = "The extended DOS partition may not be set active";
    else if (node.isExtendedType())
      refusal = "The extended partitions may not be set active";
    if (refusal) {
      message(mkError, "%s", refusal);
      return 1;
    }
    PartitionMark mark = markOf(node, "*ACTIVATED*");
    if (!backUpTables(disk, "Cannot set partition active -- %s")) return 1;
    try {
      TableWatch watch(disk);
      layout.setActive(node);
    } catch (const Error& e) {
      message(mkError, "Cannot set partition active -- %s", e.text().c_str());
      return 1;
    }
    return reloadAndShow(disk, mark);
  }

  if (!node.active) {
    message(mkWarning, "The specified partition is not active");
    printDiskStatus(disk);
    return 0;
  }
  if (isOnlyActivePrimary(layout, node) &&
      message(mkQuestionPrompted,
              "You are deactivating the active partition. Fixed disk %u will not be bootable until a partition is "
              "set active. Continue?",
              disk.index + 1) != 1)
    return 1;
  PartitionMark mark = markOf(node, "*DEACTIVATED*");
  if (!backUpTables(disk, "Cannot deactivate partition -- %s")) return 1;
  try {
    TableWatch watch(disk);
    layout.clearActive(node);
  } catch (const Error& e) {
    message(mkError, "Cannot deactivate partition -- %s", e.text().c_str());
    return 1;
  }
  return reloadAndShow(disk, mark);
}

int commandHide(CommandCode code, SwitchSet& set) {
  Corvo::Core::TraceScope scope("commandHide");
  const bool hide = code == ccHide;
  Target t;
  if (int rc = selectTarget(set, hide ? swHIDE : swUnHIDE, hide ? swUnHIDE : swHIDE, true, t)) return rc;
  FixedDisk& disk = *t.disk;
  PartitionedDisk& layout = *disk.layout;
  PartitionNode& node = *t.node;

  bool noActiveLeft = false;
  uint8_t newType = 0;
  if (hide) {
    if (node.isHiddenType()) {
      message(mkWarning, "The specified partition is already hidden");
      printDiskStatus(disk);
      return 0;
    }
    newType = hiddenType(node.type);
    if (newType == node.type) {
      message(mkError, "Cannot hide partitions of this type");
      return 1;
    }
    noActiveLeft = disk.drive->isBootDisk() && isOnlyActivePrimary(layout, node);
  } else {
    if (!node.isHiddenType()) {
      message(mkWarning, "The specified partition is not currently hidden");
      printDiskStatus(disk);
      return 0;
    }
    newType = visibleType(node.type);
    if (newType == node.type) {
      message(mkError, "Cannot unhide partitions of this type");
      return 1;
    }
    if (newType == Corvo::Disk::kTypeExtended || newType == Corvo::Disk::kTypeExtendedLba) {
      for (const auto& root : layout.roots()) {
        if (root.get() != &node && root->isDosExtended()) {
          message(mkError, "Unhiding this partition would result in there being more than one extended DOS partition");
          return 1;
        }
      }
    }
  }

  PartitionMark mark = markOf(node, hide ? "*HIDDEN*" : "*UNHIDDEN*");
  const char* failText = hide ? "Cannot hide partition -- %s" : "Cannot unhide partition -- %s";
  try {
    // Locks the partition's volumes (or checks they are not in use) before its type changes.
    disk.drive->prepareForChange(node.firstBlock, node.blockCount);
  } catch (const Error& e) {
    message(mkError, failText, e.text().c_str());
    return 1;
  }
  if (!backUpTables(disk, failText)) return 1;
  try {
    TableWatch watch(disk);
    layout.setType(node, newType);
  } catch (const Error& e) {
    message(mkError, failText, e.text().c_str());
    return 1;
  }
  mark.type = newType;
  if (int rc = reloadAndShow(disk, mark)) return rc;
  if (noActiveLeft)
    message(mkInformation, "No partitions are set active. Fixed disk %u will not be bootable until a partition is set active",
            disk.index + 1);
  return 0;
}

}  // namespace Kdisk
