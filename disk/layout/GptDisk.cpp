#include "disk/layout/GptDisk.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "core/Crc32.h"
#include "core/Endian.h"
#include "core/Interrupt.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "disk/layout/BiosBootRecord.h"
#include "disk/layout/GptGuid.h"
#include "disk/layout/PartitionTypes.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;
using Core::format;

namespace {
// New entries start and end on 1 MiB boundaries.
uint64_t alignmentOf(const BlockDevice& disk) { return std::max<uint64_t>(1, disk.blocksOf(uint64_t{1} << 20)); }

uint64_t roundUp(uint64_t v, uint64_t a) { return (v + a - 1) / a * a; }

constexpr uint64_t kNoEnd = ~uint64_t{0};

// An entry's first sector and sector count on the disk, saturated instead of wrapping: an
// entry that runs to the end of the address space ends past the end of any disk.
std::pair<uint64_t, uint64_t> entrySectors(uint64_t firstBlock, uint64_t lastBlock) {
  const uint64_t first = firstBlock;
  const uint64_t blocks = lastBlock - firstBlock;  // the caller checked lastBlock >= firstBlock
  uint64_t count = blocks >= kNoEnd ? kNoEnd : blocks + 1;
  count = std::min(count, kNoEnd - first);  // first + count - 1 stays representable
  return {first, std::max<uint64_t>(count, 1)};
}
uint64_t roundDown(uint64_t v, uint64_t a) { return v / a * a; }

std::u16string asciiName(const char* text) {
  std::u16string out;
  for (const char* p = text; *p; ++p) out += static_cast<char16_t>(static_cast<unsigned char>(*p));
  return out;
}
}  // namespace

std::unique_ptr<PartitionedDisk> loadGptDisk(DiskDrive& drive) {
  Core::TraceScope scope("loadPartitions");
  return std::make_unique<PartitionedDiskGpt>(drive);
}

namespace {

// Sectors of the old tables that another tool could still find once a new GPT covers the disk
// and that the new table does not overwrite: extended boot records, and a backup GPT header
// that the old primary header placed before the disk's last block. Only sectors inside the
// new usable area [firstUsable, lastUsable] are listed.
std::vector<uint64_t> staleTableBlocks(DiskDrive& drive, uint64_t firstUsable, uint64_t lastUsable) {
  std::vector<uint64_t> blocks;
  auto add = [&](uint64_t b) {
    if (b >= firstUsable && b <= lastUsable && std::find(blocks.begin(), blocks.end(), b) == blocks.end())
      blocks.push_back(b);
  };
  for (const RawBootRecord& r : PartitionedDisk::load(drive)->rawTables()) add(r.block);
  std::vector<uint8_t> sector(drive.bytesPerBlock());
  drive.read(1, 1, sector.data());
  GptHeader old(sector.data());
  if (old.hasSignature()) {
    const uint64_t alternate = old.alternateBlock();
    if (alternate < drive.blockCount()) {
      drive.read(alternate, 1, sector.data());
      if (GptHeader(sector.data()).hasSignature()) add(alternate);
    }
  }
  return blocks;
}

}  // namespace

