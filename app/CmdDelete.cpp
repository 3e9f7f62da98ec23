// /DEL: removes one partition, the extended partition with its logical drives, or every
// partition of a disk, optionally wiping the sectors first.
#include <algorithm>

#include "app/Commands.h"
#include "app/PartitionCommands.h"
#include "app/Status.h"
#include "app/Wipe.h"
#include "core/Error.h"
#include "core/Message.h"

namespace Kdisk {

using namespace Corvo::Core;
using Corvo::Disk::PartitionedDisk;
using Corvo::Disk::PartitionNode;
using Corvo::Disk::PartitionRole;

namespace {

unsigned displayNumberOf(const PartitionedDisk& disk, const PartitionNode& node) {
  auto list = disk.displayList();
  auto it = std::find(list.begin(), list.end(), &node);
  return it == list.end() ? 0 : static_cast<unsigned>(it - list.begin()) + 1;
}

std::vector<PartitionNode*> logicalDrives(const PartitionedDisk& disk) {
  std::vector<PartitionNode*> out;
  for (PartitionNode* n : disk.displayList())
    if (n->isLogical()) out.push_back(n);
  return out;
}

// True when the node is active and no other primary, non-extended partition is.
bool onlyActivePrimary(const PartitionedDisk& disk, const PartitionNode& node) {
  if (!node.active) return false;
  for (const auto& root : disk.roots())
    if (root.get() != &node && root->active && !root->isExtendedType()) return false;
  return true;
}

// Wipes the node (its logical drives' data areas left out when `keep` lists them).
bool wipeNode(FixedDisk& disk, const PartitionNode& node, WipeMode wipeMode, unsigned customCount, const char* failText,
              const std::vector<WipeExtent>& keep = {}) {
  if (wipeMode == wmNone) return true;
  try {
    std::vector<WipeExtent> failed = wipePartition(*disk.drive, node.firstBlock, node.blockCount, wipeMode,
                                                   customCount, displayNumberOf(*disk.layout, node), disk.index + 1, keep);
    // Sectors left unwritten make the wipe a failed one: the table stays as it is.
    if (!failed.empty()) {
      message(mkError, failText, unwrittenSectorsText(failed).c_str());
      return false;
    }
  } catch (const Error& e) {
    message(mkError, failText, e.text().c_str());
    return false;
  }
  return true;
}

// Removes the node through the disk layer, then re-reads the table and prints the disk with
// the removed partition in its old place.
bool removeNode(FixedDisk& disk, PartitionNode& node, const char* failText) {
  const PartitionMark mark = markOf(node, "*DELETED*", true);
  PartitionedDisk& layout = *disk.layout;
  try {
    disk.drive->prepareForChange(node.firstBlock, node.blockCount);
    layout.remove(node);
  } catch (const Error& e) {
    message(mkError, failText, e.text().c_str());
    return false;
  }
  if (!layout.lastWarning().empty()) message(mkWarning, "%s", layout.lastWarning().c_str());
  try {
    layout.reload();
  } catch (const Error& e) {
    // The partition is gone from the table; only the display below is missing.
    message(mkError, "Cannot reload partition table -- %s", e.text().c_str());
    return true;
  }
  printDiskStatus(disk, &mark);
  return true;
}

void reportNotStartable(const FixedDisk& disk) {
  message(mkInformation, "No partitions are set active. Fixed disk %u will not be startable until a partition is set active",
          disk.index + 1);
}

}  // namespace

bool deletePrimaryDos(FixedDisk& disk, PartitionNode& node, WipeMode wipeMode, unsigned customCount) {
  PartitionedDisk& layout = *disk.layout;
  const bool bootDisk = disk.drive->isBootDisk();
  if (bootDisk && dosExtendedPartition(layout) &&
      message(mkQuestionPrompted,
              "You are about to delete the primary DOS partition while an extended DOS partition exists. Continue?") != 1)
    return false;
  const bool lastActive = bootDisk && onlyActivePrimary(layout, node);
  if (!wipeNode(disk, node, wipeMode, customCount, "Cannot wipe primary DOS partition -- %s")) return false;
  if (!removeNode(disk, node, "Cannot delete primary DOS partition -- %s")) return false;
  if (lastActive) reportNotStartable(disk);
  return true;
}

bool deleteExtendedDos(FixedDisk& disk, PartitionNode& node, WipeMode wipeMode, unsigned customCount) {
  PartitionedDisk& layout = *disk.layout;
  if (node.isHiddenType()) {
    if (message(mkQuestionPrompted,
                "The extended DOS partition is hidden and may contain logical DOS drives. Delete it anyway?") != 1)
      return false;
  } else {
    size_t count = 0;
    for (const PartitionNode* n : logicalDrives(layout))
      if (n->extendedContainer() == &node) ++count;
    if (count > 0 && message(mkQuestionPrompted, "The extended DOS partition contains %d logical DOS drive%s. Delete it anyway?",
                             static_cast<int>(count), count == 1 ? "" : "s") != 1)
      return false;
  }
  if (!wipeNode(disk, node, wipeMode, customCount, "Cannot wipe extended DOS partition -- %s")) return false;
  return removeNode(disk, node, "Cannot delete extended DOS partition -- %s");
}

bool deleteLogicalDos(FixedDisk& disk, PartitionNode& node, WipeMode wipeMode, unsigned customCount) {
  if (!wipeNode(disk, node, wipeMode, customCount, "Cannot wipe logical DOS drive -- %s")) return false;
  return removeNode(disk, node, "Cannot delete logical DOS drive -- %s");
}

bool deleteNonDos(FixedDisk& disk, PartitionNode& node, WipeMode wipeMode, unsigned customCount) {
  const bool lastActive = disk.drive->isBootDisk() && node.role == PartitionRole::Primary &&
                          onlyActivePrimary(*disk.layout, node);
  if (!wipeNode(disk, node, wipeMode, customCount, "Cannot wipe Non-DOS partition -- %s")) return false;
  if (!removeNode(disk, node, "Cannot delete Non-DOS partition -- %s")) return false;
  if (lastActive) reportNotStartable(disk);
  return true;
}

bool deleteAllPartitions(FixedDisk& disk, WipeMode wipeMode, unsigned customCount) {
  PartitionedDisk& layout = *disk.layout;
  std::vector<PartitionNode*> nodes = layout.displayList();
  if (nodes.empty()) {
    message(mkError, "No partitions to delete");
    return false;
  }
  // Every partition must be free to change before the first sector is touched.
  try {
    for (const PartitionNode* n : nodes) disk.drive->prepareForChange(n->firstBlock, n->blockCount);
  } catch (const Error& e) {
    message(mkError, wipeMode != wmNone ? "Cannot wipe partition(s) -- %s" : "Cannot delete partition(s) -- %s",
            e.text().c_str());
    return false;
  }
  if (wipeMode != wmNone) {
    for (size_t i = 0; i < nodes.size(); ++i) {
      const PartitionNode& n = *nodes[i];
      // An extended partition's own sectors are its boot records and the gaps between its
      // logical drives; the drives are wiped under their own headings.
      std::vector<WipeExtent> keep;
      if (n.role == PartitionRole::Extended)
        for (const PartitionNode* l : nodes)
          if (l->extendedContainer() == &n) keep.push_back({l->firstBlock - n.firstBlock, l->blockCount});
      print("Wiping Partition %u:\n", static_cast<unsigned>(i + 1));
      if (!wipeNode(disk, n, wipeMode, customCount, "Cannot wipe partition(s) -- %s", keep)) return false;
    }
  }
  try {
    layout.removeAll();
  } catch (const Error& e) {
    message(mkError, "Cannot delete partition(s) -- %s", e.text().c_str());
    return false;
  }
  if (!layout.lastWarning().empty()) message(mkWarning, "%s", layout.lastWarning().c_str());
  try {
    layout.reload();
  } catch (const Error& e) {
    message(mkError, "Cannot reload partition table -- %s", e.text().c_str());
    return true;
  }
  printDiskStatus(disk, nullptr);
  return true;
}

int commandDelete(SwitchSet& set) {
  if (!set.validate({&swDEL, &swDelPRI, &swDelEXT, &swDelLOG, &swDelP, &swALL, &swQWIPE, &swDODWIPE, &swCUSTOMWIPE, &swR,
                     &swX, &swI, &swU, &swS, &swY, &swSURE, &swDIAG})) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }

