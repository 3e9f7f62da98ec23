// /DEL: removes one partition, the extended partition with its logical drives, or every
// partition of a disk, optionally wiping the sectors first.
#include <algorithm>

#include "app/CmdDelete.h"
#include "app/Commands.h"
#include "app/PartitionCommands.h"
#include "app/CmdStatus.h"
#include "app/TableBackups.h"
#include "core/Error.h"
#include "core/Message.h"
#include "disk/Wipe.h"

namespace Kdisk {

using namespace Corvo::Core;
using Corvo::Disk::PartitionedDisk;
using Corvo::Disk::PartitionNode;
using Corvo::Disk::PartitionRole;
using Corvo::Disk::WipeExtent;
using Corvo::Disk::WipeMode;
using Corvo::Disk::wmCustom;
using Corvo::Disk::wmDod;
using Corvo::Disk::wmNone;
using Corvo::Disk::wmQuick;

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

// The logical drives of an extended partition: in the display list they follow it at once
// (found in one pass, not by walking each drive's chain back to its container).
std::vector<const PartitionNode*> drivesOf(const std::vector<PartitionNode*>& list, const PartitionNode& extended) {
  std::vector<const PartitionNode*> out;
  auto it = std::find(list.begin(), list.end(), &extended);
  if (it != list.end())
    for (++it; it != list.end() && (*it)->isLogical(); ++it) out.push_back(*it);
  return out;
}

// True when removing the node leaves no partition active: its own flag goes with it, whatever
// its type, so only the other primaries count.
bool removalLeavesNoneActive(const PartitionedDisk& disk, const PartitionNode& node) {
  return node.active && !anotherActivePrimary(disk, node);
}

// Wipes the node (its logical drives' data areas left out when `keep` lists them).
bool wipeNode(FixedDisk& disk, const PartitionNode& node, WipeMode wipeMode, unsigned customCount, const char* failText,
              const std::vector<WipeExtent>& keep = {}) {
  if (wipeMode == wmNone) return true;
  if (!backUpTables(disk, failText)) return false;
  try {
    std::vector<WipeExtent> failed =
        wipePartition(*disk.layout, node.firstBlock, node.blockCount, wipeMode, customCount, keep);
    // Sectors left unwritten make the wipe a failed one: the table stays as it is.
    if (!failed.empty()) {
      const std::string text = reportUnwrittenSectors(failed, displayNumberOf(*disk.layout, node), disk.index + 1);
      message(mkError, failText, text.c_str());
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
  } catch (const Error& e) {
    message(mkError, failText, e.text().c_str());
    return false;
  }
  if (!backUpTables(disk, failText)) return false;
  try {
    TableWatch watch(disk);
    layout.remove(node);
  } catch (const Error& e) {
    message(mkError, failText, e.text().c_str());
    return false;
  }
  // The partition is gone from the table: a table that cannot be read again costs only the
  // display.
  showChangedDisk(disk, layout.lastWarning(), &mark);
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
  const bool lastActive = bootDisk && removalLeavesNoneActive(layout, node);
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
    const size_t count = drivesOf(layout.displayList(), node).size();
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
                          removalLeavesNoneActive(*disk.layout, node);
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
    for (const PartitionNode* n : nodes) {
      if (wipeMode != wmNone) Corvo::Disk::requireOnDevice(*disk.drive, n->firstBlock, n->blockCount);
      disk.drive->prepareForChange(n->firstBlock, n->blockCount);
    }
  } catch (const Error& e) {
    message(mkError, wipeMode != wmNone ? "Cannot wipe partition(s) -- %s" : "Cannot delete partition(s) -- %s",
            e.text().c_str());
    return false;
  }
  if (!backUpTables(disk, wipeMode != wmNone ? "Cannot wipe partition(s) -- %s" : "Cannot delete partition(s) -- %s"))
    return false;
  if (wipeMode != wmNone) {
    for (size_t i = 0; i < nodes.size(); ++i) {
      const PartitionNode& n = *nodes[i];
      // An extended partition's own sectors are its boot records and the gaps between its
      // logical drives; the drives are wiped under their own headings.
      std::vector<WipeExtent> keep;
      if (n.role == PartitionRole::Extended)
        for (const PartitionNode* l : drivesOf(nodes, n)) keep.push_back({l->firstBlock - n.firstBlock, l->blockCount});
      print("Wiping Partition %u:\n", static_cast<unsigned>(i + 1));
      if (!wipeNode(disk, n, wipeMode, customCount, "Cannot wipe partition(s) -- %s", keep)) return false;
    }
  }
  try {
    TableWatch watch(disk);
    layout.removeAll();
  } catch (const Error& e) {
    message(mkError, "Cannot delete partition(s) -- %s", e.text().c_str());
    return false;
  }
  showChangedDisk(disk, layout.lastWarning(), nullptr);
  return true;
}

namespace {

// What /DEL was asked to do, as its switches say.
struct DeletionRequest {
  enum class Target { Primary, Extended, Logical, ByNumber, All } target = Target::All;
  int number = 0;  // 0: the first of its kind
  WipeMode wipeMode = wmNone;
  unsigned customCount = 0;
};

// Reads the switches into the request. Returns 0, or the exit code after saying what is wrong.
int parseDeletion(SwitchSet& set, DeletionRequest& request) {
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
  using Target = DeletionRequest::Target;
  request.target = pri ? Target::Primary : ext ? Target::Extended : log ? Target::Logical
                   : byNumber ? Target::ByNumber : Target::All;

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
    if (!scanPositiveNumber(s.value, request.number)) {
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
  request.wipeMode = quick ? wmQuick : dod ? wmDod : custom ? wmCustom : wmNone;
  int customCount = 0;
  if (custom && (!scanPositiveNumber(customValue, customCount) || customCount > 100)) {
    message(mkError, "Invalid custom wipe passes -- %s", customValue.c_str());
    return 2;
  }
  request.customCount = static_cast<unsigned>(customCount);
  return 0;
}

// Finds the partition the request names on the disk and deletes it. Returns the exit code.
int runDeletion(FixedDisk& disk, const DeletionRequest& request) {
  using Target = DeletionRequest::Target;
  PartitionedDisk& layout = *disk.layout;
  const int number = request.number;
  const WipeMode wipeMode = request.wipeMode;
  const unsigned passes = request.customCount;

  bool ok = false;
  if (request.target == Target::All) {
    ok = deleteAllPartitions(disk, wipeMode, passes);
  } else if (request.target == Target::ByNumber) {
    PartitionNode* node = layout.byDisplayNumber(static_cast<unsigned>(number));
    if (!node) {
      message(mkError, "Invalid partition number -- %d", number);
      return 1;
    }
    if (node->extendedContainer())
      ok = deleteLogicalDos(disk, *node, wipeMode, passes);
    else if (isPrimaryDos(layout, *node))
      ok = deletePrimaryDos(disk, *node, wipeMode, passes);
    else if (node == dosExtendedPartition(layout))
      ok = deleteExtendedDos(disk, *node, wipeMode, passes);
    else
      ok = deleteNonDos(disk, *node, wipeMode, passes);
  } else {
    std::vector<PartitionNode*> candidates;
    const char *none, *beyond;
    if (request.target == Target::Primary) {
      for (PartitionNode* n : layout.displayList())
        if (isPrimaryDos(layout, *n)) candidates.push_back(n);
      none = "No primary DOS partition to delete";
      beyond = "Invalid primary DOS partition number -- %d";
    } else if (request.target == Target::Extended) {
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
    ok = request.target == Target::Primary    ? deletePrimaryDos(disk, node, wipeMode, passes)
         : request.target == Target::Extended ? deleteExtendedDos(disk, node, wipeMode, passes)
                                              : deleteLogicalDos(disk, node, wipeMode, passes);
  }
  return ok ? 0 : 1;
}

}  // namespace

int commandDelete(SwitchSet& set) {
  DeletionRequest request;
  if (int rc = parseDeletion(set, request)) return rc;
  const uint32_t index = parseDiskNumber(set);
  if (index == kNoDisk) return 2;
  FixedDisk* disk = findDisk(index);
  if (!disk) return 1;  // findDisk has said why; it returns only disks that were read
  return runDeletion(*disk, request);
}

}  // namespace Kdisk