std::unique_ptr<PartitionedDisk> initializeGptDisk(DiskDrive& drive) {
  Core::TraceScope scope("initializeGptDisk");
  drive.requireWritable();
  GptHeader primary, backup;
  const uint64_t blocks = drive.blockCount();
  const uint64_t arrayBlocks = gptEntryArrayBlocks(primary.entryCount(), primary.entrySize(), drive.bytesPerBlock());
  const uint64_t firstUsable = 2 + arrayBlocks, lastUsable = blocks - 2 - arrayBlocks;
  if (blocks < 2 * (2 + arrayBlocks) + alignmentOf(drive))
    throw Error(ErrorId::NoSpace, "The disk is too small for a GPT partition table")
        .with("blocks", std::to_string(blocks));

  // Everything is built before the first write.
  std::vector<uint8_t> sector0(drive.bytesPerBlock());
  drive.read(0, 1, sector0.data());
  BiosBootRecord mbr(true, 4, sector0.data());
  for (unsigned s = 0; s < 4; ++s) mbr.clearSlot(s);
  mbr.setProtectiveSlot(0, static_cast<uint32_t>(std::min<uint64_t>(blocks - 1, 0xFFFFFFFFull)));
  mbr.setSignature();
  std::copy_n(mbr.data(), BiosBootRecord::kSize, sector0.begin());  // the rest of a large sector stays

  primary.linkAlternate(&backup);
  for (GptHeader* h : {&primary, &backup}) {
    h->setFirstUsableBlock(firstUsable);
    h->setLastUsableBlock(lastUsable);
  }
  primary.setMyBlock(1);
  primary.setAlternateBlock(blocks - 1);
  primary.setEntriesBlock(2);
  backup.setMyBlock(blocks - 1);
  backup.setAlternateBlock(1);
  backup.setEntriesBlock(blocks - 1 - arrayBlocks);
  primary.setGptUuid(randomGuid());  // both headers carry the zero GUID, so both take it
  std::vector<uint8_t> array(drive.bytesOf(arrayBlocks), 0);
  const uint32_t crc = Core::crc32(array.data(), size_t{primary.entryCount()} * primary.entrySize());
  std::vector<uint8_t> primarySector(drive.bytesPerBlock(), 0), backupSector(drive.bytesPerBlock(), 0);
  for (auto [h, sector] : {std::pair{&primary, &primarySector}, std::pair{&backup, &backupSector}}) {
    h->setEntriesCrc(crc);
    h->updateHeaderCrc();
    h->copyTo(sector->data());
  }

  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  const std::vector<uint64_t> stale = staleTableBlocks(drive, firstUsable, lastUsable);

  // Each step is on the medium before the next. The old primary GPT header goes first, so an
  // old GPT disk reads from its old backup until the new backup replaces it; then the new
  // backup, the new primary, and the protective MBR last: until it is written an old MBR disk
  // still reads as that disk. What is left of the old tables lies in the new free space and
  // is cleared at the end.
  const std::vector<uint8_t> zeros(drive.bytesPerBlock(), 0);
  auto step = [&](uint64_t block, uint64_t count, const uint8_t* data) {
    drive.write(block, count, data);
    drive.flush();
  };
  step(primary.myBlock(), 1, zeros.data());
  drive.write(backup.entriesBlock(), arrayBlocks, array.data());
  step(backup.myBlock(), 1, backupSector.data());
  drive.write(primary.entriesBlock(), arrayBlocks, array.data());
  step(primary.myBlock(), 1, primarySector.data());
  step(0, 1, sector0.data());
  for (uint64_t block : stale) drive.write(block, 1, zeros.data());
  if (!stale.empty()) drive.flush();

  auto disk = std::make_unique<PartitionedDiskGpt>(drive);
  disk->reportLayout(disk->osLayout());
  return disk;
}

PartitionedDiskGpt::PartitionedDiskGpt(DiskDrive& drive) : PartitionedDisk(drive) {
  primary_.linkAlternate(&backup_);
  backup_.linkAlternate(&primary_);
  load();
}

void PartitionedDiskGpt::reload() {
  Core::TraceScope scope("loadPartitions");
  load();
}

