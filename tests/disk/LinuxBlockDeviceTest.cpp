// The Linux block-device backend: which /sys/block names are fixed disks and their order, the
// kernel update plan, and a loop device this test makes itself, checked against the kernel's own
// view in sysfs (reads, writes, read-only devices and busy partitions: the loop CLI scripts).
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "disk/access/LinuxDisks.h"
#include "disk/MbrTestSupport.h"

using namespace Corvo::Disk;
using namespace Corvo::Disk::LinuxDisks;
using KdiskTest::runCommand;

namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::string s;
  std::getline(in, s);
  return s;
}

using KdiskTest::osEntry;

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
    return KdiskTest::osEntry(n, first, count, container ? 0x05 : 0x83, container);
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

class LoopDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "loop devices need root";
    if (!KdiskTest::haveTool("losetup")) GTEST_SKIP() << "losetup is not installed";
    std::string out;
    ASSERT_EQ(runCommand("truncate -s 64M " + dir_.file("disk.img"), &out), 0) << out;
    if (runCommand("losetup -f --show -P " + dir_.file("disk.img"), &out) != 0)
      GTEST_SKIP() << "losetup cannot attach an image here: " << out;
    loop_ = out.substr(0, out.find('\n'));
    name_ = loop_.substr(loop_.rfind('/') + 1);
    attached_.push_back(loop_);
  }
  void TearDown() override {
    for (const std::string& dev : attached_) runCommand("losetup -d " + dev);
  }
  std::string sys(const std::string& part, const std::string& attr) {
    return slurp("/sys/block/" + name_ + "/" + part + "/" + attr);
  }
  bool partitionShown(int n) {
    return access(("/sys/block/" + name_ + "/" + name_ + "p" + std::to_string(n)).c_str(), F_OK) == 0;
  }
  static OsLayout twoPartitions() {
    OsLayout l;
    l.entries.push_back(osEntry(1, 2048, 40960, 0x83));
    l.entries.push_back(osEntry(2, 43008, 20480, 0x83));
    return l;
  }

  KdiskTest::TempDir dir_;
  std::string loop_, name_;
  std::vector<std::string> attached_;  // every loop device this test made, by exact name
};

TEST_F(LoopDevice, LayoutUpdateAddsResizesAndRemovesKernelPartitions) {
  auto disk = openImageDisk(loop_);
  disk->setNativePartitionLayout(twoPartitions());
  ASSERT_TRUE(partitionShown(1));
  ASSERT_TRUE(partitionShown(2));
  EXPECT_EQ(sys(name_ + "p1", "start"), "2048");
  EXPECT_EQ(sys(name_ + "p1", "size"), "40960");
  EXPECT_EQ(sys(name_ + "p2", "start"), "43008");
  EXPECT_EQ(sys(name_ + "p2", "size"), "20480");

  // Partition 2 grows, partition 1 moves, an extended partition with one logical drive.
  OsLayout next;
  next.entries.push_back(osEntry(1, 4096, 8192, 0x83));
  next.entries.push_back(osEntry(2, 43008, 40960, 0x83));
  next.entries.push_back(osEntry(3, 90112, 20480, 0x05, true));
  next.entries.push_back(osEntry(5, 92160, 18432, 0x83));
  disk->setNativePartitionLayout(next);
  EXPECT_EQ(sys(name_ + "p1", "start"), "4096");
  EXPECT_EQ(sys(name_ + "p1", "size"), "8192");
  EXPECT_EQ(sys(name_ + "p2", "size"), "40960");
  EXPECT_EQ(sys(name_ + "p3", "size"), "2");
  EXPECT_EQ(sys(name_ + "p5", "start"), "92160");

  disk->setNativePartitionLayout(OsLayout{});
  for (int n : {1, 2, 3, 5}) EXPECT_FALSE(partitionShown(n)) << n;
}

}  // namespace
