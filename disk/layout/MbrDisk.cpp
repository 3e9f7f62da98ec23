#include "disk/layout/MbrDisk.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "core/Error.h"
#include "core/Interrupt.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "disk/layout/PartitionTypes.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;
using Core::format;

uint64_t PartitionNodeBiosPartitionContainerEbr::usedEnd() const {
  uint64_t end = block_ + 1;
  if (logical) end = std::max(end, logical->firstBlock + logical->blockCount);
  return end;
}

std::unique_ptr<PartitionNode> PartitionNodeBiosPartitionContainer::makePartitionFromSlot(unsigned slot,
                                                                                          PartitionRole role) const {
  auto node = std::make_unique<PartitionNode>();
  auto [first, count] = getSlotBlockRange(slot);
  node->role = role;
  node->firstBlock = first;
  node->blockCount = count;
  node->type = record_.getType(slot);
  node->active = record_.isActive(slot);
  node->tableBlock = block_;
  node->slot = static_cast<int>(slot);
  return node;
}

namespace {

constexpr uint64_t kMbrAddressLimit = 0xFFFFFFFFull;  // slots hold 32-bit starts and counts
constexpr uint8_t kLinkType = kTypeExtended;

// Extended types with their hidden forms.
bool anyExtendedType(uint8_t type) { return isExtendedClassType(visibleFormOfType(type)); }

struct Range {
  uint64_t first, end;  // [first, end)
};

uint64_t roundUp(uint64_t v, uint64_t unit) { return (v + unit - 1) / unit * unit; }
uint64_t roundDown(uint64_t v, uint64_t unit) { return v / unit * unit; }

// One chain of extended boot records.
struct Chain {
  PartitionNode* extended = nullptr;
  std::vector<std::unique_ptr<PartitionNodeBiosPartitionContainerEbr>> records;  // chain order
  // Why the chain cannot be edited (empty: it can): it was not read to its end, or it overlaps
  // the master boot record or itself. Its records are then never relinked or rewritten.
  std::string damage;
};

// Where a new partition goes: its boot record (logical drives) and its data.
struct Placement {
  uint64_t record = 0;
  uint64_t first = 0;
  uint64_t count = 0;
};

class MbrDisk : public PartitionedDisk {
 public:
  explicit MbrDisk(DiskDrive& drive) : PartitionedDisk(drive) { readTables(); }

  PartitionScheme scheme() const override { return PartitionScheme::Mbr; }
  const char* kindName() const override { return "MBR"; }
  TableCapabilities capabilities() const override { return {true, true, true, true}; }
  const std::vector<std::unique_ptr<PartitionNode>>& roots() const override { return roots_; }
  const TableFacts& facts() const override { return facts_; }
  std::vector<RawBootRecord> rawTables() const override;
  void reload() override { readTables(); }
  uint64_t blocksBeyondReach() const override {
    return drive().blockCount() > kMbrAddressLimit ? drive().blockCount() - kMbrAddressLimit : 0;
  }

  unsigned slotCount() const override { return 4; }
  unsigned primarySlotsInUse() const override { return static_cast<unsigned>(roots_.size()); }
  PartitionNode* createPrimary(CreationRequest& request) override { return createInMaster(request, false); }
  PartitionNode* createExtended(CreationRequest& request) override { return createInMaster(request, true); }
  PartitionNode* createLogical(CreationRequest& request) override;
  void remove(PartitionNode& node) override;
  void removeAll() override;
  void setActive(PartitionNode& node) override;
  void clearActive(PartitionNode& node) override;
  void setType(PartitionNode& node, uint8_t type) override;

 private:
  void readTables();
  void readChain(PartitionNode& extended);
  // What the first entry of an extended boot record holds, read before anything is built from it.
  struct LogicalEntry {
    bool isDrive = false;  // a logical drive to add
    bool unused = false;   // a non-zero entry that holds nothing
    std::string problem;   // why the entry is ignored
  };
  static LogicalEntry parseLogicalEntry(const PartitionNodeBiosPartitionContainerEbr& container);
  void problem(std::string text) { facts_.problems.push_back(std::move(text)); }