void PartitionedDiskGpt::load() {
  roots_.clear();
  facts_ = TableFacts{};
  mbr_.fill(0);
  valid_ = false;
  const uint64_t blocks = drive_.blockCount();

  try {
    std::vector<uint8_t> first(drive_.bytesPerBlock());
    drive_.read(0, 1, first.data());
    std::memcpy(mbr_.data(), first.data(), mbr_.size());
  } catch (const Error& e) {
    facts_.problems.push_back("The protective master boot record cannot be read -- " + e.text());
  }
  if (blocks < 4) {
    facts_.problems.push_back("The disk is too small to hold a GPT partition table");
    return;
  }

  GptTableCopy primaryCopy, backupCopy;
  const std::string primaryFault = readGptCopy(drive_, 1, primaryCopy);
  uint64_t backupAt = blocks - 1;
  if (primaryFault.empty()) backupAt = primaryCopy.header.alternateBlock();
  const std::string backupFault = readGptCopy(drive_, backupAt, backupCopy);

  const bool pastEnd = !primaryFault.empty() && !backupFault.empty() && usePrimaryPastEnd(primaryCopy);
  if (pastEnd) {
    table_ = primaryCopy;
  } else if (primaryFault.empty()) {
    table_ = primaryCopy;
    if (!backupFault.empty()) {
      facts_.problems.push_back(format("The backup GPT header at block %llu %s; the primary copy is used",
                                       (unsigned long long)backupAt, backupFault.c_str()));
    } else {
      const GptHeader &p = primaryCopy.header, &b = backupCopy.header;
      if (p.diskGuid() != b.diskGuid() || p.firstUsableBlock() != b.firstUsableBlock() ||
          p.lastUsableBlock() != b.lastUsableBlock() || p.entryCount() != b.entryCount() ||
          p.entrySize() != b.entrySize() || p.entriesCrc() != b.entriesCrc())
        facts_.problems.push_back("The primary and backup GPT tables differ; the primary copy is used");
    }
  } else if (backupFault.empty()) {
    table_ = backupCopy;
    facts_.problems.push_back(format("The primary GPT header %s; the backup copy at block %llu is used",
                                     primaryFault.c_str(), (unsigned long long)backupAt));
  } else {
    facts_.problems.push_back(
        format("Neither GPT header can be used (the primary header %s; the backup header at "
               "block %llu %s); no partitions are shown",
               primaryFault.c_str(), (unsigned long long)backupAt, backupFault.c_str()));
    return;
  }
  valid_ = true;

  // Both headers as they will be written back: the copy in use gives every shared field. The
  // backup copy belongs in the disk's last block (a disk that has grown gets it moved there);
  // each copy keeps its own entry array position when it was valid where it belongs.
  const uint64_t lastBlock = blocks - 1;
  if (backupFault.empty() && backupAt != lastBlock)
    facts_.problems.push_back(
        format("The backup GPT header lies at block %llu instead of the disk's last block %llu; "
               "it is moved there when the table is next written",
               (unsigned long long)backupAt, (unsigned long long)lastBlock));
  const uint64_t arrayBlocks = gptEntryArrayBlocks(table_.header.entryCount(), table_.header.entrySize(), drive_.bytesPerBlock());
  primary_ = table_.header;
  primary_.setHeaderSize(GptHeader::kSize);
  primary_.setMyBlock(1);
  primary_.setAlternateBlock(lastBlock);
  primary_.setEntriesBlock(primaryFault.empty() || pastEnd ? primaryCopy.header.entriesBlock() : 2);
  // A usable area that reached past the end (a disk that shrank) ends before the backup array.
  if (pastEnd && lastBlock > arrayBlocks && primary_.lastUsableBlock() >= lastBlock - arrayBlocks)
    primary_.setLastUsableBlock(lastBlock - arrayBlocks - 1);
  backup_ = primary_;
  backup_.setHeaderSize(GptHeader::kSize);
  backup_.setMyBlock(lastBlock);
  backup_.setAlternateBlock(1);
  backup_.setEntriesBlock(backupFault.empty() && backupAt == lastBlock ? backupCopy.header.entriesBlock()
                                                                       : lastBlock - arrayBlocks);

  for (uint32_t i = 0; i < table_.header.entryCount(); ++i) {
    GptRecord rec = table_.record(i);
    if (!rec.isUsed()) {
      if (!rec.isAllZero()) facts_.nonZeroUnusedEntry = true;
      continue;
    }
    if (rec.lastBlock() < rec.firstBlock()) {
      facts_.problems.push_back(format("GPT entry %u ends before it starts; it is ignored", i + 1));
      continue;
    }
    roots_.push_back(makeNode(i));
  }
}