  std::string priValue, extValue, logValue, pValue;
  bool priHas = false, extHas = false, logHas = false, pHas = false;
  const bool pri = set.isPresent(swDelPRI, &priValue, &priHas);
  const bool ext = set.isPresent(swDelEXT, &extValue, &extHas);
  const bool log = set.isPresent(swDelLOG, &logValue, &logHas);
  const bool byNumber = set.isPresent(swDelP, &pValue, &pHas);
  const bool all = set.isPresent(swALL);
  const int kinds = int{pri} + int{ext} + int{log} + int{byNumber} + int{all};
  if (kinds > 1) {
    message(mkError, "Conflicting switches. Specify one of /PRI, /EXT, /LOG, /P, or /ALL");
    return 2;
  }
  if (kinds == 0) {
    message(mkError, "Required switch missing. Specify one of /PRI, /EXT, /LOG, /P, or /ALL");
    return 2;
  }

  int number = 0;  // 0: the first of its kind
  struct NumberSwitch {
    bool present, hasValue;
    const std::string& value;
    const char* invalid;
  } const numbered[] = {{pri, priHas, priValue, "Invalid primary DOS partition number -- %s"},
                        {ext, extHas, extValue, "Invalid extended DOS partition number -- %s"},
                        {log, logHas, logValue, "Invalid logical DOS drive number -- %s"},
                        {byNumber, pHas, pValue, "Invalid partition number -- %s"}};
  for (const NumberSwitch& s : numbered) {
    if (!s.present || !s.hasValue) continue;
    if (!scanPositiveNumber(s.value, number)) {
      message(mkError, s.invalid, s.value.c_str());
      return 2;
    }
  }

