// Changing MBR disks: placement, alignment, type bytes, linking and unlinking of extended boot
// records, each result checked with sfdisk.
#include <gtest/gtest.h>

#include <algorithm>

#include "core/Config.h"
#include "core/Endian.h"
#include "disk/MbrTestSupport.h"
#include "disk/layout/BiosBootRecord.h"

using namespace Corvo::Disk;
using namespace KdiskTest;
using Corvo::Core::Error;
using Corvo::Core::ErrorId;

namespace {

constexpr uint64_t kCyl = 255 * 63;
constexpr uint64_t kMB = 2048;
enum Kind { Pri, Ext, Log };

struct Step {
  Kind kind;
  uint64_t size;  // sectors; CreationRequest::kLargest for the largest
  bool atEnd;
  uint64_t expectFirst, expectCount;
  unsigned expectType;
};

class MbrEditTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!haveTool("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
  }
  // The model, re-read from scratch, agrees with sfdisk; sfdisk finds nothing wrong (no
  // overlaps, no drive outside its extended partition, nothing past the end).
  void expectConsistent(const PartitionedDisk& disk) {
    auto fresh = openDrive(img);
    auto reread = PartitionedDisk::load(*fresh);
    EXPECT_EQ(describe(modelView(*reread)), describe(sfdiskView(img)));
    EXPECT_EQ(describe(modelView(disk)), describe(modelView(*reread)));
    std::string report;
    EXPECT_TRUE(sfdiskClean(img, &report)) << report;
    EXPECT_TRUE(reread->facts().problems.empty());
  }
  PartitionNode* create(PartitionedDisk& disk, Kind kind, CreationRequest& r) {
    return kind == Pri ? disk.createPrimary(r) : kind == Ext ? disk.createExtended(r) : disk.createLogical(r);
  }
  TempDir dir;
  std::string img = dir.file("disk.img");
};

CreationRequest req(uint64_t size, int64_t alignment = 2048, bool atEnd = false) {
  CreationRequest r;
  r.sizeBlocks = size;
  r.alignment = alignment;
  r.placeAtEnd = atEnd;
  return r;
}

}  // namespace

