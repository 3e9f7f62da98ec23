// Reading MBR disks built by sfdisk, and damaged ones, compared with sfdisk's own view.
#include <gtest/gtest.h>

#include "core/Endian.h"
#include "disk/MbrTestSupport.h"

using namespace Corvo::Disk;
using namespace KdiskTest;

namespace {

const char* kChainScript =
    "label: dos\n"
    "start=2048, size=20480, type=83, bootable\n"
    "start=22528, size=300000, type=5\n"
    "start=24576, size=10000, type=7\n"
    "start=36864, size=20000, type=b\n"
    "start=60000, size=5000, type=82\n"
    "start=70000, size=100000, type=c\n"
    "start=330000, size=5000, type=e\n";

class MbrReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!haveTool("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
  }
  TempDir dir;
  std::string img = dir.file("disk.img");
};

}  // namespace

TEST_F(MbrReadTest, AgreesWithSfdisk) {
  struct Case {
    const char* name;
    const char* script;
    size_t logicals;
  } cases[] = {
      {"blank", "", 0},
      {"empty table", "label: dos\n", 0},
      {"primaries", "label: dos\nstart=63, size=16002, type=6\nstart=16065, size=16065, type=7, bootable\n"
                    "start=40000, size=100, type=1\nstart=50000, size=300000, type=83\n", 0},
      {"chain", kChainScript, 4},
      {"empty extended", "label: dos\nstart=2048, size=100000, type=f\n", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(makeImage(img, 200, c.script));
    auto drive = openDrive(img);
    auto disk = PartitionedDisk::load(*drive);
    ASSERT_EQ(disk->scheme(), PartitionScheme::Mbr);
    EXPECT_EQ(describe(modelView(*disk)), describe(sfdiskView(img)));
    EXPECT_TRUE(disk->facts().problems.empty()) << disk->facts().problems.front();
    EXPECT_FALSE(disk->facts().nonZeroUnusedEntry);
    size_t logicals = 0;
    for (PartitionNode* n : disk->displayList()) logicals += n->isLogical();
    EXPECT_EQ(logicals, c.logicals);
    EXPECT_EQ(disk->rawTables().size(), c.script[0] ? 1 + c.logicals + (c.logicals == 0 && std::string(c.name) == "empty extended") : 1);
  }
}

TEST_F(MbrReadTest, ChainTreeShapeAndFacts) {
  ASSERT_TRUE(makeImage(img, 200, kChainScript));
  auto drive = openDrive(img);
  auto disk = PartitionedDisk::load(*drive);
  auto list = disk->displayList();
  ASSERT_EQ(list.size(), 7u);
  EXPECT_EQ(list[0]->role, PartitionRole::Primary);
  PartitionNode* ext = list[1];
  EXPECT_EQ(ext->role, PartitionRole::Extended);
  EXPECT_EQ(disk->facts().extendedDosCount, 1u);
  // extended -> first logical + link; each link -> next logical + next link.
  const PartitionNode* holder = ext;
  uint64_t expectedStarts[] = {24576, 36864, 60000, 70000};
  for (int i = 0; i < 4; ++i) {
    ASSERT_GE(holder->children.size(), 1u);
    EXPECT_EQ(holder->children[0]->role, PartitionRole::Logical);
    EXPECT_EQ(holder->children[0]->firstBlock, expectedStarts[i]);
    EXPECT_EQ(holder->children[0]->extendedContainer(), ext);
    if (i < 3) {
      ASSERT_EQ(holder->children.size(), 2u);
      EXPECT_EQ(holder->children[1]->role, PartitionRole::Auxiliary);
      holder = holder->children[1].get();
    } else {
      EXPECT_EQ(holder->children.size(), 1u);
    }
  }
  auto raw = disk->rawTables();
  ASSERT_EQ(raw.size(), 5u);
  EXPECT_EQ(raw[0].block, 0u);
  EXPECT_EQ(raw[1].block, 22528u);
  // Stray bytes in an unused slot of the MBR are reported.
  patchSector(img, 0, 446 + 48 + 8, {1, 2, 3});
  disk->reload();
  EXPECT_TRUE(disk->facts().nonZeroUnusedEntry);
}

TEST_F(MbrReadTest, DamagedTablesAreReadAsFarAsPossible) {
  // EBRs of kChainScript: 22528 (first), then 34816, 57952 (60000-2048), 67952.
  struct Case {
    const char* name;
    uint64_t sector;
    size_t offset;
    std::vector<uint8_t> bytes;
    size_t roots, logicals;  // entries of the MBR and drives still read
    const char* problem;     // part of the sentence recorded
  } cases[] = {
      {"link loops back to the first record", 57952, 446 + 16 + 8, {0, 0, 0, 0}, 3, 3, "loops back"},
      {"link loops to itself", 34816, 446 + 16 + 8, {0x00, 0x30, 0, 0}, 3, 2, "loops back"},
      {"link outside the extended partition", 34816, 446 + 16 + 8, {0xFF, 0xFF, 0xFF, 0x7F}, 3, 2, "outside the extended"},
      {"record without signature", 57952, 510, {0, 0}, 3, 2, "no 0xAA55 signature"},
      {"first record without signature", 22528, 510, {0x12, 0x34}, 3, 0, "no 0xAA55 signature"},
      {"partition in the link slot", 34816, 446 + 16 + 4, {0x83}, 3, 2, "where the link"},
      {"extended type in a drive entry", 34816, 446 + 4, {0x05}, 3, 3, "extended type in its first entry"},
      {"huge logical start", 34816, 446 + 8, {0xFF, 0xFF, 0xFF, 0xFF}, 3, 4, ""},
      {"master without signature", 0, 510, {0, 0}, 0, 0, "0xAA55"},
      {"overlapping primaries (kept as read)", 0, 446 + 32 + 8, {0x10, 0x27, 0, 0}, 3, 4, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(makeImage(img, 200, kChainScript));
    patchSector(img, c.sector, c.offset, c.bytes);
    auto drive = openDrive(img);
    auto disk = PartitionedDisk::load(*drive);
    size_t logicals = 0;
    for (PartitionNode* n : disk->displayList()) logicals += n->isLogical();
    EXPECT_EQ(logicals, c.logicals);
    EXPECT_EQ(disk->roots().size(), c.roots);
    std::string all;
    for (const auto& p : disk->facts().problems) all += p + "\n";
    EXPECT_EQ(all.empty(), !*c.problem) << all;
    EXPECT_NE(all.find(c.problem), std::string::npos) << all;
  }
  // A never-written disk is blank without complaint.
  ASSERT_TRUE(makeImage(img, 200, ""));
  auto drive = openDrive(img);
  EXPECT_TRUE(PartitionedDisk::load(*drive)->facts().problems.empty());
}