// An image cut short or a disk that shrank: the primary copy is sound but its backup and the
// end of its usable area lie past the disk's end. It is used as other tools use it, and the
// next write puts the backup at the disk's real end.
bool PartitionedDiskGpt::usePrimaryPastEnd(GptTableCopy& primary) {
  if (!readGptCopy(drive_, 1, primary, true).empty()) return false;
  const uint64_t last = drive_.blockCount() - 1;
  facts_.problems.push_back(format("The backup GPT header would lie at block %llu, past the disk's last block %llu; "
                                   "the primary copy is used and the backup is written at the disk's end when the "
                                   "table is next written",
                                   (unsigned long long)primary.header.alternateBlock(), (unsigned long long)last));
  return true;
}

std::unique_ptr<PartitionNode> PartitionedDiskGpt::makeNode(uint32_t index) const {
  GptRecord rec = table_.record(index);
  auto node = std::make_unique<PartitionNode>();
  node->role = PartitionRole::Primary;
  std::tie(node->firstBlock, node->blockCount) = entrySectors(rec.firstBlock(), rec.lastBlock());
  node->type = 0;
  node->tableBlock = 0;
  node->slot = static_cast<int>(index);
  node->typeGuid = rec.typeGuid();
  node->uniqueGuid = rec.uniqueGuid();
  node->attributes = rec.attributes();
  node->name = rec.name();
  return node;
}

std::vector<RawBootRecord> PartitionedDiskGpt::rawTables() const {
  RawBootRecord r;
  r.block = 0;
  r.bytes = mbr_;
  return {r};
}

std::vector<SectorRange> PartitionedDiskGpt::tableSectors() const {
  const uint64_t blocks = drive_.blockCount();
  std::vector<SectorRange> out;
  // Cut to the disk (a damaged header may point anywhere).
  auto add = [&](uint64_t block, uint64_t count) {
    if (block < blocks) out.push_back({block, std::min(count, blocks - block)});
  };
  add(0, 1);  // the protective MBR
  if (!valid_ || blocks < 4) {
    // Where the headers belong: nothing else of the table can be told.
    add(1, 1);
    add(blocks - 1, 1);
  } else {
    const uint64_t arrayBlocks =
        gptEntryArrayBlocks(table_.header.entryCount(), table_.header.entrySize(), drive_.bytesPerBlock());
    // Both copies as they will be written, and the copy read when it lay elsewhere.
    for (const GptHeader* h : {&primary_, &backup_, &table_.header}) {
      add(h->myBlock(), 1);
      add(h->entriesBlock(), arrayBlocks);
    }
  }
  std::sort(out.begin(), out.end(), [](const SectorRange& a, const SectorRange& b) { return a.first < b.first; });
  return out;
}

unsigned PartitionedDiskGpt::slotCount() const { return valid_ ? table_.header.entryCount() : 0; }
unsigned PartitionedDiskGpt::primarySlotsInUse() const {
  if (!valid_) return 0;
  unsigned used = 0;
  for (uint32_t i = 0; i < table_.header.entryCount(); ++i)
    if (table_.record(i).isUsed()) ++used;
  return used;
}

