// The creation and deletion routines against an in-memory disk and table driver.
#include <gtest/gtest.h>

#include <cstring>

#include "app/PartitionCommands.h"
#include "app/Wipe.h"
#include "support/TestSupport.h"

using namespace Corvo::Disk;
using Corvo::Core::Error;
using Corvo::Core::ErrorId;
using Corvo::Core::PromptMode;
using Corvo::Core::setPromptMode;
using KdiskTest::ScopedCapture;

namespace {

class MemoryAccess : public DiskDriveAccess {
 public:
  explicit MemoryAccess(uint64_t blocks) : data(blocks * 512, 0) {}
  std::string path() const override { return "memory"; }
  Geometry getGeometry() const override { return {}; }
  uint64_t totalBlocks() const override { return data.size() / 512; }
  void read(uint64_t first, uint64_t count, void* buffer) override { std::memcpy(buffer, &data[first * 512], count * 512); }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    std::memcpy(&data[first * 512], buffer, count * 512);
    sectorsWritten += count;
  }
  bool isBootDisk() const override { return boot; }
  void prepareForChange(uint64_t, uint64_t) override {
    if (busy) throw Error(ErrorId::InUse, "The partition is mounted");
  }
  std::vector<uint8_t> data;
  bool boot = false, busy = false;
  uint64_t sectorsWritten = 0;
};

// A table driver that keeps its nodes in memory: partitions go one after another from
// sector 2048; the last node appended is the one returned.
class FakeLayout : public PartitionedDisk {
 public:
  explicit FakeLayout(DiskDrive& d) : PartitionedDisk(d) {}
  PartitionScheme scheme() const override { return PartitionScheme::Mbr; }
  const std::vector<std::unique_ptr<PartitionNode>>& roots() const override { return roots_; }
  const TableFacts& facts() const override { return facts_; }
  std::vector<RawBootRecord> rawTables() const override { return {}; }
  void reload() override {
    ++reloads;
    if (failReload) throw Error(ErrorId::ReadFailed, "reload failed");
  }
  unsigned slotCount() const override { return 4; }
  unsigned primarySlotsInUse() const override { return static_cast<unsigned>(roots_.size()); }
  PartitionNode* create(CreationRequest& r, PartitionRole role, uint8_t type) {
    ++creates;
    if (createError) throw Error(ErrorId::NoSpace, "boom");
    if (r.sizeBlocks != CreationRequest::kLargest && r.sizeBlocks > room) {
      r.largestAvailable = room;
      return nullptr;
    }
    auto n = std::make_unique<PartitionNode>();
    n->role = role;
    n->type = type;
    n->firstBlock = next;
    n->blockCount = r.sizeBlocks == CreationRequest::kLargest ? room : r.sizeBlocks;
    next += n->blockCount;
    PartitionNode* p = n.get();
    roots_.push_back(std::move(n));
    return p;
  }
  PartitionNode* createPrimary(CreationRequest& r) override { return create(r, PartitionRole::Primary, 0x06); }
  PartitionNode* createExtended(CreationRequest& r) override { return create(r, PartitionRole::Extended, 0x05); }
  PartitionNode* createLogical(CreationRequest& r) override { return create(r, PartitionRole::Logical, 0x06); }
  PartitionNode& add(PartitionRole role, uint8_t type, uint64_t first, uint64_t count, PartitionNode* parent = nullptr) {
    auto n = std::make_unique<PartitionNode>();
    n->role = role, n->type = type, n->firstBlock = first, n->blockCount = count, n->parent = parent;
    PartitionNode* p = n.get();
    (parent ? parent->children : roots_).push_back(std::move(n));
    return *p;
  }
  void remove(PartitionNode& node) override {
    ++removes;
    for (auto it = roots_.begin(); it != roots_.end(); ++it)
      if (it->get() == &node) {
        roots_.erase(it);
        return;
      }
  }
  void removeAll() override {
    ++removes;
    roots_.clear();
  }
  void setActive(PartitionNode&) override {}
  void clearActive(PartitionNode&) override {}
  void setType(PartitionNode&, uint8_t) override {}

