// A partition wipe that fails leaves the partition table alone: a read-only disk is refused
// before the first pass, a failed flush and sectors that do not read back as written fail the
// deletion with exit code 1 and no table write.
#include <gtest/gtest.h>

#include <algorithm>

#include "app/FakeDisks.h"
#include "app/CmdDelete.h"
#include "disk/Wipe.h"
#include "support/TestSupport.h"

TEST(WipeFailure, TableIsNotTouched) {
  const struct {
    const char* name;
    Corvo::Disk::WipeMode mode;
    bool readOnly, failFlush;
    std::set<uint64_t> unreadable;
    const char* errors;
    bool wrote;
  } cases[] = {
      {"read-only", Corvo::Disk::wmDod, true, false, {}, "Cannot wipe primary DOS partition -- Cannot write memory -- read-only\n",
       false},
      {"failed flush", Corvo::Disk::wmQuick, false, true, {},
       "Cannot wipe primary DOS partition -- Cannot flush memory -- injected\n", true},
      {"unreadable sectors", Corvo::Disk::wmCustom, false, false, {2100, 2101},
       "Cannot write sectors 52 to 53 of partition 1 on fixed disk 1\n"
       "Cannot wipe primary DOS partition -- 2 sectors could not be written\n",
       true},
  };
  for (const auto& c : cases) {
    KdiskTest::FakeDiskTable table;
    KdiskTest::FakeLayout& layout = table.add(16384);
    KdiskTest::MemoryAccess& access = *table.lastAccess;
    std::fill(access.data.begin(), access.data.end(), 0x77);
    access.readOnly = c.readOnly;
    access.failFlush = c.failFlush;
    access.badSectors = c.unreadable;
    Corvo::Disk::PartitionNode& node = *layout.addPrimary(2048, 100, 0x06);
    KdiskTest::ScopedCapture cap;
    EXPECT_FALSE(Kdisk::deletePrimaryDos(*Kdisk::fixedDisks()[0], node, c.mode, 1)) << c.name;
    EXPECT_EQ(cap.sink().errors, c.errors) << c.name;
    EXPECT_EQ(layout.writes, 0) << c.name;
    EXPECT_EQ(layout.roots().size(), 1u) << c.name;
    EXPECT_EQ(access.sectorsWritten > 0, c.wrote) << c.name;
  }
}
