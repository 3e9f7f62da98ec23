// The partition table checks over hand-made partition trees.
#include <gtest/gtest.h>

#include <functional>

#include "app/Consistency.h"
#include "support/TestSupport.h"

using namespace Corvo::Disk;

namespace {

constexpr uint64_t kDiskBlocks = 100000;

class BlankAccess : public DiskDriveAccess {
 public:
  std::string path() const override { return "memory"; }
  Geometry getGeometry() const override { return {}; }
  uint64_t totalBlocks() const override { return kDiskBlocks; }
  void read(uint64_t, uint64_t, void*) override {}
  void write(uint64_t, uint64_t, const void*) override {}
};

// A disk whose tree and facts the test builds by hand; it cannot be changed.
class HandMadeDisk : public PartitionedDisk {
 public:
  explicit HandMadeDisk(DiskDrive& drive, PartitionScheme scheme) : PartitionedDisk(drive), scheme_(scheme) {}
  PartitionScheme scheme() const override { return scheme_; }
  const std::vector<std::unique_ptr<PartitionNode>>& roots() const override { return roots_; }
  const TableFacts& facts() const override { return facts_; }
  std::vector<RawBootRecord> rawTables() const override { return {}; }
  void reload() override {}
  unsigned slotCount() const override { return 4; }
  unsigned primarySlotsInUse() const override { return static_cast<unsigned>(roots_.size()); }
  PartitionNode* createPrimary(CreationRequest&) override { return nullptr; }
  PartitionNode* createExtended(CreationRequest&) override { return nullptr; }
  PartitionNode* createLogical(CreationRequest&) override { return nullptr; }
  void remove(PartitionNode&) override {}
  void removeAll() override {}
  void setActive(PartitionNode&) override {}
  void clearActive(PartitionNode&) override {}
  void setType(PartitionNode&, uint8_t) override {}

  std::vector<std::unique_ptr<PartitionNode>> roots_;
  TableFacts facts_;