void PartitionedDiskGpt::requireWritable(const char* what) const {
  if (!valid_)
    throw Error(ErrorId::InvalidTable, format("Cannot %s: the GPT partition table of this disk is damaged", what));
  drive_.requireSectorSize();
  // Both entry arrays and the backup header must lie outside the usable area and on the disk,
  // or a rewrite would overwrite partition data.
  const uint64_t blocks = drive_.blockCount();
  const uint64_t arrayBlocks = gptEntryArrayBlocks(table_.header.entryCount(), table_.header.entrySize(), drive_.bytesPerBlock());
  const uint64_t first = primary_.firstUsableBlock(), last = primary_.lastUsableBlock();
  const uint64_t p = primary_.entriesBlock(), b = backup_.entriesBlock(), at = backup_.myBlock();
  bool sane = p >= 2 && p < first && first - p >= arrayBlocks && b > last && b < at && at - b >= arrayBlocks &&
              at > last && at < blocks;
  // A partition of a disk that shrank under it, inside the usable area the table gave but past
  // the one left now, would lose its end to the backup table.
  for (const auto& root : roots_) {
    const uint64_t end = root->lastBlock();
    sane = sane && (end <= last || end > table_.header.lastUsableBlock());
  }
  if (!sane)
    throw Error(ErrorId::InvalidTable,
                format("Cannot %s: the GPT partition table of this disk has an unusual layout that cannot be "
                       "rewritten safely",
                       what));
}

int PartitionedDiskGpt::indexOf(const PartitionNode& node) const {
  for (size_t i = 0; i < roots_.size(); ++i)
    if (roots_[i].get() == &node) return static_cast<int>(i);
  return -1;
}

void PartitionedDiskGpt::commitTables(const GptTableCopy& before) {
  try {
    writeTables();
  } catch (...) {
    table_ = before;
    load();  // the disk may hold either state now; show what it holds
    throw;
  }
}

void PartitionedDiskGpt::writeTables() {
  Core::TraceScope scope("doAcceptPost");
  const uint32_t crc = Core::crc32(table_.entries.data(), table_.entries.size());
  for (GptHeader* h : {&primary_, &backup_}) {
    h->setEntriesCrc(crc);
    h->updateHeaderCrc();
  }
  const uint64_t arrayBlocks = gptEntryArrayBlocks(table_.header.entryCount(), table_.header.entrySize(), drive_.bytesPerBlock());
  std::vector<uint8_t> array(drive_.bytesOf(arrayBlocks), 0);
  std::memcpy(array.data(), table_.entries.data(), table_.entries.size());
  auto writeHeader = [&](const GptHeader& h) {
    std::vector<uint8_t> sector(drive_.bytesPerBlock(), 0);
    h.copyTo(sector.data());
    drive_.write(h.myBlock(), 1, sector.data());
  };
  // Nothing is written while the table areas are in use by the system (a filesystem on the
  // whole disk, say).
  const uint64_t blocks = drive_.blockCount();
  drive_.prepareForChange(0, primary_.firstUsableBlock());
  drive_.prepareForChange(backup_.entriesBlock(), (blocks - backup_.entriesBlock()));

  // Backup first: until the primary header is rewritten a reader still sees the old primary
  // table; once the primary array is being rewritten its CRC fails and the (new) backup serves.
  // The backup is on the disk before the primary copy changes.
  drive_.write(backup_.entriesBlock(), arrayBlocks, array.data());
  writeHeader(backup_);
  drive_.flush();
  drive_.write(primary_.entriesBlock(), arrayBlocks, array.data());
  writeHeader(primary_);
  table_.header = primary_;
  drive_.flush();

  // The protective MBR last: one 0xEE slot from block 1 over the whole disk (at most 2^32 - 1
  // blocks); boot code and disk signature stay as read. It is compared with what the disk
  // holds now, not with what was read, so that a sector 0 overwritten since (a wipe of an entry
  // that covers it) is put back.
  const uint32_t cover = static_cast<uint32_t>(std::min<uint64_t>(blocks - 1, 0xFFFFFFFFull));
  BiosBootRecord record(true, 4, mbr_.data());
  int ee = -1;
  for (unsigned s = 0; s < 4; ++s)
    if (record.getType(s) == kTypeGptProtective) ee = static_cast<int>(s);
  if (ee < 0) {
    for (unsigned s = 0; s < 4; ++s) record.clearSlot(s);
    ee = 0;
  }
  if (!record.isProtectiveSlot(static_cast<unsigned>(ee), cover)) record.setProtectiveSlot(static_cast<unsigned>(ee), cover);
  record.setSignature();
  std::memcpy(mbr_.data(), record.data(), mbr_.size());
  std::vector<uint8_t> sector(drive_.bytesPerBlock(), 0);
  drive_.read(0, 1, sector.data());
  if (!std::equal(mbr_.begin(), mbr_.end(), sector.begin())) {
    std::memcpy(sector.data(), mbr_.data(), mbr_.size());
    drive_.write(0, 1, sector.data());
    drive_.flush();
  }
}

