// The creation and deletion routines where an image cannot reach: a failing disk layer, a
// failed re-read, a partition in use and the boot disk.
#include <gtest/gtest.h>

#include <cstring>

#include "app/PartitionCommands.h"
#include "app/Wipe.h"
#include "support/TestSupport.h"

using namespace Corvo::Disk;
using Corvo::Core::Error;
using Corvo::Core::ErrorId;
using KdiskTest::ScopedCapture;

namespace {

class MemoryAccess : public DiskDriveAccess {
 public:
  std::string path() const override { return "memory"; }
  Geometry getGeometry() const override { return {}; }
  uint64_t totalBlocks() const override { return data.size() / 512; }
  void read(uint64_t first, uint64_t count, void* buffer) override { std::memcpy(buffer, &data[first * 512], count * 512); }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    std::memcpy(&data[first * 512], buffer, count * 512);
    sectorsWritten += count;
  }
  bool isBootDisk() const override { return boot; }
  void prepareForChange(uint64_t, uint64_t) override { if (busy) throw Error(ErrorId::InUse, "The partition is mounted"); }
  std::vector<uint8_t> data = std::vector<uint8_t>(16384 * 512, 0x77);
  bool boot = false, busy = false;
  uint64_t sectorsWritten = 0;
};

// Keeps its nodes in memory; create* fail or append a node of the requested size.
class FakeLayout : public PartitionedDisk {
 public:
  explicit FakeLayout(DiskDrive& d) : PartitionedDisk(d) {}
  PartitionScheme scheme() const override { return PartitionScheme::Mbr; }
  const std::vector<std::unique_ptr<PartitionNode>>& roots() const override { return roots_; }
  const TableFacts& facts() const override { return facts_; }
  std::vector<RawBootRecord> rawTables() const override { return {}; }
  void reload() override { if (failReload) throw Error(ErrorId::ReadFailed, "reload failed"); }
  unsigned slotCount() const override { return 4; }
  unsigned primarySlotsInUse() const override { return static_cast<unsigned>(roots_.size()); }
  PartitionNode* create(CreationRequest& r, PartitionRole role, uint8_t type) {
    if (createError) throw Error(ErrorId::NoSpace, "boom");
    return &add(role, type, 2048, r.sizeBlocks == CreationRequest::kLargest ? 4096 : r.sizeBlocks);
  }
  PartitionNode* createPrimary(CreationRequest& r) override { return create(r, PartitionRole::Primary, 0x06); }
  PartitionNode* createExtended(CreationRequest& r) override { return create(r, PartitionRole::Extended, 0x05); }
  PartitionNode* createLogical(CreationRequest& r) override { return create(r, PartitionRole::Logical, 0x06); }
  PartitionNode& add(PartitionRole role, uint8_t type, uint64_t first, uint64_t count, PartitionNode* parent = nullptr,
                     bool active = false) {
    auto n = std::make_unique<PartitionNode>();
    n->role = role, n->type = type, n->firstBlock = first, n->blockCount = count, n->parent = parent, n->active = active;
    (parent ? parent->children : roots_).push_back(std::move(n));
    return *(parent ? parent->children : roots_).back();
  }
  void remove(PartitionNode& node) override {
    ++removes;
    std::erase_if(roots_, [&](const auto& p) { return p.get() == &node; });
  }
  void removeAll() override { ++removes, roots_.clear(); }
  void setActive(PartitionNode&) override {}
  void clearActive(PartitionNode&) override {}
  void setType(PartitionNode&, uint8_t) override {}

  bool createError = false, failReload = false;
  int removes = 0;

 private:
  std::vector<std::unique_ptr<PartitionNode>> roots_;
  TableFacts facts_;
};

struct Fixture {
  Fixture() {
    auto a = std::make_unique<MemoryAccess>();
    access = a.get();
    drive = std::make_unique<DiskDrive>(0, std::move(a));
    disk.index = 1;
    disk.drive = drive.get();
    auto l = std::make_unique<FakeLayout>(*drive);
    layout = l.get();
    disk.layout = std::move(l);
  }
  ~Fixture() { Corvo::Core::setPromptMode(oldPrompt); }
  Corvo::Core::PromptMode oldPrompt = Corvo::Core::setPromptMode(2);  // ask: the capture answers No
  MemoryAccess* access;
  std::unique_ptr<DiskDrive> drive;
  FakeLayout* layout;
  Kdisk::FixedDisk disk;
  ScopedCapture cap;
};

}  // namespace