  std::string customValue;
  const bool quick = set.isPresent(swQWIPE), dod = set.isPresent(swDODWIPE),
             custom = set.isPresent(swCUSTOMWIPE, &customValue);
  if (int{quick} + int{dod} + int{custom} > 1) {
    message(mkError, "Conflicting switches. Specify one of /QWIPE, /DODWIPE, or /CUSTOMWIPE");
    return 2;
  }
  WipeMode wipeMode = quick ? wmQuick : dod ? wmDod : custom ? wmCustom : wmNone;
  int customCount = 0;
  if (custom && (!scanPositiveNumber(customValue, customCount) || customCount > 100)) {
    message(mkError, "Invalid custom wipe passes -- %s", customValue.c_str());
    return 2;
  }

  const uint32_t index = parseDiskNumber(set);
  if (index == kNoDisk) return 2;
  FixedDisk* disk = findDisk(index);
  if (!disk) return 1;  // findDisk has said why; it returns only disks that were read
  PartitionedDisk& layout = *disk->layout;
  const unsigned passes = static_cast<unsigned>(customCount);

  bool ok = false;
  if (all) {
    ok = deleteAllPartitions(*disk, wipeMode, passes);
  } else if (byNumber) {
    PartitionNode* node = layout.byDisplayNumber(static_cast<unsigned>(number));
    if (!node) {
      message(mkError, "Invalid partition number -- %d", number);
      return 1;
    }
    if (node->extendedContainer())
      ok = deleteLogicalDos(*disk, *node, wipeMode, passes);
    else if (isPrimaryDos(layout, *node))
      ok = deletePrimaryDos(*disk, *node, wipeMode, passes);
    else if (node == dosExtendedPartition(layout))
      ok = deleteExtendedDos(*disk, *node, wipeMode, passes);
    else
      ok = deleteNonDos(*disk, *node, wipeMode, passes);
  } else {
    std::vector<PartitionNode*> candidates;
    const char *none, *beyond;
    if (pri) {
      for (PartitionNode* n : layout.displayList())
        if (isPrimaryDos(layout, *n)) candidates.push_back(n);
      none = "No primary DOS partition to delete";
      beyond = "Invalid primary DOS partition number -- %d";
    } else if (ext) {
      if (PartitionNode* n = dosExtendedPartition(layout)) candidates.push_back(n);
      none = "No extended DOS partition to delete";
      beyond = "Invalid extended DOS partition number -- %d";
    } else {
      candidates = logicalDrives(layout);
      none = "No logical drive(s) to delete";
      beyond = "Invalid logical drive number -- %d";
    }
    if (candidates.empty()) {
      message(mkError, "%s", none);
      return 1;
    }
    if (number > static_cast<int>(candidates.size())) {
      message(mkError, beyond, number);
      return 1;
    }
    PartitionNode& node = *candidates[number ? number - 1 : 0];
    ok = pri ? deletePrimaryDos(*disk, node, wipeMode, passes)
             : ext ? deleteExtendedDos(*disk, node, wipeMode, passes) : deleteLogicalDos(*disk, node, wipeMode, passes);
  }
  return ok ? 0 : 1;
}

}  // namespace Kdisk