OsLayout PartitionedDiskGpt::osLayout() const {
  OsLayout layout;
  layout.style = OsLayout::Gpt;
  layout.diskGuid = primary_.diskGuid();
  layout.firstUsableBlock = primary_.firstUsableBlock();
  layout.usableBlocks = (primary_.lastUsableBlock() + 1 - primary_.firstUsableBlock());
  for (const auto& n : roots_) layout.entries.push_back(osLayoutEntry(*n, static_cast<uint32_t>(n->slot + 1)));
  return layout;
}

namespace {

// Free space between the used entries within the usable area, each gap cut to 1 MiB bounds.
struct Gap {
  uint64_t start, end;  // aligned, end exclusive
  uint64_t size() const { return end - start; }
};

std::vector<Gap> alignedGaps(const GptTableCopy& table, uint64_t firstUsable, uint64_t lastUsable, uint64_t alignment) {
  std::vector<std::pair<uint64_t, uint64_t>> used;
  for (uint32_t i = 0; i < table.header.entryCount(); ++i) {
    GptRecord r = table.record(i);
    if (r.isUsed() && r.lastBlock() >= r.firstBlock()) used.emplace_back(r.firstBlock(), r.lastBlock());
  }
  std::sort(used.begin(), used.end());
  std::vector<Gap> gaps;
  uint64_t cursor = firstUsable;
  auto addGap = [&](uint64_t from, uint64_t toInclusive) {
    uint64_t s = roundUp(from, alignment), e = roundDown(toInclusive + 1, alignment);
    if (e > s) gaps.push_back({s, e});
  };
  for (const auto& [a, b] : used) {
    if (a > cursor && cursor <= lastUsable) addGap(cursor, std::min(a - 1, lastUsable));
    cursor = std::max(cursor, b == kNoEnd ? b : b + 1);
  }
  if (cursor <= lastUsable) addGap(cursor, lastUsable);
  return gaps;
}

// Where the request goes: the largest gap (the last of equal ones with placeAtEnd), or the
// first gap that holds the size in whole MiB, rounded up or, when only that fits, down (the
// end of the last such gap with placeAtEnd). An empty gap when it fits nowhere.
Gap placeInGaps(const std::vector<Gap>& gaps, const CreationRequest& request, uint64_t alignment) {
  uint64_t largest = 0;
  for (const Gap& g : gaps) largest = std::max(largest, g.size());
  Gap placed{0, 0};
  if (request.sizeBlocks == CreationRequest::kLargest) {
    for (const Gap& g : gaps)
      if (g.size() == largest && (placed.size() == 0 || request.placeAtEnd)) placed = {g.start, g.start + largest};
    return placed;
  }
  for (uint64_t want : {roundUp(request.sizeBlocks, alignment), roundDown(request.sizeBlocks, alignment)}) {
    if (want == 0 || placed.size()) continue;
    for (const Gap& g : gaps) {
      if (g.size() < want) continue;
      if (!request.placeAtEnd) {
        placed = {g.start, g.start + want};
        break;
      }
      placed = {g.end - want, g.end};
    }
  }
  return placed;
}

}  // namespace

