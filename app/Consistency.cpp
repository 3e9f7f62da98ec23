#include "app/Consistency.h"

#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <map>

#include "core/Message.h"

namespace Kdisk {

using Corvo::Core::message;
using Corvo::Core::mkInformation;
using Corvo::Disk::PartitionedDisk;
using Corvo::Disk::PartitionNode;
using Corvo::Disk::PartitionRole;

namespace {

// Sector ranges over one disk (sectors 0 to length - 1). A range that overlaps one already
// held is refused.
class RangeSet {
 public:
  explicit RangeSet(uint64_t length) : length_(length) {}
  // False (and nothing added) when [first, last] overlaps a held range or leaves the disk.
  bool add(uint64_t first, uint64_t last) {
    if (first > last || last >= length_) return false;
    auto next = ranges_.upper_bound(first);
    if (next != ranges_.end() && next->first <= last) return false;
    if (next != ranges_.begin() && std::prev(next)->second >= first) return false;
    ranges_.emplace(first, last);
    return true;
  }

 private:
  uint64_t length_;
  std::map<uint64_t, uint64_t> ranges_;  // first -> last
};

struct Findings {
  bool tableOverlap = false, driveOverlap = false;
  unsigned pastEnd = 0, outsideExtended = 0, outsideAuxiliary = 0;
  unsigned active = 0, activeNotBootable = 0, emptyAuxiliary = 0;
};

class Checker {
 public:
  explicit Checker(uint64_t length) : length_(length), tables_(length), drives_(length) {}

  void visit(const PartitionNode& node) {
    if (node.blockCount) check(node);
    for (const auto& child : node.children) visit(*child);
  }
  const Findings& findings() const { return f_; }

 private:
  void check(const PartitionNode& node) {
    const uint64_t last = node.lastBlock();
    if (node.firstBlock < length_) {
      const uint64_t clipped = last < length_ ? last : length_ - 1;
      // Logical drives and the link entries of the extended chain live in extended boot
      // records, not in the master boot record's table.
      const bool inMasterTable = !node.isLogical() && node.role != PartitionRole::Auxiliary;
      if (inMasterTable && !tables_.add(node.firstBlock, clipped)) f_.tableOverlap = true;
      if (!node.isExtendedType() && !drives_.add(node.firstBlock, clipped)) f_.driveOverlap = true;
    }
    if (last >= length_) ++f_.pastEnd;
    if (node.role == PartitionRole::Extended && !node.parent) countOutside(node, node);
    if (node.isLogical() && node.parent && node.parent->role == PartitionRole::Auxiliary &&
        (node.firstBlock < node.parent->firstBlock || last > node.parent->lastBlock()))
      ++f_.outsideAuxiliary;
    if (node.active) {
      ++f_.active;
      if (node.isLogical() || node.isExtendedType()) ++f_.activeNotBootable;
    }
    if (node.role == PartitionRole::Auxiliary) {
      bool inUse = false;
      for (const auto& child : node.children)
        if (child->role != PartitionRole::Auxiliary) inUse = true;
      if (!inUse && node.children.size() < 2) ++f_.emptyAuxiliary;
    }
  }

  // Every partition of the extended partition's chain that starts before it or ends after it.
  void countOutside(const PartitionNode& extended, const PartitionNode& node) {
    for (const auto& child : node.children) {
      if (child->blockCount && (child->firstBlock < extended.firstBlock || child->lastBlock() > extended.lastBlock()))
        ++f_.outsideExtended;
      countOutside(extended, *child);
    }
  }

  uint64_t length_;
  RangeSet tables_, drives_;
  Findings f_;
};

// One finding as information; sets printed.
void report(bool& printed, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;
void report(bool& printed, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  message(mkInformation, "%s", text);
  printed = true;
}

}  // namespace

bool checkPartitionTables(const PartitionedDisk& disk, uint32_t diskIndex, bool isBootDisk) {
  const int number = static_cast<int>(diskIndex) + 1;
  Checker checker(disk.drive().blockCount());
  for (const auto& root : disk.roots()) checker.visit(*root);
  const Findings& f = checker.findings();
  const auto& facts = disk.facts();
  bool printed = false;

  if (f.driveOverlap)
    report(printed, "Fixed disk %d has overlapping drives", number);
  else if (f.tableOverlap)
    report(printed, "Fixed disk %d has overlapping MBR partitions", number);
  if (f.pastEnd) report(printed, "Fixed disk %d has partition(s) that extend past the end of the disk", number);
  if (f.outsideExtended)
    report(printed, "Fixed disk %d has logical DOS drive(s) that extend past the end of the extended DOS partition",
           number);
  else if (f.outsideAuxiliary)
    report(printed, "Fixed disk %d has logical DOS drive(s) that extend past the end of their auxiliary partitions",
           number);
  // GPT disks have no active flag; only MBR disks are checked for one.
  if (disk.scheme() == Corvo::Disk::PartitionScheme::Mbr) {
    if (isBootDisk && f.active == 0 && !disk.roots().empty())
      report(printed, "Fixed disk %d does not have an active partition", number);
    if (f.active > 1) report(printed, "Fixed disk %d has %d active partitions", number, static_cast<int>(f.active));
  }
  if (f.activeNotBootable) report(printed, "Fixed disk %d has an active partition that is not bootable", number);
  if (f.emptyAuxiliary)
    report(printed, "Fixed disk %d has empty auxiliary partition(s) that are consuming disk space unnecessarily",
           number);
  if (facts.nonZeroUnusedEntry)
    report(printed,
           "Fixed disk %d has unused partition table entries that contain non-zero bytes -- this may indicate "
           "corruption of the partition table",
           number);
  if (facts.extendedDosCount > 1)
    report(printed, "Fixed disk %d has %d extended DOS partitions", number, static_cast<int>(facts.extendedDosCount));
  for (const std::string& problem : facts.problems) report(printed, "Fixed disk %d: %s", number, problem.c_str());
  return printed;
}

}  // namespace Kdisk
