// Which /sys/block names are fixed disks, their order, and the kernel update plan.
#include <gtest/gtest.h>

#include <algorithm>

#include "disk/access/LinuxDisks.h"

using namespace Corvo::Disk;
using namespace Corvo::Disk::LinuxDisks;

namespace {

TEST(LinuxDiskNames, WholeDisksOnly) {
  for (const char* yes : {"sda", "sdz", "sdaa", "vda", "xvdb", "nvme0n1", "nvme12n3", "mmcblk0"})
    EXPECT_TRUE(isWholeDiskName(yes)) << yes;
  for (const char* no : {"sda1", "vda2", "xvda1", "nvme0n1p1", "nvme0c0n1", "nvme0", "mmcblk0p1", "mmcblk0boot0",
                         "mmcblk0rpmb", "loop0", "ram0", "zram0", "sr0", "dm-0", "md0", "md127", "sd", "nvme0n",
                         "sdA", "fd0"})
    EXPECT_FALSE(isWholeDiskName(no)) << no;
}

TEST(LinuxDiskNames, NaturalOrder) {
  std::vector<std::string> expected = {"sda",     "sdb",     "sdz",     "sdaa",    "sdab", "sdba",
                                       "vda",     "xvda",    "nvme0n1", "nvme0n2", "nvme0n10",
                                       "nvme1n1", "nvme2n1", "mmcblk0", "mmcblk1", "mmcblk10"};
  std::vector<std::string> names = expected;
  std::reverse(names.begin(), names.end());
  std::swap(names[3], names[9]);
  std::sort(names.begin(), names.end(), diskNameLess);
  EXPECT_EQ(names, expected);
}

TEST(LinuxKernelPlan, DeletesResizesAdds) {
  auto entry = [](uint32_t n, uint64_t first, uint64_t count, bool container = false) {
    OsLayoutEntry e;
    e.number = n;
    e.firstBlock = first;
    e.blockCount = count;
    e.type = container ? 0x05 : 0x83;
    e.container = container;
    return e;
  };
  using S = KernelStep;
  struct Case {
    const char* what;
    std::vector<KernelPartition> current;
    std::vector<OsLayoutEntry> wanted;
    std::vector<std::tuple<S::Op, uint32_t, uint64_t, uint64_t>> steps;
  } cases[] = {
      {"nothing to do", {{1, 2048, 1000, "x1"}}, {entry(1, 2048, 1000)}, {}},
      {"new partition in free space leaves the others alone",
       {{1, 2048, 1000, "x1"}},
       {entry(1, 2048, 1000), entry(2, 4096, 500)},
       {{S::Add, 2, 4096, 500}}},
      {"deleted and moved partitions go first; a resize keeps its start",
       {{1, 2048, 1000, "x1"}, {2, 4096, 500, "x2"}, {3, 8192, 100, "x3"}},
       {entry(1, 2048, 2000), entry(2, 6000, 500)},
       {{S::Delete, 2, 4096, 500}, {S::Delete, 3, 8192, 100}, {S::Resize, 1, 2048, 2000}, {S::Add, 2, 6000, 500}}},
      {"shrinks before growths",
       {{1, 2048, 1000, "x1"}, {2, 4096, 1000, "x2"}},
       {entry(1, 2048, 2048), entry(2, 4096, 10)},
       {{S::Resize, 2, 4096, 10}, {S::Resize, 1, 2048, 2048}}},
      {"the extended partition is two sectors, as the kernel shows it",
       {{2, 4096, 2, "x2"}},
       {entry(2, 4096, 100000, true), entry(5, 6144, 2048)},
       {{S::Add, 5, 6144, 2048}}},
      {"empty layout removes everything", {{1, 2048, 1000, "x1"}, {5, 9000, 10, "x5"}}, {},
       {{S::Delete, 1, 2048, 1000}, {S::Delete, 5, 9000, 10}}},
  };
  for (const Case& c : cases) {
    OsLayout l;
    l.entries = c.wanted;
    std::vector<std::tuple<S::Op, uint32_t, uint64_t, uint64_t>> got;
    for (const KernelStep& s : planKernelUpdate(c.current, l)) got.emplace_back(s.op, s.number, s.start, s.size);
    EXPECT_EQ(got, c.steps) << c.what;
  }
}

}  // namespace