 private:
  PartitionScheme scheme_;
};

std::unique_ptr<PartitionNode> node(PartitionRole role, uint64_t first, uint64_t count, uint8_t type,
                                    bool active = false) {
  auto n = std::make_unique<PartitionNode>();
  n->role = role;
  n->firstBlock = first;
  n->blockCount = count;
  n->type = type;
  n->active = active;
  return n;
}
PartitionNode* add(PartitionNode& parent, std::unique_ptr<PartitionNode> child) {
  child->parent = &parent;
  parent.children.push_back(std::move(child));
  return parent.children.back().get();
}
PartitionNode* add(HandMadeDisk& disk, std::unique_ptr<PartitionNode> root) {
  disk.roots_.push_back(std::move(root));
  return disk.roots_.back().get();
}
auto primary(uint64_t first, uint64_t count, bool active = false) {
  return node(PartitionRole::Primary, first, count, 0x07, active);
}
// An extended partition at 50000 with the usual chain: logical drives at 50063 (2000 sectors)
// and, through a link entry at 60000, at 60063 (2000 sectors).
PartitionNode* chain(HandMadeDisk& disk, bool activeLogical = false) {
  PartitionNode* ext = add(disk, node(PartitionRole::Extended, 50000, 20000, 0x0F));
  add(*ext, node(PartitionRole::Logical, 50063, 2000, 0x07, activeLogical));
  PartitionNode* link = add(*ext, node(PartitionRole::Auxiliary, 60000, 2063, 0x05));
  add(*link, node(PartitionRole::Logical, 60063, 2000, 0x07));
  return ext;
}

TEST(Consistency, Findings) {
  struct Case {
    const char* what;
    bool bootDisk;
    PartitionScheme scheme;
    std::function<void(HandMadeDisk&)> build;
    std::string expected;  // information lines, in order
  };
  const auto mbr = PartitionScheme::Mbr;
  const Case cases[] = {
      {"empty boot disk", true, mbr, [](HandMadeDisk&) {}, ""},
      {"healthy chain, one active", true, mbr,
       [](HandMadeDisk& d) {
         add(d, primary(63, 1000, true));
         chain(d);
       },
       ""},
      {"boot disk without active partition", true, mbr, [](HandMadeDisk& d) { add(d, primary(63, 1000)); },
       "Fixed disk 1 does not have an active partition\n"},
      {"other disk without active partition", false, mbr, [](HandMadeDisk& d) { add(d, primary(63, 1000)); }, ""},
      {"GPT boot disk", true, PartitionScheme::Gpt, [](HandMadeDisk& d) { add(d, primary(2048, 1000)); }, ""},
      {"two active partitions", false, mbr,
       [](HandMadeDisk& d) {
         add(d, primary(63, 1000, true));
         add(d, primary(2000, 1000, true));
       },
       "Fixed disk 7 has 2 active partitions\n"},
      {"primaries sharing sectors", false, mbr,
       [](HandMadeDisk& d) {
         add(d, primary(63, 1000));
         add(d, primary(1000, 1000));
       },
       "Fixed disk 1 has overlapping drives\n"},
      {"extended partition over a primary", false, mbr,
       [](HandMadeDisk& d) {
         add(d, primary(49000, 2000));
         add(d, node(PartitionRole::Extended, 50000, 20000, 0x05));
       },
       "Fixed disk 1 has overlapping MBR partitions\n"},
      {"past the end", false, mbr, [](HandMadeDisk& d) { add(d, primary(90000, 20000)); },
       "Fixed disk 1 has partition(s) that extend past the end of the disk\n"},
      {"logical drive past the extended partition", false, mbr,
       [](HandMadeDisk& d) { add(*chain(d), node(PartitionRole::Logical, 69000, 2000, 0x07)); },
       "Fixed disk 1 has logical DOS drive(s) that extend past the end of the extended DOS partition\n"},
      {"logical drive past its auxiliary partition", false, mbr,
       [](HandMadeDisk& d) { chain(d)->children[1]->children[0]->blockCount = 3000; },
       "Fixed disk 1 has logical DOS drive(s) that extend past the end of their auxiliary partitions\n"},
      {"active logical drive", true, mbr, [](HandMadeDisk& d) { chain(d, true); },
       "Fixed disk 1 has an active partition that is not bootable\n"},
      {"empty auxiliary partition", false, mbr, [](HandMadeDisk& d) { chain(d)->children[1]->children.clear(); },
       "Fixed disk 1 has empty auxiliary partition(s) that are consuming disk space unnecessarily\n"},
      {"reader facts", false, mbr,
       [](HandMadeDisk& d) {
         d.facts_.nonZeroUnusedEntry = true;
         d.facts_.extendedDosCount = 2;
         d.facts_.problems = {"The chain of extended boot records loops", "Second problem"};
       },
       "Fixed disk 1 has unused partition table entries that contain non-zero bytes -- this may indicate "
       "corruption of the partition table\n"
       "Fixed disk 1 has 2 extended DOS partitions\n"
       "Fixed disk 1: The chain of extended boot records loops\n"
       "Fixed disk 1: Second problem\n"},
      {"everything at once, in order", true, mbr,
       [](HandMadeDisk& d) {
         add(d, primary(63, 1000, true));
         add(d, primary(500, 1000, true));
         chain(d, true)->children[1]->children.clear();
         add(d, primary(95000, 10000));
         d.facts_.extendedDosCount = 1;
         d.facts_.problems = {"Damage"};
       },
       "Fixed disk 1 has overlapping drives\n"
       "Fixed disk 1 has partition(s) that extend past the end of the disk\n"
       "Fixed disk 1 has 3 active partitions\n"
       "Fixed disk 1 has an active partition that is not bootable\n"
       "Fixed disk 1 has empty auxiliary partition(s) that are consuming disk space unnecessarily\n"
       "Fixed disk 1: Damage\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    DiskDrive drive(0, std::make_unique<BlankAccess>());
    HandMadeDisk disk(drive, c.scheme);
    c.build(disk);
    KdiskTest::ScopedCapture capture;
    const uint32_t index = c.expected.starts_with("Fixed disk 7") ? 6 : 0;  // messages count disks from 1
    bool printed = Kdisk::checkPartitionTables(disk, index, c.bootDisk);
    EXPECT_EQ(capture.sink().infos, c.expected);
    EXPECT_EQ(printed, !c.expected.empty());
    EXPECT_EQ(capture.sink().errors + capture.sink().warnings, "");
  }
}

}  // namespace