  // Editing helpers.
  void beginChange();
  void finishChange();
  // Refuses (InUse) before anything is written when the sectors are in use by the system.
  void guard(uint64_t first, uint64_t count) { drive().prepareForChange(first, count); }
  // Makes every write so far durable before a write that makes it reachable.
  void barrier() { drive().flush(); }
  void requireIntact(const Chain& chain) const;
  void writeRecord(uint64_t block, const BiosBootRecord& record);
  void clearRecords(const std::vector<uint64_t>& blocks, const PartitionNode* removed,
                    const PartitionNodeBootRecord* removedRecord);
  BiosBootRecord masterForWriting() const;
  std::vector<Range> occupied(const PartitionNode* except, bool keepFirstRecord) const;
  std::vector<Range> freeIntervals(std::vector<Range> used, uint64_t lo, uint64_t hi) const;
  std::optional<Placement> place(const CreationRequest& request, const std::vector<Range>& freeList, bool logical,
                                 uint64_t extendedStart, uint64_t& largest) const;
  void checkNoOverlap(const Range& range, const std::vector<Range>& used) const;
  uint8_t chooseType(const CreationRequest& request, uint64_t first, uint64_t count, bool lbaAllowed) const;
  bool beyondChs(uint64_t block) const {
    const Geometry& g = drive().geometry();
    return block / (uint64_t{g.heads} * g.sectorsPerTrack) >= 1024;
  }
  PartitionNode* createInMaster(CreationRequest& request, bool extended);
  Chain* chainOf(const PartitionNode* extended);
  void locate(const PartitionNode& node, Chain*& chain, size_t& index) const;
  // Rewrites the chain record holding the entry of a logical drive (its own record) or of a
  // link (the record before the one it points to), after `edit` changed it; the chain must
  // be intact and the record's sector not in use.
  void rewriteHolder(const PartitionNode& node, const std::function<void(BiosBootRecord&)>& edit);
  uint64_t linkCount(const PartitionNodeBiosPartitionContainerEbr& target) const { return target.usedEnd() - target.block(); }
  // The tables as the system is told them.
  OsLayout osLayout() const override;