TEST(PartitionCommands, LayerErrorsAndFailedReload) {
  using Create = bool (*)(Kdisk::FixedDisk&, CreationRequest&);
  const struct {
    Create create;
    bool extended, failReload, ok;
    const char* errors;
  } cases[] = {
      {Kdisk::createPrimaryDos, false, false, false, "Primary DOS partition could not be created -- boom\n"},
      {Kdisk::createExtendedDos, false, false, false, "Extended DOS partition could not be created -- boom\n"},
      {Kdisk::createLogicalDos, true, false, false, "Logical DOS drive could not be created -- boom\n"},
      // A failed re-read fails a primary or a logical drive but not the extended partition.
      {Kdisk::createPrimaryDos, false, true, false, "Cannot reload partition table -- reload failed\n"},
      {Kdisk::createLogicalDos, true, true, false, "Cannot reload partition table -- reload failed\n"},
      {Kdisk::createExtendedDos, false, true, true, "Cannot reload partition table -- reload failed\n"},
  };
  for (const auto& c : cases) {
    Fixture f;
    if (c.extended) f.layout->add(PartitionRole::Extended, 0x05, 100, 10);
    f.layout->createError = !c.failReload;
    f.layout->failReload = c.failReload;
    CreationRequest r;
    EXPECT_EQ(c.create(f.disk, r), c.ok) << c.errors;
    EXPECT_EQ(f.cap.sink().errors, c.errors);
  }
}

TEST(PartitionCommands, DeletionQuestionsAndRefusalsWriteNothing) {
  const struct {
    bool boot, busy, hiddenExtended;
    const char *questions, *errors;
  } cases[] = {
      {true, false, false, "You are about to delete the primary DOS partition while an extended DOS partition exists. Continue?\n", ""},
      {false, false, true, "The extended DOS partition is hidden and may contain logical DOS drives. Delete it anyway?\n", ""},
      {false, true, false, "", "Cannot wipe primary DOS partition -- The partition is mounted\n"},
  };
  for (const auto& c : cases) {
    Fixture f;
    f.access->boot = c.boot;
    f.access->busy = c.busy;
    PartitionNode& pri = f.layout->add(PartitionRole::Primary, 0x06, 2048, 100);
    PartitionNode& ext = f.layout->add(PartitionRole::Extended, c.hiddenExtended ? 0x15 : 0x05, 4096, 100);
    EXPECT_FALSE(c.hiddenExtended ? Kdisk::deleteExtendedDos(f.disk, ext, Kdisk::wmDod, 0)
                                  : Kdisk::deletePrimaryDos(f.disk, pri, Kdisk::wmDod, 0));
    EXPECT_EQ(f.cap.sink().questions, c.questions);
    EXPECT_EQ(f.cap.sink().errors, c.errors);
    EXPECT_EQ(f.layout->removes, 0);
    EXPECT_EQ(f.access->sectorsWritten, 0u);
  }
}

TEST(PartitionCommands, DeletingTheOnlyActivePartitionOfTheBootDiskWarns) {
  for (bool dos : {true, false}) {
    Fixture f;
    f.access->boot = true;
    PartitionNode& n = f.layout->add(PartitionRole::Primary, dos ? 0x07 : 0x83, 2048, 100, nullptr, true);
    f.layout->add(PartitionRole::Extended, 0x85, 4096, 100, nullptr, true);  // an active extended does not count
    EXPECT_TRUE(dos ? Kdisk::deletePrimaryDos(f.disk, n, Kdisk::wmNone, 0) : Kdisk::deleteNonDos(f.disk, n, Kdisk::wmNone, 0));
    EXPECT_EQ(f.cap.sink().infos,
              "No partitions are set active. Fixed disk 2 will not be startable until a partition is set active\n");
  }
}

TEST(PartitionCommands, WipeAllCoversExtendedGapsWithoutRewritingDrives) {
  Fixture f;
  f.layout->add(PartitionRole::Primary, 0x06, 100, 50);
  PartitionNode& ext = f.layout->add(PartitionRole::Extended, 0x05, 200, 300);
  f.layout->add(PartitionRole::Logical, 0x06, 263, 100, &ext);
  EXPECT_TRUE(Kdisk::deleteAllPartitions(f.disk, Kdisk::wmQuick, 0));
  // The headings come first; the disk's table follows them.
  EXPECT_EQ(f.cap.sink().out.rfind("Wiping Partition 1:\nWiping Partition 2:\nWiping Partition 3:\n", 0), 0u);
  for (uint64_t s : {100u, 149u, 200u, 262u, 263u, 362u, 363u, 499u}) EXPECT_EQ(f.access->data[s * 512], 0) << s;
  for (uint64_t s : {99u, 150u, 199u, 500u}) EXPECT_EQ(f.access->data[s * 512], 0x77) << s;
  EXPECT_EQ(f.access->sectorsWritten, 350u);
  EXPECT_EQ(f.layout->roots().size(), 0u);
}
