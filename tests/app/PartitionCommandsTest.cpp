// The creation and deletion routines where an image cannot reach: a failing disk layer, a
// failed re-read, a partition in use and the boot disk.
#include <gtest/gtest.h>

#include "core/Clock.h"
#include "core/Config.h"

#include <algorithm>

#include "app/CmdCreate.h"
#include "app/CmdDelete.h"
#include "app/FakeDisks.h"
#include "disk/Wipe.h"
#include "support/TestSupport.h"

using namespace Corvo::Disk;
using KdiskTest::ScopedCapture;

namespace {

// One memory disk as fixed disk 1, filled with 0x77; questions are asked and answered No.
struct Fixture {
  Fixture() {
    std::fill(access->data.begin(), access->data.end(), 0x77);
    Corvo::Core::Config::set(Corvo::Core::Config::kBackupFolderKey, backups.path());
  }
  ~Fixture() {
    Corvo::Core::setPromptMode(oldPrompt);
    Corvo::Core::Config::unset(Corvo::Core::Config::kBackupFolderKey);
  }
  KdiskTest::TempDir backups;  // the table backups of the commands
  Corvo::Core::PromptMode oldPrompt = Corvo::Core::setPromptMode(Corvo::Core::pmAsk);
  KdiskTest::FakeDiskTable table;
  KdiskTest::FakeLayout* layout = &table.add(16384);
  KdiskTest::MemoryAccess* access = table.lastAccess;
  Kdisk::FixedDisk& disk = *Kdisk::fixedDisks()[0];
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
    if (c.extended) f.layout->addExtended(100, 10, 0x05);
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
    f.access->bootDisk = c.boot;
    f.access->busy = c.busy;
    PartitionNode& pri = *f.layout->addPrimary(2048, 100, 0x06);
    PartitionNode& ext = *f.layout->addExtended(4096, 100, c.hiddenExtended ? 0x15 : 0x05);
    EXPECT_FALSE(c.hiddenExtended ? Kdisk::deleteExtendedDos(f.disk, ext, Corvo::Disk::wmDod, 0)
                                  : Kdisk::deletePrimaryDos(f.disk, pri, Corvo::Disk::wmDod, 0));
    EXPECT_EQ(f.cap.sink().questions, c.questions);
    EXPECT_EQ(f.cap.sink().errors, c.errors);
    EXPECT_EQ(f.layout->writes, 0);
    EXPECT_EQ(f.access->sectorsWritten, 0u);
  }
}

TEST(PartitionCommands, DeletingTheOnlyActivePartitionOfTheBootDiskWarns) {
  for (bool dos : {true, false}) {
    Fixture f;
    f.access->bootDisk = true;
    PartitionNode& n = *f.layout->addPrimary(2048, 100, dos ? 0x07 : 0x83, true);
    f.layout->addExtended(4096, 100, 0x85)->active = true;  // an active extended does not count
    EXPECT_TRUE(dos ? Kdisk::deletePrimaryDos(f.disk, n, Corvo::Disk::wmNone, 0) : Kdisk::deleteNonDos(f.disk, n, Corvo::Disk::wmNone, 0));
    EXPECT_EQ(f.cap.sink().infos,
              "The partition tables of fixed disk 1 are saved in " + f.backups.path() + "/" +
                  Corvo::Disk::tableBackupFileName("memory", Corvo::Core::currentTime()) +
                  "\nNo partitions are set active. Fixed disk 1 will not be startable until a partition is set active\n");
  }
}

TEST(PartitionCommands, WipeAllCoversExtendedGapsWithoutRewritingDrives) {
  Fixture f;
  f.layout->addPrimary(100, 50, 0x06);
  f.layout->addExtended(200, 300, 0x05);
  f.layout->addLogical(263, 100, 0x06);
  EXPECT_TRUE(Kdisk::deleteAllPartitions(f.disk, Corvo::Disk::wmQuick, 0));
  // The headings come first; the disk's table follows them.
  EXPECT_EQ(f.cap.sink().out.rfind("Wiping Partition 1:\nWiping Partition 2:\nWiping Partition 3:\n", 0), 0u);
  for (uint64_t s : {100u, 149u, 200u, 262u, 263u, 362u, 363u, 499u}) EXPECT_EQ(f.access->data[s * 512], 0) << s;
  for (uint64_t s : {99u, 150u, 199u, 500u}) EXPECT_EQ(f.access->data[s * 512], 0x77) << s;
  EXPECT_EQ(f.access->sectorsWritten, 350u);
  EXPECT_EQ(f.layout->roots().size(), 0u);
}