  std::unique_ptr<PartitionNodeBiosPartitionContainerMaster> master_;
  bool masterValid_ = false;
  std::vector<std::unique_ptr<PartitionNode>> roots_;
  std::vector<Chain> chains_;
  TableFacts facts_;
};

// ---------------------------------------------------------------------------------------------
// Reading

void MbrDisk::readTables() {
  Core::TraceScope scope("loadPartitions");
  roots_.clear();
  chains_.clear();
  facts_ = TableFacts{};
  const std::vector<uint8_t> sector0 = drive().readSector(0);
  master_ = std::make_unique<PartitionNodeBiosPartitionContainerMaster>(BiosBootRecord(true, 4, sector0.data()));
  const BiosBootRecord& mbr = master_->record();
  masterValid_ = mbr.hasSignature();
  if (!masterValid_) {
    // A disk that was never partitioned reads as all zeros; anything else is damage.
    if (!mbr.isAllZero())
      problem("The master boot record has no 0xAA55 signature; the disk is treated as having no partitions");
    return;
  }
  const uint64_t diskBlocks = drive().blockCount();
  for (unsigned slot = 0; slot < 4; ++slot) {
    if (mbr.isSlotEmpty(slot)) continue;
    const uint8_t type = mbr.getType(slot);
    if (type == 0) {
      facts_.nonZeroUnusedEntry = true;
      continue;
    }
    auto [first, count] = master_->getSlotBlockRange(slot);
    if (count == 0) {
      facts_.nonZeroUnusedEntry = true;
      problem(format("Partition table entry %u (type 0x%02X) has no sectors and is ignored", slot + 1, type));
      continue;
    }
    auto node = anyExtendedType(type) ? master_->createContainerInSlot(slot, PartitionRole::Extended)
                                      : master_->makePartitionFromSlot(slot, PartitionRole::Primary);
    if (node->isDosExtended()) ++facts_.extendedDosCount;
    if (first == 0) problem(format("Partition table entry %u starts inside the master boot record", slot + 1));
    if (first >= diskBlocks)
      problem(format("Partition table entry %u starts at sector %" PRIu64 ", beyond the end of the disk", slot + 1, first));
    roots_.push_back(std::move(node));
  }
  for (auto& root : roots_)
    if (isExtendedClassType(root->type)) readChain(*root);
}

MbrDisk::LogicalEntry MbrDisk::parseLogicalEntry(const PartitionNodeBiosPartitionContainerEbr& container) {
  LogicalEntry entry;
  const BiosBootRecord& rec = container.record();
  if (rec.isSlotEmpty(0)) return entry;
  const uint8_t type = rec.getType(0);
  const uint64_t block = container.block();
  if (type == 0) {
    entry.unused = true;
  } else if (container.getSlotBlockRange(0).second == 0) {
    entry.unused = true;
    entry.problem = format("The logical drive entry at sector %" PRIu64 " has no sectors and is ignored", block);
  } else if (anyExtendedType(type) && !container.mayHoldExtended(0)) {
    entry.problem = format("The extended boot record at sector %" PRIu64 " holds an extended type in its first entry",
                           block);
  } else {
    entry.isDrive = true;
  }
  return entry;
}

void MbrDisk::readChain(PartitionNode& extended) {
  const uint64_t start = extended.firstBlock;
  const uint64_t end = start + extended.blockCount;
  const uint64_t diskBlocks = drive().blockCount();
  Chain chain;
  chain.extended = &extended;
  std::set<uint64_t> seen;            // record sectors of this chain
  std::map<uint64_t, uint64_t> drives;  // first -> last sector of the drives read so far
  auto insideDrive = [&](uint64_t b) {
    auto it = drives.upper_bound(b);
    return it != drives.begin() && std::prev(it)->second >= b;
  };
  // A stop for damage: what was read is shown, the chain itself is not edited.
  auto damaged = [&](std::string text) {
    if (chain.damage.empty()) chain.damage = text;
    problem(std::move(text));
  };
  PartitionNode* holder = &extended;
  uint64_t block = start;
  // Every record lies inside the extended partition and none repeats, so the chain ends.
  for (size_t n = 0;; ++n) {
    if (block == 0) {
      damaged("The chain of extended boot records reaches the master boot record");
      break;
    }
    if (block >= diskBlocks) {
      damaged(format("The extended boot record at sector %" PRIu64 " lies beyond the end of the disk", block));
      break;
    }
    if (!seen.insert(block).second) {
      damaged(format("The chain of extended boot records loops back to sector %" PRIu64, block));
      break;
    }
    if (insideDrive(block)) {
      damaged(format("The extended boot record at sector %" PRIu64 " lies inside a logical drive of its own chain",
                     block));
      break;
    }
    std::vector<uint8_t> buf;
    try {
      buf = drive().readSector(block);
    } catch (const Error& e) {
      damaged(format("The extended boot record at sector %" PRIu64 " cannot be read -- %s", block, e.what()));
      break;
    }
    BiosBootRecord rec(true, 4, buf.data());
    if (!rec.hasSignature()) {
      // An extended partition whose first record was never written is simply empty.
      if (n > 0 || !rec.isAllZero())
        damaged(format("The extended boot record at sector %" PRIu64 " has no 0xAA55 signature", block));
      break;
    }
    std::unique_ptr<PartitionNodeBiosPartitionContainerEbr> container;
    if (n == 0)
      container = std::make_unique<PartitionNodeBiosPartitionContainerExtended>(block, rec, start);
    else
      container = std::make_unique<PartitionNodeBiosPartitionContainerAuxiliary>(block, rec, start);
    container->holder = holder;

    const LogicalEntry entry = parseLogicalEntry(*container);
    if (entry.unused) facts_.nonZeroUnusedEntry = true;
    if (!entry.problem.empty()) problem(entry.problem);
    if (entry.isDrive) {
      auto node = container->makePartitionFromSlot(0, PartitionRole::Logical);
      node->parent = holder;
      const uint64_t first = node->firstBlock, last = node->lastBlock();
      auto record = seen.lower_bound(first);
      if (first == block) {
        problem(format("The logical drive at sector %" PRIu64 " starts on its own extended boot record", block));
        if (chain.damage.empty()) chain.damage = facts_.problems.back();
      } else if (record != seen.end() && *record <= last && chain.damage.empty()) {
        damaged(format("The logical drive at sector %" PRIu64 " covers the extended boot record at sector %" PRIu64
                       " of its own chain",
                       first, *record));
      }
      drives[first] = std::max(drives[first], last);
      container->logical = node.get();
      holder->children.push_back(std::move(node));
    }
    if (!rec.isSlotEmpty(2) || !rec.isSlotEmpty(3)) facts_.nonZeroUnusedEntry = true;

    const bool hasLink = !rec.isSlotEmpty(1);
    const uint8_t linkType = rec.getType(1);
    auto [next, linkBlocks] = container->getSlotBlockRange(1);
    PartitionNodeBiosPartitionContainerEbr* current = container.get();
    chain.records.push_back(std::move(container));
    if (!hasLink) break;
    if (linkType == 0) {
      facts_.nonZeroUnusedEntry = true;
      break;
    }
    if (!isExtendedClassType(linkType)) {
      damaged(format("The extended boot record at sector %" PRIu64
                     " holds a partition of type 0x%02X where the link to the next record belongs",
                     block, linkType));
      break;
    }
    if (next < start || next >= end) {
      damaged(format("The extended boot record at sector %" PRIu64 " links to sector %" PRIu64
                     ", outside the extended partition",
                     block, next));
      break;
    }
    if (linkBlocks == 0) {
      damaged(format("The link in the extended boot record at sector %" PRIu64 " has no sectors", block));
      break;
    }
    auto aux = current->createContainerInSlot(1, PartitionRole::Auxiliary);
    aux->parent = holder;
    current->link = aux.get();
    PartitionNode* auxPtr = aux.get();
    holder->children.push_back(std::move(aux));
    holder = auxPtr;
    block = next;
  }
  chains_.push_back(std::move(chain));
}

std::vector<RawBootRecord> MbrDisk::rawTables() const {
  std::vector<RawBootRecord> out;
  RawBootRecord mbr;
  mbr.block = 0;
  std::copy_n(master_->record().data(), mbr.bytes.size(), mbr.bytes.begin());
  out.push_back(mbr);
  for (const Chain& c : chains_)
    for (const auto& r : c.records) {
      RawBootRecord raw;
      raw.block = r->block();
      std::copy_n(r->record().data(), raw.bytes.size(), raw.bytes.begin());
      out.push_back(raw);
    }
  return out;
}

// ---------------------------------------------------------------------------------------------
// Editing helpers

void MbrDisk::beginChange() {
  lastWarning_.clear();
  drive().requireSectorSize();
  // Every change rewrites the master boot record or a record it reaches: a disk that holds a
  // mounted filesystem of its own (or is held by another program) is never written.
  guard(0, 1);
}

void MbrDisk::requireIntact(const Chain& chain) const {
  if (!chain.damage.empty())
    throw Error(ErrorId::InvalidTable,
                "The chain of extended boot records is damaged and is left as it is (" + chain.damage + ")");
}

void MbrDisk::writeRecord(uint64_t block, const BiosBootRecord& record) {
  Core::TraceScope scope("writeBootRecord");
  drive().writeRecord(block, record.data(), BiosBootRecord::kSize);
}

// Zeroes boot records that left the chain, except a sector that still belongs to something
// that stays (possible only on tables that already overlapped): a record of another chain or
// a partition that is not removed. What stays is gathered once, so a chain of any length is
// cleared in one pass.
void MbrDisk::clearRecords(const std::vector<uint64_t>& blocks, const PartitionNode* removed,
                           const PartitionNodeBootRecord* removedRecord) {
  std::vector<Range> kept;
  auto keep = [&](uint64_t first, uint64_t count) {
    if (count) kept.push_back({first, first + std::min(count, ~uint64_t{0} - first)});
  };
  for (const auto& root : roots_)
    if (root.get() != removed && !root->isExtendedType()) keep(root->firstBlock, root->blockCount);
  for (const Chain& c : chains_) {
    if (c.extended == removed) continue;  // the chain goes with its extended partition
    for (const auto& r : c.records) {
      if (r.get() != removedRecord) keep(r->block(), 1);
      if (r->logical && r->logical != removed) keep(r->logical->firstBlock, r->logical->blockCount);
    }
  }
  // Merged and sorted: a block is kept when the last range starting at or before it covers it.
  std::sort(kept.begin(), kept.end(), [](const Range& a, const Range& b) { return a.first < b.first; });
  std::vector<Range> merged;
  for (const Range& r : kept) {
    if (!merged.empty() && r.first <= merged.back().end)
      merged.back().end = std::max(merged.back().end, r.end);
    else
      merged.push_back(r);
  }
  auto isKept = [&](uint64_t block) {
    auto it = std::upper_bound(merged.begin(), merged.end(), block,
                               [](uint64_t b, const Range& r) { return b < r.first; });
    return it != merged.begin() && block < std::prev(it)->end;
  };
  const std::vector<uint8_t> zero(drive().bytesPerBlock(), 0);
  for (uint64_t block : blocks)
    if (block > 0 && block < drive().blockCount() && !isKept(block)) drive().write(block, 1, zero.data());
}

BiosBootRecord MbrDisk::masterForWriting() const {
  if (masterValid_) return master_->record();
  // A blank disk gets a fresh record: no boot code, a new disk signature.
  BiosBootRecord fresh(true, 4);
  fresh.setWindowsNtId(newDiskIdentifier());
  return fresh;
}

// Every area in use: the master boot record, every partition, every extended boot record with
// the gap up to its drive. `except` (an extended partition) is left out with its own chain's
// first record when that record holds no drive and keepFirstRecord is false.
std::vector<Range> MbrDisk::occupied(const PartitionNode* except, bool keepFirstRecord) const {
  std::vector<Range> used{{0, 1}};
  for (const auto& root : roots_)
    if (root.get() != except) used.push_back({root->firstBlock, root->firstBlock + root->blockCount});
  for (const Chain& c : chains_) {
    for (size_t i = 0; i < c.records.size(); ++i) {
      const auto& r = *c.records[i];
      if (c.extended == except && i == 0 && !r.logical && !keepFirstRecord) continue;
      if (r.logical && r.logical->firstBlock >= r.block()) {
        used.push_back({r.block(), r.usedEnd()});
      } else {
        used.push_back({r.block(), r.block() + 1});
        if (r.logical) used.push_back({r.logical->firstBlock, r.logical->firstBlock + r.logical->blockCount});
      }
    }
  }
  return used;
}

std::vector<Range> MbrDisk::freeIntervals(std::vector<Range> used, uint64_t lo, uint64_t hi) const {
  std::sort(used.begin(), used.end(), [](const Range& a, const Range& b) { return a.first < b.first; });
  std::vector<Range> out;
  uint64_t pos = lo;
  for (const Range& u : used) {
    if (u.end <= pos) continue;
    if (u.first >= hi) break;
    if (u.first > pos) out.push_back({pos, u.first});
    pos = std::max(pos, u.end);
    if (pos >= hi) break;
  }
  if (pos < hi) out.push_back({pos, hi});
  return out;
}

std::optional<Placement> MbrDisk::place(const CreationRequest& request, const std::vector<Range>& freeList,
                                        bool logical, uint64_t extendedStart, uint64_t& largest) const {
  const Geometry& g = drive().geometry();
  const bool chs = request.alignment == CreationRequest::kCylinderAlignment || request.alignment == 0;
  if (request.alignment < CreationRequest::kMegabyteAlignment)
    throw Error(ErrorId::InvalidArgument, "Invalid partition alignment").with("alignment", std::to_string(request.alignment));
  const uint64_t track = g.sectorsPerTrack;
  const uint64_t cylinder = uint64_t{g.heads} * g.sectorsPerTrack;
  const uint64_t megabyte = std::max<uint64_t>(1, drive().blocksOf(uint64_t{1} << 20));
  const uint64_t unit = chs                                                     ? cylinder
                        : request.alignment == CreationRequest::kMegabyteAlignment ? megabyte
                                                                                   : static_cast<uint64_t>(request.alignment);
  const uint64_t lead = logical ? (chs ? track : unit) : 0;      // the drive's boot record (<= unit)
  const uint64_t firstStart = chs ? track : unit;                 // the first primary
  const bool largestWanted = request.sizeBlocks == CreationRequest::kLargest;
  if (!largestWanted && request.sizeBlocks == 0) throw Error(ErrorId::InvalidArgument, "A partition cannot be empty");

  largest = 0;
  std::optional<Placement> best, fallback;
  uint64_t bestSize = 0;
  for (const Range& f : freeList) {
    uint64_t record;
    if (logical)
      record = f.first == extendedStart ? extendedStart : roundUp(f.first, unit);
    else
      record = f.first <= firstStart ? firstStart : roundUp(f.first, unit);
    // A logical drive's data starts on a boundary even when its boot record does not (the first
    // record sits at the start of an extended partition aligned otherwise).
    const uint64_t dataMin = logical && !chs ? roundUp(record + 1, unit) : record + lead;
    if (dataMin >= f.end) continue;
    const uint64_t maxEnd = chs ? roundDown(f.end, cylinder) : dataMin + roundDown(f.end - dataMin, unit);
    if (maxEnd <= dataMin) continue;
    const uint64_t available = maxEnd - dataMin;
    largest = std::max(largest, available);
    if (largestWanted) {
      if (available > bestSize) {
        bestSize = available;
        best = Placement{record, dataMin, available};
      }
      continue;
    }
    if (best) continue;  // a sized request takes the first free space that holds it
    const uint64_t n = request.sizeBlocks;
    if (n > available) {
      // A request that misses the free space by less than one alignment unit (rounding of a
      // size given in MB or per cent) gets the aligned part, unless a later free space holds it.
      if (!fallback && n <= f.end - f.first + (unit - lead)) fallback = Placement{record, dataMin, available};
      continue;
    }
    const uint64_t needEnd = chs ? roundUp(dataMin + n, cylinder) : dataMin + roundUp(n, unit);
    if (!request.placeAtEnd) {
      best = Placement{record, dataMin, needEnd - dataMin};
    } else if (chs) {
      uint64_t rec = maxEnd - n - lead;
      rec = std::max(record, roundDown(rec, cylinder));
      best = Placement{rec, rec + lead, maxEnd - rec - lead};
    } else {
      const uint64_t size = needEnd - dataMin;
      best = Placement{maxEnd - size - lead, maxEnd - size, size};
    }
  }
  return best ? best : fallback;
}

void MbrDisk::checkNoOverlap(const Range& range, const std::vector<Range>& used) const {
  if (range.end > drive().blockCount() || range.end <= range.first)
    throw Error(ErrorId::OutOfRange, "The new partition would extend past the end of the disk");
  for (const Range& u : used)
    if (range.first < u.end && u.first < range.end)
      throw Error(ErrorId::Overlap, "The new partition would overlap an existing partition")
          .with("first", std::to_string(range.first))
          .with("count", std::to_string(range.end - range.first));
}

uint8_t MbrDisk::chooseType(const CreationRequest& request, uint64_t first, uint64_t count, bool lbaAllowed) const {
  if (request.mbrType != kTypeUnused) return request.mbrType;
  // exFAT shares the installable-filesystem type with NTFS.
  if (request.formatKind == FormatKind::Ntfs || request.formatKind == FormatKind::Exfat) return kTypeNtfs;
  if (request.formatKind == FormatKind::Ext2) return kTypeLinux;
  // The size limits of the FAT types count 512-byte units.
  const uint64_t n = count * (drive().bytesPerBlock() / kSectorSize);
  const bool fat32Allowed = fat32Support && !ntFat16;
  if (lbaAllowed && beyondChs(first + count - 1)) {
    if (n < 32774)
      throw Error(ErrorId::InvalidArgument,
                  "A FAT12 partition cannot be placed beyond the cylinder limit of the disk");
    if (n < 8387873 && !(fat32Allowed && n >= 1048577)) return kTypeFat16Lba;
    return kTypeFat32Lba;
  }
  if (n < 32774) return kTypeFat12;
  if (n <= 65535) return kTypeFat16Small;
  if (n >= 1048577 && (n > 8387872 || fat32Allowed)) return kTypeFat32;
  return kTypeFat16;
}

OsLayout MbrDisk::osLayout() const {
  OsLayout layout;
  layout.style = OsLayout::Mbr;
  layout.signature = masterValid_ ? master_->record().getWindowsNtId() : 0;
  for (const auto& root : roots_) layout.entries.push_back(osLayoutEntry(*root, static_cast<uint32_t>(root->slot + 1)));
  uint32_t number = 5;
  for (const Chain& c : chains_)
    for (const auto& r : c.records)
      if (r->logical) {
        OsLayoutEntry e = osLayoutEntry(*r->logical, number++);
        e.container = false;         // a logical drive is never the container
        e.tableBlock = r->block();  // the extended boot record holding the drive
        layout.entries.push_back(e);
      }
  return layout;
}

void MbrDisk::finishChange() {
  drive().flush();
  readTables();
  reportLayout(osLayout());
}

Chain* MbrDisk::chainOf(const PartitionNode* extended) {
  for (Chain& c : chains_)
    if (c.extended == extended) return &c;
  return nullptr;
}

// Finds the chain record a logical drive or link node belongs to: for a drive the record
// holding it, for a link the record it points to.
void MbrDisk::locate(const PartitionNode& node, Chain*& chain, size_t& index) const {
  for (const Chain& c : chains_)
    for (size_t i = 0; i < c.records.size(); ++i) {
      const auto& r = *c.records[i];
      if (r.logical == &node || (i > 0 && c.records[i - 1]->link == &node)) {
        chain = const_cast<Chain*>(&c);
        index = i;
        return;
      }
    }
  throw Error(ErrorId::InvalidArgument, "The partition does not belong to this disk's tables");
}

void MbrDisk::rewriteHolder(const PartitionNode& node, const std::function<void(BiosBootRecord&)>& edit) {
  Chain* chain = nullptr;
  size_t index = 0;
  locate(node, chain, index);
  requireIntact(*chain);
  const auto& holder = node.role == PartitionRole::Logical ? *chain->records[index] : *chain->records[index - 1];
  guard(holder.block(), 1);
  BiosBootRecord rec = holder.record();
  edit(rec);
  writeRecord(holder.block(), rec);
}

// ---------------------------------------------------------------------------------------------
// Creating

PartitionNode* MbrDisk::createInMaster(CreationRequest& request, bool extended) {
  Core::TraceScope scope("createPartitionInSlot");
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  beginChange();
  request.largestAvailable = 0;
  if (extended)
    for (const auto& r : roots_)
      if (r->isDosExtended()) throw Error(ErrorId::InvalidArgument, "An extended DOS partition already exists");
  int slot = -1;
  for (unsigned s = 0; s < 4 && slot < 0; ++s) {
    bool used = std::any_of(roots_.begin(), roots_.end(), [&](const auto& r) { return r->slot == static_cast<int>(s); });
    if (!used) slot = static_cast<int>(s);
  }
  if (slot < 0) throw Error(ErrorId::NoSpace, "All four partition table entries are in use");

  const uint64_t hi = std::min(drive().blockCount(), kMbrAddressLimit);
  const std::vector<Range> used = occupied(nullptr, true);
  uint64_t largest = 0;
  auto placement = place(request, freeIntervals(used, 1, hi), false, 0, largest);
  if (!placement) {
    request.largestAvailable = largest;
    return nullptr;
  }
  checkNoOverlap({placement->first, placement->first + placement->count}, used);
  const Geometry& g = drive().geometry();
  uint8_t type;
  if (extended)
    type = beyondChs(placement->first + placement->count - 1) ? kTypeExtendedLba : kTypeExtended;
  else
    type = chooseType(request, placement->first, placement->count, true);

  guard(placement->first, placement->count);
  BiosBootRecord mbr = masterForWriting();
  mbr.setSlot(static_cast<unsigned>(slot), placement->first, placement->count, type, g.heads, g.sectorsPerTrack);
  if (extended) {
    // The chain's first record is on the disk before the entry that makes it reachable.
    writeRecord(placement->first, BiosBootRecord(true, 4));
    barrier();
  }
  writeRecord(0, mbr);
  finishChange();
  for (const auto& r : roots_)
    if (r->firstBlock == placement->first) return r.get();
  throw Error(ErrorId::InvalidTable, "The new partition is missing from the table read back");
}

PartitionNode* MbrDisk::createLogical(CreationRequest& request) {
  Core::TraceScope scope("createPartitionInSlot");
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  beginChange();
  request.largestAvailable = 0;
  PartitionNode* ext = nullptr;
  for (const auto& r : roots_)
    if (r->isDosExtended()) {
      ext = r.get();
      break;
    }
  if (!ext) throw Error(ErrorId::InvalidArgument, "No extended DOS partition exists");
  Chain* chain = chainOf(ext);
  if (!chain) throw Error(ErrorId::InvalidTable, "The extended DOS partition's chain could not be read");
  requireIntact(*chain);

  const uint64_t S = ext->firstBlock;
  const uint64_t hi = std::min(drive().blockCount(), S + ext->blockCount);
  const std::vector<Range> used = occupied(ext, false);
  uint64_t largest = 0;
  auto placement = S < hi ? place(request, freeIntervals(used, S, hi), true, S, largest) : std::nullopt;
  if (!placement) {
    request.largestAvailable = largest;
    return nullptr;
  }
  if (placement->record < S || placement->record - S > kMbrAddressLimit)
    throw Error(ErrorId::InvalidArgument, "The logical drive cannot be addressed from its extended partition");
  checkNoOverlap({placement->record, placement->first + placement->count}, used);
  const uint8_t type = chooseType(request, placement->first, placement->count, false);
  const Geometry& g = drive().geometry();
  guard(placement->record, placement->first + placement->count - placement->record);

  PartitionNodeBiosPartitionContainerEbr* firstRecord = chain->records.empty() ? nullptr : chain->records[0].get();
  if (placement->record == S) {
    // The free space begins at the extended partition: its first record takes the drive.
    BiosBootRecord rec = firstRecord ? firstRecord->record() : BiosBootRecord(true, 4);
    rec.setSlot(0, placement->first - S, placement->count, type, g.heads, g.sectorsPerTrack, S);
    writeRecord(S, rec);
  } else {
    // Link the new record after the one that precedes the free space.
    size_t prevIndex = 0;
    for (size_t i = 0; i < chain->records.size(); ++i)
      if (chain->records[i]->block() < placement->record &&
          chain->records[i]->block() >= chain->records[prevIndex]->block())
        prevIndex = i;
    const PartitionNodeBiosPartitionContainerEbr* next =
        firstRecord && prevIndex + 1 < chain->records.size() ? chain->records[prevIndex + 1].get() : nullptr;
    BiosBootRecord fresh(true, 4);
    fresh.setSlot(0, placement->first - placement->record, placement->count, type, g.heads, g.sectorsPerTrack,
                  placement->record);
    if (next) fresh.setSlot(1, next->block() - S, linkCount(*next), kLinkType, g.heads, g.sectorsPerTrack, S);
    BiosBootRecord prev = firstRecord ? chain->records[prevIndex]->record() : BiosBootRecord(true, 4);
    prev.setSlot(1, placement->record - S, placement->first + placement->count - placement->record, kLinkType, g.heads,
                 g.sectorsPerTrack, S);
    const uint64_t prevBlock = firstRecord ? chain->records[prevIndex]->block() : S;
    guard(prevBlock, 1);
    // The new record is on the disk before the link that makes it reachable.
    writeRecord(placement->record, fresh);
    barrier();
    writeRecord(prevBlock, prev);
  }
  finishChange();
  for (PartitionNode* n : displayList())
    if (n->isLogical() && n->firstBlock == placement->first) return n;
  throw Error(ErrorId::InvalidTable, "The new logical drive is missing from the table read back");
}

// ---------------------------------------------------------------------------------------------
// Removing and changing

void MbrDisk::remove(PartitionNode& node) {
  Core::TraceScope scope("doDeleteChild");
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  beginChange();
  const Geometry& g = drive().geometry();
  if (node.role == PartitionRole::Primary || node.role == PartitionRole::Extended) {
    if (std::none_of(roots_.begin(), roots_.end(), [&](const auto& r) { return r.get() == &node; }))
      throw Error(ErrorId::InvalidArgument, "The partition does not belong to this disk's tables");
    drive().prepareForChange(node.firstBlock, node.blockCount);
    BiosBootRecord mbr = master_->record();
    mbr.clearSlot(static_cast<unsigned>(node.slot));
    writeRecord(0, mbr);
    // The chain is unreachable once the entry is gone from the disk; then its records are
    // cleared so that no later extended partition finds stale drives.
    if (Chain* chain = chainOf(&node)) {
      barrier();
      std::vector<uint64_t> blocks;
      blocks.reserve(chain->records.size());
      for (const auto& r : chain->records) blocks.push_back(r->block());
      clearRecords(blocks, &node, nullptr);
    }
    finishChange();
    return;
  }
  Chain* chain = nullptr;
  size_t index = 0;
  locate(node, chain, index);
  requireIntact(*chain);
  const auto& rec = *chain->records[index];
  const uint64_t S = chain->extended->firstBlock;
  if (rec.logical) guard(rec.logical->firstBlock, rec.logical->blockCount);
  guard(rec.block(), 1);
  if (index > 0) guard(chain->records[index - 1]->block(), 1);
  if (index == 0) {
    if (node.role != PartitionRole::Logical) throw Error(ErrorId::InvalidArgument, "The partition cannot be removed");
    // The first record stays where the extended partition begins; only its drive goes.
    BiosBootRecord first = rec.record();
    first.clearSlot(0);
    writeRecord(rec.block(), first);
  } else {
    const auto& prevRec = *chain->records[index - 1];
    BiosBootRecord prev = prevRec.record();
    if (index + 1 < chain->records.size()) {
      const auto& next = *chain->records[index + 1];
      prev.setSlot(1, next.block() - S, linkCount(next), kLinkType, g.heads, g.sectorsPerTrack, S);
    } else {
      prev.clearSlot(1);
    }
    writeRecord(prevRec.block(), prev);  // unlink first
    barrier();
    clearRecords({rec.block()}, rec.logical, &rec);
  }
  finishChange();
}

void MbrDisk::removeAll() {
  Core::TraceScope scope("doDeleteChild");
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  beginChange();
  if (!masterValid_ || roots_.empty()) return;
  for (const auto& r : roots_) drive().prepareForChange(r->firstBlock, r->blockCount);
  BiosBootRecord mbr = master_->record();
  for (unsigned s = 0; s < 4; ++s) mbr.clearSlot(s);
  writeRecord(0, mbr);
  barrier();
  std::vector<uint64_t> stale;
  for (const Chain& c : chains_)
    for (const auto& r : c.records) stale.push_back(r->block());
  // Nothing remains that a record could lie inside.
  roots_.clear();
  chains_.clear();
  const std::vector<uint8_t> zero(drive().bytesPerBlock(), 0);
  for (uint64_t b : stale)
    if (b > 0 && b < drive().blockCount()) drive().write(b, 1, zero.data());
  finishChange();
}

void MbrDisk::setActive(PartitionNode& node) {
  Core::TraceScope scope("setActive");
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  beginChange();
  if (node.role != PartitionRole::Primary || node.tableBlock != 0)
    throw Error(ErrorId::InvalidArgument, "Only primary partitions can be set active");
  requireOnDevice(drive(), node.firstBlock, node.blockCount);
  BiosBootRecord mbr = master_->record();
  mbr.setActive(static_cast<unsigned>(node.slot));
  writeRecord(0, mbr);
  finishChange();
}

void MbrDisk::clearActive(PartitionNode& node) {
  Core::TraceScope scope("clearActive");
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  beginChange();
  if (node.tableBlock == 0) {
    BiosBootRecord mbr = master_->record();
    mbr.deactivate(static_cast<unsigned>(node.slot));
    writeRecord(0, mbr);
  } else {
    rewriteHolder(node, [&](BiosBootRecord& rec) { rec.deactivate(static_cast<unsigned>(node.slot)); });
  }
  finishChange();
}

void MbrDisk::setType(PartitionNode& node, uint8_t type) {
  Core::TraceScope scope("setType");
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  beginChange();
  if (type == 0) throw Error(ErrorId::InvalidArgument, "A partition cannot be given type 0");
  if (node.role == PartitionRole::Auxiliary)
    throw Error(ErrorId::InvalidArgument, "The type of a link entry cannot be changed");
  if (node.role == PartitionRole::Logical && anyExtendedType(type))
    throw Error(ErrorId::InvalidArgument, "A logical DOS drive cannot have an extended partition type");
  requireOnDevice(drive(), node.firstBlock, node.blockCount);
  if (node.tableBlock == 0) {
    if (std::none_of(roots_.begin(), roots_.end(), [&](const auto& r) { return r.get() == &node; }))
      throw Error(ErrorId::InvalidArgument, "The partition does not belong to this disk's tables");
    drive().prepareForChange(node.firstBlock, node.blockCount);
    BiosBootRecord mbr = master_->record();
    mbr.setType(static_cast<unsigned>(node.slot), type);
    writeRecord(0, mbr);
  } else {
    drive().prepareForChange(node.firstBlock, node.blockCount);
    rewriteHolder(node, [&](BiosBootRecord& rec) { rec.setType(0, type); });
  }
  finishChange();
}

}  // namespace

std::unique_ptr<PartitionedDisk> loadMbrDisk(DiskDrive& drive) { return std::make_unique<MbrDisk>(drive); }

}  // namespace Corvo::Disk