  uint64_t next = 2048, room = 4096;
  bool createError = false, failReload = false;
  int creates = 0, removes = 0, reloads = 0;

 private:
  std::vector<std::unique_ptr<PartitionNode>> roots_;
  TableFacts facts_;
};

struct Fixture {
  Fixture() {
    auto a = std::make_unique<MemoryAccess>(16384);
    access = a.get();
    drive = std::make_unique<DiskDrive>(0, std::move(a));
    disk.index = 1;
    disk.drive = drive.get();
    auto l = std::make_unique<FakeLayout>(*drive);
    layout = l.get();
    disk.layout = std::move(l);
  }
  MemoryAccess* access;
  std::unique_ptr<DiskDrive> drive;
  FakeLayout* layout;
  Kdisk::FixedDisk disk;
};

struct PromptScope {
  explicit PromptScope(PromptMode m) : old(setPromptMode(m)) {}
  ~PromptScope() { setPromptMode(old); }
  PromptMode old;
};

}  // namespace

TEST(PartitionCommands, CreatePrimaryReportsWhyNothingWasCreated) {
  struct Case {
    const char* name;
    int primaries;
    bool answerYes, createError;
    uint64_t sizeBlocks;
    const char* expectedError;
    int expectedCreates;
  } cases[] = {
      {"full table", 4, true, false, 100, "Maximum number of partitions already defined -- 4", 0},
      {"declined", 1, false, false, 100, "", 0},
      {"layer error", 0, true, true, 100, "Primary DOS partition could not be created -- boom", 1},
      {"too big", 0, true, false, 8192, "Maximum space available for primary DOS partition is 2.0MB", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f;
    ScopedCapture cap;
    PromptScope prompt(c.answerYes ? 0 : 1);
    for (int i = 0; i < c.primaries; ++i) f.layout->add(PartitionRole::Primary, 0x06, 100 + i * 10, 10);
    f.layout->createError = c.createError;
    CreationRequest r;
    r.sizeBlocks = c.sizeBlocks;
    EXPECT_FALSE(Kdisk::createPrimaryDos(f.disk, r));
    EXPECT_EQ(cap.sink().errors, *c.expectedError ? std::string(c.expectedError) + "\n" : "");
    EXPECT_EQ(f.layout->creates, c.expectedCreates);
  }
  Fixture f;
  ScopedCapture cap;
  f.layout->room = 0;
  CreationRequest r;
  r.sizeBlocks = 10;
  EXPECT_FALSE(Kdisk::createLogicalDos(f.disk, r));  // no extended partition: layer not asked
  EXPECT_EQ(f.layout->creates, 0);
  f.layout->add(PartitionRole::Extended, 0x15, 100, 10);
  EXPECT_FALSE(Kdisk::createLogicalDos(f.disk, r));
  f.layout->add(PartitionRole::Primary, 0x01, 200, 10);
  EXPECT_FALSE(Kdisk::createExtendedDos(f.disk, r));
  EXPECT_EQ(cap.sink().errors,
            "No extended DOS partition exists\n"
            "The extended DOS partition is hidden and may not have logical DOS drives created within it\n"
            "Extended DOS partition already exists\n");
}

TEST(PartitionCommands, FailedReloadFailsPrimaryButNotExtended) {
  Fixture f;
  ScopedCapture cap;
  f.layout->failReload = true;
  CreationRequest r;
  EXPECT_FALSE(Kdisk::createPrimaryDos(f.disk, r));
  CreationRequest e;
  EXPECT_TRUE(Kdisk::createExtendedDos(f.disk, e));
  EXPECT_EQ(cap.sink().errors, "Cannot reload partition table -- reload failed\nCannot reload partition table -- reload failed\n");
}

TEST(PartitionCommands, UnavailableFormatterLeavesPartitionAndFails) {
  Fixture f;
  ScopedCapture cap;
  CreationRequest r;
  r.formatKind = 3;
  EXPECT_FALSE(Kdisk::createPrimaryDos(f.disk, r));
  EXPECT_EQ(f.layout->roots().size(), 1u);
  EXPECT_NE(cap.sink().errors.find("Cannot format primary DOS partition -- The NTFS formatter"), std::string::npos);
}

TEST(PartitionCommands, WipeRefusalLeavesTableAndSectors) {
  Fixture f;
  ScopedCapture cap;
  PartitionNode& n = f.layout->add(PartitionRole::Primary, 0x06, 2048, 100);
  std::memset(&f.access->data[2048 * 512], 0x77, 100 * 512);
  f.access->busy = true;
  EXPECT_FALSE(Kdisk::deletePrimaryDos(f.disk, n, Kdisk::wmDod, 0));
  EXPECT_EQ(cap.sink().errors, "Cannot wipe primary DOS partition -- The partition is mounted\n");
  EXPECT_EQ(f.layout->removes, 0);
  EXPECT_EQ(f.access->data[2048 * 512 + 99 * 512], 0x77);
}

TEST(PartitionCommands, ExtendedDeletionAsksWithDriveCount) {
  for (int drives : {1, 2}) {
    Fixture f;
    ScopedCapture cap;
    PromptScope prompt(2);
    PartitionNode& ext = f.layout->add(PartitionRole::Extended, 0x05, 2048, 1000);
    for (int i = 0; i < drives; ++i) f.layout->add(PartitionRole::Logical, 0x06, 2111 + i * 100, 50, &ext);
    EXPECT_FALSE(Kdisk::deleteExtendedDos(f.disk, ext, Kdisk::wmNone, 0));  // no answer: no
    EXPECT_EQ(cap.sink().questions, drives == 1
                                        ? "The extended DOS partition contains 1 logical DOS drive. Delete it anyway?\n"
                                        : "The extended DOS partition contains 2 logical DOS drives. Delete it anyway?\n");
    EXPECT_EQ(f.layout->removes, 0);
  }
}

TEST(PartitionCommands, DeletingOnlyActivePrimaryOfBootDiskWarns) {
  Fixture f;
  ScopedCapture cap;
  f.access->boot = true;
  PartitionNode& n = f.layout->add(PartitionRole::Primary, 0x07, 2048, 100);
  n.active = true;
  EXPECT_TRUE(Kdisk::deletePrimaryDos(f.disk, n, Kdisk::wmNone, 0));
  EXPECT_EQ(cap.sink().infos, "No partitions are set active. Fixed disk 2 will not be startable until a partition is set active\n");
}

TEST(PartitionCommands, WipeAllCoversExtendedGapsWithoutRewritingDrives) {
  Fixture f;
  ScopedCapture cap;
  f.layout->add(PartitionRole::Primary, 0x06, 100, 50);
  PartitionNode& ext = f.layout->add(PartitionRole::Extended, 0x05, 200, 300);
  f.layout->add(PartitionRole::Logical, 0x06, 263, 100, &ext);
  std::memset(f.access->data.data(), 0x77, f.access->data.size());
  EXPECT_TRUE(Kdisk::deleteAllPartitions(f.disk, Kdisk::wmQuick, 0));
  // The headings come first; the disk's table follows them.
  EXPECT_EQ(cap.sink().out.rfind("Wiping Partition 1:\nWiping Partition 2:\nWiping Partition 3:\n", 0), 0u);
  for (uint64_t s : {100u, 149u, 200u, 262u, 263u, 362u, 363u, 499u}) EXPECT_EQ(f.access->data[s * 512], 0) << s;
  for (uint64_t s : {99u, 150u, 199u, 500u}) EXPECT_EQ(f.access->data[s * 512], 0x77) << s;
  EXPECT_EQ(f.access->sectorsWritten, 350u);
  EXPECT_EQ(f.layout->roots().size(), 0u);
}