TEST_F(MbrEditTest, PlacementAndAlignment) {
  const uint64_t L = CreationRequest::kLargest;
  struct Case {
    const char* name;
    int64_t alignment;
    std::vector<Step> steps;
  } cases[] = {
      {"chs primaries", -1,
       {{Pri, 20 * kMB, false, 63, 3 * kCyl - 63, 0x04},
        {Pri, 20 * kMB, true, 22 * kCyl, 3 * kCyl, 0x04},
        {Pri, 20 * kMB, false, 3 * kCyl, 3 * kCyl, 0x04},
        {Pri, L, false, 6 * kCyl, 16 * kCyl, 0x06}}},
      {"chs largest", -1, {{Pri, L, false, 63, 25 * kCyl - 63, 0x06}}},
      {"chs logicals", -1,
       {{Ext, L, false, 63, 25 * kCyl - 63, 0x05},
        {Log, 20 * kMB, false, 126, 3 * kCyl - 126, 0x04},
        {Log, 20 * kMB, true, 22 * kCyl + 63, 3 * kCyl - 63, 0x04},
        {Log, 10 * kMB, false, 3 * kCyl + 63, 2 * kCyl - 63, 0x01},
        {Log, L, false, 5 * kCyl + 63, 17 * kCyl - 63, 0x06}}},
      {"1mb primaries", 2048,
       {{Pri, 100 * kMB, false, 2048, 204800, 0x06},
        {Pri, 50 * kMB, true, 307200, 102400, 0x06},
        {Pri, 10 * kMB + 5, false, 206848, 22528, 0x01}}},
      {"1mb logicals", 2048,
       {{Pri, 10 * kMB, false, 2048, 20480, 0x01},
        {Ext, L, false, 22528, 387072, 0x05},
        {Log, 20 * kMB, true, 368640, 40960, 0x04},
        {Log, 20 * kMB, false, 24576, 40960, 0x04},
        {Log, 20 * kMB, false, 67584, 40960, 0x04},
        {Log, L, false, 110592, 256000, 0x06}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(makeImage(img, 200, ""));
    auto drive = openDrive(img);
    auto disk = PartitionedDisk::load(*drive);
    for (size_t i = 0; i < c.steps.size(); ++i) {
      SCOPED_TRACE("step " + std::to_string(i));
      const Step& s = c.steps[i];
      CreationRequest r = req(s.size, c.alignment, s.atEnd);
      PartitionNode* n = create(*disk, s.kind, r);
      ASSERT_NE(n, nullptr);
      EXPECT_EQ(n->firstBlock, s.expectFirst);
      EXPECT_EQ(n->blockCount, s.expectCount);
      EXPECT_EQ(n->type, s.expectType);
      // A logical drive's boot record sits one alignment unit (a track for CHS) before it.
      if (s.kind == Log) {
        EXPECT_EQ(n->firstBlock - n->tableBlock, c.alignment < 0 ? 63u : 2048u);
      }
      expectConsistent(*disk);
    }
  }
  // A blank disk got a fresh master boot record with a disk signature.
  auto drive = openDrive(img);
  auto disk = PartitionedDisk::load(*drive);
  EXPECT_NE(disk->rawTables()[0].bytes[440] | disk->rawTables()[0].bytes[441], 0);
}

TEST_F(MbrEditTest, RequestsThatDoNotFit) {
  ASSERT_TRUE(makeImage(img, 200, ""));
  auto drive = openDrive(img);
  auto disk = PartitionedDisk::load(*drive);
  CreationRequest big = req(300 * kMB, 2048);
  EXPECT_EQ(disk->createPrimary(big), nullptr);
  EXPECT_EQ(big.largestAvailable, 409600u - 2048);
  CreationRequest ext = req(50 * kMB, 2048);
  ASSERT_NE(disk->createExtended(ext), nullptr);
  CreationRequest again = ext;
  EXPECT_THROW(disk->createExtended(again), Error);  // only one extended DOS partition
  CreationRequest log = req(60 * kMB, 2048);
  EXPECT_EQ(disk->createLogical(log), nullptr);
  EXPECT_EQ(log.largestAvailable, 50 * kMB - 2048);  // the record takes one unit
  log.sizeBlocks = CreationRequest::kLargest;
  ASSERT_NE(disk->createLogical(log), nullptr);
  log.largestAvailable = 77;
  EXPECT_EQ(disk->createLogical(log), nullptr);
  EXPECT_EQ(log.largestAvailable, 0u);
  // A request covering the whole free space gets its aligned part.
  CreationRequest whole = req(409600 - 2048 - 50 * kMB, 2048);
  PartitionNode* n = disk->createPrimary(whole);
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(n->firstBlock + n->blockCount, 409600u);
  CreationRequest small = req(1);
  EXPECT_EQ(disk->createPrimary(small), nullptr);  // no room left at all
  EXPECT_EQ(small.largestAvailable, 0u);
  expectConsistent(*disk);
  // The whole disk in MB (as a size of 100 per cent gives it) takes what alignment leaves.
  ASSERT_TRUE(makeImage(img, 200, ""));
  auto drive4 = openDrive(img);
  auto blank = PartitionedDisk::load(*drive4);
  CreationRequest all = req(200 * kMB, -1);
  PartitionNode* whole4 = blank->createPrimary(all);
  ASSERT_NE(whole4, nullptr);
  EXPECT_EQ(whole4->blockCount, 25 * kCyl - 63);
  // An exact request takes a later free space that holds it whole rather than an aligned part.
  ASSERT_TRUE(makeImage(img, 200, "label: dos\nstart=2048, size=10240, type=83\nstart=100000, size=2048, type=83\n"));
  auto drive3 = openDrive(img);
  auto two = PartitionedDisk::load(*drive3);
  CreationRequest exact;
  exact.sizeBlocks = 100000 - 12288;  // the whole first gap, which only holds less once aligned
  exact.alignment = 2048;
  PartitionNode* e = two->createPrimary(exact);
  ASSERT_NE(e, nullptr);
  EXPECT_GE(e->firstBlock, 102048u);
  EXPECT_EQ(e->blockCount, 88064u);
  // Four entries in use: the table is full.
  ASSERT_TRUE(makeImage(img, 200,
                        "label: dos\nstart=2048,size=2048\nstart=4096,size=2048\nstart=6144,size=2048\nstart=8192,size=2048\n"));
  auto drive2 = openDrive(img);
  auto full = PartitionedDisk::load(*drive2);
  EXPECT_EQ(full->primarySlotsInUse(), 4u);
  CreationRequest r;
  try {
    full->createPrimary(r);
    ADD_FAILURE() << "a fifth primary was created";
  } catch (const Error& e) {
    EXPECT_EQ(e.id(), ErrorId::NoSpace);
  }
}

TEST_F(MbrEditTest, RemovalKeepsTheChainReadable) {
  const char* script =
      "label: dos\nstart=2048, size=20480, type=83\nstart=22528, size=300000, type=5\n"
      "start=24576, size=10000, type=7\nstart=36864, size=20000, type=b\n"
      "start=60000, size=5000, type=82\nstart=70000, size=100000, type=c\n";
  struct Case {
    const char* name;
    uint64_t removeStart;
    std::vector<uint64_t> remainingLogicals;
  } cases[] = {
      {"middle logical", 36864, {24576, 60000, 70000}},
      {"first logical", 24576, {36864, 60000, 70000}},
      {"last logical", 70000, {24576, 36864, 60000}},
      {"extended", 22528, {}},
      {"primary", 2048, {24576, 36864, 60000, 70000}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(makeImage(img, 200, script));
    auto drive = openDrive(img);
    auto disk = PartitionedDisk::load(*drive);
    PartitionNode* n = disk->findByFirstBlock(c.removeStart);
    ASSERT_NE(n, nullptr);
    disk->remove(*n);
    std::vector<uint64_t> logicals;
    for (PartitionNode* p : disk->displayList())
      if (p->isLogical()) logicals.push_back(p->firstBlock);
    EXPECT_EQ(logicals, c.remainingLogicals);
    EXPECT_EQ(disk->findByFirstBlock(c.removeStart), nullptr);
    expectConsistent(*disk);
    // The freed space can be used again.
    if (c.removeStart != 22528) {
      CreationRequest r = req(2 * kMB, 2048);
      ASSERT_NE(c.removeStart == 2048 ? disk->createPrimary(r) : disk->createLogical(r), nullptr);
      expectConsistent(*disk);
    }
  }
  ASSERT_TRUE(makeImage(img, 200, script));
  auto drive = openDrive(img);
  auto disk = PartitionedDisk::load(*drive);
  disk->removeAll();
  EXPECT_TRUE(disk->displayList().empty());
  EXPECT_TRUE(sfdiskView(img).empty());
  // The old chain does not come back with a new extended partition at the same place.
  CreationRequest r = req(10 * kMB, 2048);
  ASSERT_NE(disk->createPrimary(r), nullptr);
  r.sizeBlocks = 300000;
  ASSERT_NE(disk->createExtended(r), nullptr);
  for (PartitionNode* p : disk->displayList()) EXPECT_FALSE(p->isLogical());
}

TEST_F(MbrEditTest, ActiveFlagAndType) {
  ASSERT_TRUE(makeImage(img, 200,
                        "label: dos\nstart=2048, size=20480, type=7, bootable\nstart=22528, size=20480, type=6\n"
                        "start=43008, size=100000, type=5\nstart=45056, size=10000, type=b\n"));
  auto drive = openDrive(img);
  auto disk = PartitionedDisk::load(*drive);
  disk->setActive(*disk->findByFirstBlock(22528));
  EXPECT_FALSE(disk->findByFirstBlock(2048)->active);
  EXPECT_TRUE(disk->findByFirstBlock(22528)->active);
  EXPECT_THROW(disk->setActive(*disk->findByFirstBlock(45056)), Error);
  disk->setType(*disk->findByFirstBlock(2048), 0x17);
  disk->setType(*disk->findByFirstBlock(45056), 0x1B);
  disk->setType(*disk->findByFirstBlock(43008), 0x15);  // hiding the extended partition
  EXPECT_TRUE(disk->findByFirstBlock(2048)->isHiddenType());
  EXPECT_EQ(disk->findByFirstBlock(43008)->role, PartitionRole::Extended);
  EXPECT_EQ(disk->findByFirstBlock(45056), nullptr);  // a hidden chain is not followed
  expectConsistent(*disk);
  disk->setType(*disk->findByFirstBlock(43008), 0x05);
  EXPECT_EQ(disk->findByFirstBlock(45056)->type, 0x1B);
  EXPECT_THROW(disk->setType(*disk->findByFirstBlock(45056), 0x05), Error);
  disk->clearActive(*disk->findByFirstBlock(22528));
  for (PartitionNode* p : disk->displayList()) EXPECT_FALSE(p->active);
  expectConsistent(*disk);
}

TEST_F(MbrEditTest, TypesBeyondTheCylinderLimit) {
  ASSERT_TRUE(makeImage(img, 10240, ""));  // 10 GiB, sparse
  auto drive = openDrive(img);
  auto disk = PartitionedDisk::load(*drive);
  disk->ntFat16 = true;
  struct {
    Kind kind;
    uint64_t size;
    unsigned type;
  } steps[] = {
      {Pri, 7800 * kMB, 0x0B},   // ends below cylinder 1024; above 8387872 sectors
      {Pri, 500 * kMB, 0x0E},    // crosses cylinder 1024: LBA form; FAT16 with NT FAT16
      {Ext, CreationRequest::kLargest, 0x0F},
      {Log, 600 * kMB, 0x0E},    // plain 0x06 chosen, switched by its start beyond the limit
      {Log, 10 * kMB, 0x01},     // FAT12 keeps its type, CHS clamped
  };
  for (const auto& s : steps) {
    CreationRequest r = req(s.size, -1);
    PartitionNode* n = create(*disk, s.kind, r);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->type, s.type) << n->firstBlock;
  }
  expectConsistent(*disk);
}

TEST_F(MbrEditTest, InconsistentTablesGetNoNewOverlap) {
  // A logical drive reaching past its extended partition into free space.
  ASSERT_TRUE(makeImage(img, 200, "label: dos\nstart=2048, size=100000, type=5\nstart=4096, size=20000, type=83\n"));
  patchSector(img, 2048, 446 + 12, {0x40, 0x9C, 0x01, 0});  // count 105536: up to 109632
  auto drive = openDrive(img);
  auto disk = PartitionedDisk::load(*drive);
  CreationRequest r = req(10 * kMB, 2048);
  PartitionNode* n = disk->createPrimary(r);
  ASSERT_NE(n, nullptr);
  EXPECT_GE(n->firstBlock, 109632u);
  r.sizeBlocks = CreationRequest::kLargest;
  EXPECT_EQ(disk->createLogical(r), nullptr);  // the extended partition is taken up
}

// ---------------------------------------------------------------------------------------------
// In-memory disks: faults, OS layout, sector size.

TEST(MbrMemoryTest, FailedWritesLeaveAReadableChain) {
  auto access = std::make_unique<MemoryAccess>(409600);
  MemoryAccess* mem = access.get();
  DiskDrive drive(0, std::move(access));
  auto disk = PartitionedDisk::load(drive);
  CreationRequest r = req(100 * kMB, 2048);
  ASSERT_NE(disk->createExtended(r), nullptr);  // 2048 .. 206848
  r.sizeBlocks = 10 * kMB;
  ASSERT_NE(disk->createLogical(r), nullptr);  // record 2048
  r.placeAtEnd = true;
  ASSERT_NE(disk->createLogical(r), nullptr);  // record 2048 + 100MB - 20MB ... at the end
  const auto before = modelView(*disk);
  // Inserting between them: the new record is written, the link to it fails.
  mem->failWrites = {2048};
  r.placeAtEnd = false;
  EXPECT_THROW(disk->createLogical(r), Error);
  disk->reload();
  EXPECT_EQ(describe(modelView(*disk)), describe(before));
  EXPECT_TRUE(disk->facts().problems.empty());
  // Removing the last drive: unlinking fails, nothing changes.
  PartitionNode* last = disk->displayList().back();
  EXPECT_THROW(disk->remove(*last), Error);
  disk->reload();
  EXPECT_EQ(describe(modelView(*disk)), describe(before));
  // Removing it with the clearing of its record failing: already unlinked, still readable.
  mem->failWrites = {disk->displayList().back()->tableBlock};
  EXPECT_THROW(disk->remove(*disk->displayList().back()), Error);
  disk->reload();
  EXPECT_EQ(disk->displayList().size(), 2u);
  EXPECT_TRUE(disk->facts().problems.empty());
  EXPECT_FALSE(mem->prepared.empty());
}

TEST(MbrMemoryTest, OsLayoutAndWarnings) {
  auto access = std::make_unique<MemoryAccess>(409600);
  MemoryAccess* mem = access.get();
  mem->osLayout = true;
  DiskDrive drive(0, std::move(access));
  auto disk = PartitionedDisk::load(drive);
  CreationRequest r = req(10 * kMB, 2048);
  ASSERT_NE(disk->createPrimary(r), nullptr);
  r.sizeBlocks = 100 * kMB;
  ASSERT_NE(disk->createExtended(r), nullptr);
  r.sizeBlocks = 10 * kMB;
  ASSERT_NE(disk->createLogical(r), nullptr);
  ASSERT_NE(disk->createLogical(r), nullptr);
  const OsLayout& layout = mem->layouts.back();
  ASSERT_EQ(layout.entries.size(), 4u);
  EXPECT_EQ(layout.entries[0].number, 1u);
  EXPECT_EQ(layout.entries[1].number, 2u);
  EXPECT_TRUE(layout.entries[1].container);
  EXPECT_EQ(layout.entries[2].number, 5u);
  EXPECT_EQ(layout.entries[3].number, 6u);
  // Each logical drive names the extended boot record holding it.
  EXPECT_EQ(layout.entries[2].tableBlock, layout.entries[1].firstBlock);
  EXPECT_EQ(layout.entries[3].tableBlock, layout.entries[3].firstBlock - 2048);
  EXPECT_NE(layout.signature, 0u);
  EXPECT_EQ(disk->lastWarning(), "");
  mem->refuseLayout = true;
  disk->remove(*disk->displayList().back());
  EXPECT_EQ(disk->lastWarning(), "The system refused the layout");
  EXPECT_EQ(disk->displayList().size(), 3u);
}

// A disk of 4 KiB sectors is addressed in its own sectors: an entry of 4096 sectors at 256 is
// 16 MiB at 1 MiB. It is read, and refused before anything is written.
TEST(MbrMemoryTest, OtherSectorSizesAreReadInTheirSectorsAndRefusedBeforeWriting) {
  auto access = std::make_unique<MemoryAccess>(409600, 4096);
  MemoryAccess* mem = access.get();
  const uint8_t entry[16] = {0, 0, 0, 0, 0x83, 0, 0, 0, 0x00, 0x01, 0, 0, 0x00, 0x10, 0, 0};
  std::copy(std::begin(entry), std::end(entry), mem->data.begin() + 446);
  mem->data[510] = 0x55, mem->data[511] = 0xAA;
  DiskDrive drive(0, std::move(access));
  EXPECT_EQ(drive.bytesPerBlock(), 4096u);
  EXPECT_EQ(drive.blockCount(), 409600u / 8);
  auto disk = PartitionedDisk::load(drive);
  ASSERT_EQ(disk->roots().size(), 1u);
  EXPECT_EQ(disk->roots()[0]->firstBlock, 256u);
  EXPECT_EQ(disk->roots()[0]->blockCount, 4096u);
  EXPECT_EQ(RangeBlockDevice(drive, 256, 4096).bytesPerBlock(), 4096u);
  // A new entry counts 4 KiB sectors too: 1 MiB alignment is 256 of them.
  CreationRequest r;
  r.sizeBlocks = 2048;
  r.alignment = 256;
  const PartitionNode* made = disk->createPrimary(r);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->firstBlock % 256, 0u);
  EXPECT_EQ(Corvo::Core::get32(mem->data.data() + 446 + 16 + 12), made->blockCount);
}

// Entries whose start plus count passes 2^32 (and the disk) are kept as they are, and a new
// partition still fits below them. (Long chains: damaged_tables.sh.)
TEST(MbrMemoryTest, OverflowingEntriesAreKept) {
  auto access = std::make_unique<MemoryAccess>(8192);
  MemoryAccess* mem = access.get();
  DiskDrive drive(0, std::move(access));
  BiosBootRecord big;
  big.setSlot(0, 0xFFFFFFF0u, 0xFFFFFFF0u, 0x83, 255, 63);
  std::copy_n(big.data(), 512, mem->data.data());
  auto disk = PartitionedDisk::load(drive);
  ASSERT_EQ(disk->displayList().size(), 1u);
  EXPECT_EQ(disk->displayList()[0]->lastBlock(), 0xFFFFFFF0ull + 0xFFFFFFF0ull - 1);
  CreationRequest r;
  r.alignment = 2048;
  PartitionNode* p = disk->createPrimary(r);  // fits below the broken entry
  ASSERT_NE(p, nullptr);
  EXPECT_LE(p->lastBlock(), drive.blockCount() - 1);
  // The entry past the end is neither activated nor hidden; deleting it repairs the table.
  const uint64_t writes = mem->writes;
  PartitionNode* broken = disk->findByFirstBlock(0xFFFFFFF0u);
  for (auto change : {+[](PartitionedDisk& d, PartitionNode& n) { d.setActive(n); },
                      +[](PartitionedDisk& d, PartitionNode& n) { d.setType(n, 0x93); }}) {
    try {
      change(*disk, *broken);
      ADD_FAILURE() << "changed";
    } catch (const Error& e) {
      EXPECT_EQ(e.id(), ErrorId::OutOfRange);
    }
  }
  EXPECT_EQ(mem->writes, writes);
  disk->remove(*broken);
  EXPECT_EQ(disk->displayList().size(), 1u);
}

// Deleting an extended partition with 3000 logical drives writes the master boot record and
// clears each record once: what stays is gathered once, not looked up again for every record.
TEST(MbrMemoryTest, LongChainIsRemovedInOnePass) {
  constexpr uint32_t kDrives = 3000, kStart = 2048;
  auto access = std::make_unique<MemoryAccess>(kStart + 4 * kDrives + 2048);
  MemoryAccess* mem = access.get();
  BiosBootRecord mbr;
  mbr.setSlot(0, kStart, 4 * kDrives, 0x05, 255, 63);
  std::copy_n(mbr.data(), 512, mem->data.data());
  for (uint32_t i = 0; i < kDrives; ++i) {
    BiosBootRecord ebr;  // a drive of 3 sectors after its record, then the link to the next
    ebr.setSlot(0, 1, 3, 0x83, 255, 63, kStart + 4 * i);
    if (i + 1 < kDrives) ebr.setSlot(1, 4 * (i + 1), 4, 0x05, 255, 63, kStart);
    std::copy_n(ebr.data(), 512, mem->data.data() + (kStart + 4 * i) * 512);
  }
  DiskDrive drive(0, std::move(access));
  auto disk = PartitionedDisk::load(drive);
  ASSERT_EQ(disk->displayList().size(), kDrives + 1);
  EXPECT_EQ(disk->tableSectors().size(), kDrives + 1);
  disk->remove(*disk->displayList()[0]);
  EXPECT_EQ(mem->writes, kDrives + 1);
  EXPECT_TRUE(disk->displayList().empty());
  for (uint32_t i = 0; i < kDrives; ++i)
    ASSERT_TRUE(std::all_of(mem->data.begin() + (kStart + 4 * i) * 512, mem->data.begin() + (kStart + 4 * i + 1) * 512,
                            [](uint8_t b) { return b == 0; }))
        << "record " << i;
}