PartitionNode* PartitionedDiskGpt::createPrimary(CreationRequest& request) {
  Core::TraceScope scope("createPartitionInSlot");
  lastWarning_.clear();
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  requireWritable("create a partition");
  if (request.sizeBlocks == 0) throw Error(ErrorId::InvalidArgument, "A partition must be at least one sector long");

  const uint32_t count = table_.header.entryCount();
  uint32_t index = count;
  for (uint32_t i = 0; i < count && index == count; ++i)
    if (!table_.record(i).isUsed()) index = i;
  if (index == count)
    throw Error(ErrorId::NoSpace, format("All %u entries of the GPT partition table are in use", count));

  const std::vector<Gap> gaps = alignedGaps(table_, primary_.firstUsableBlock(), primary_.lastUsableBlock(), alignmentOf(drive_));
  const Gap placed = placeInGaps(gaps, request, alignmentOf(drive_));
  if (placed.size() == 0) {
    request.largestAvailable = 0;
    for (const Gap& g : gaps) request.largestAvailable = std::max(request.largestAvailable, g.size());
    return nullptr;
  }
  const GuidBytes& type = !isZeroGuid(request.gptType)                ? request.gptType
                          : request.formatKind == FormatKind::Ext2 ? gptTypeLinuxData()
                                                                   : gptTypeMicrosoftBasicData();
  return addEntry(index, placed.start, placed.size(), type);
}

PartitionNode* PartitionedDiskGpt::addEntry(uint32_t index, uint64_t start, uint64_t size, const GuidBytes& type) {
  GuidBytes unique;
  auto clash = [&](const GuidBytes& g) {
    if (g == primary_.diskGuid()) return true;
    for (const auto& n : roots_)
      if (n->uniqueGuid == g) return true;
    return false;
  };
  do unique = randomGuid();
  while (clash(unique));

  GptRecord rec;
  rec.setTypeGuid(type);
  rec.setUniqueGuid(unique);
  rec.setFirstBlock(start);
  rec.setLastBlock(start + size - 1);
  rec.setAttributes(0);
  rec.setName(asciiName(gptEntryNameFor(type).c_str()));

  drive_.prepareForChange(start, size);
  const GptTableCopy before = table_;
  table_.setRecord(index, rec);
  commitTables(before);
  auto node = makeNode(index);
  PartitionNode* result = node.get();
  auto pos =
      std::find_if(roots_.begin(), roots_.end(), [&](const auto& n) { return n->slot > static_cast<int>(index); });
  roots_.insert(pos, std::move(node));
  reportLayout(osLayout());
  return result;
}

std::optional<GuidBytes> PartitionedDiskGpt::diskGuid() const {
  if (!valid_) return std::nullopt;
  return primary_.diskGuid();
}

void PartitionedDiskGpt::remove(PartitionNode& node) {
  Core::TraceScope scope("doDeleteChild");
  lastWarning_.clear();
  const int at = indexOf(node);
  if (at < 0) throw Error(ErrorId::InvalidArgument, "The partition does not belong to this disk");
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  requireWritable("delete the partition");
  drive_.prepareForChange(node.firstBlock, node.blockCount);

  const GptTableCopy before = table_;
  table_.setRecord(static_cast<uint32_t>(node.slot), GptRecord());
  commitTables(before);
  roots_.erase(roots_.begin() + at);
  reportLayout(osLayout());
}

void PartitionedDiskGpt::removeAll() {
  Core::TraceScope scope("doDeleteChild");
  lastWarning_.clear();
  Core::InterruptHold hold;  // Ctrl-C waits until the tables are written and flushed
  requireWritable("delete the partitions");
  if (roots_.empty()) return;
  for (const auto& n : roots_) drive_.prepareForChange(n->firstBlock, n->blockCount);

  const GptTableCopy before = table_;
  std::fill(table_.entries.begin(), table_.entries.end(), uint8_t{0});
  commitTables(before);
  roots_.clear();
  facts_.nonZeroUnusedEntry = false;
  reportLayout(osLayout());
}

}  // namespace Corvo::Disk
