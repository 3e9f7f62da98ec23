#include <gtest/gtest.h>

#include "app/FakeDisks.h"
#include "app/CmdStatus.h"
#include "core/Endian.h"
#include "filesystem/ntfs/Ntfs.h"
#include "support/TestSupport.h"

using namespace Kdisk;
using namespace KdiskTest;

namespace {
std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  size_t p = 0;
  for (size_t nl; (nl = text.find('\n', p)) != std::string::npos; p = nl + 1) out.push_back(text.substr(p, nl - p));
  return out;
}
}  // namespace

TEST(Status, PartitionsInDisplayOrderWithRemovedOneInItsOldPlace) {
  FakeDiskTable t;
  FakeLayout& d = t.add(204800);
  d.addPrimary(2048, 20480, 0x06, true);
  d.addExtended(100000, 100000, 0x05);
  d.addLogical(100063, 2048, 0x83);
  d.addLogical(110063, 4096, 0x99);
  d.addPrimary(30000, 4096, 0x17);
  d.facts_.problems = {"The extended boot record at sector 110062 has no 55 AA signature"};
  ScopedCapture cap;
  PartitionMark mark{104000, 2048, 0x07, Corvo::Disk::PartitionRole::Logical, "*DELETED*", true};
  printDiskStatus(*fixedDisks()[0], &mark);
  auto out = lines(cap.sink().out);
  ASSERT_EQ(out.size(), 11u) << cap.sink().out;
  EXPECT_EQ(out[4], "Partition  Id  Type         Volume Label         Size  System      Usage      Active");
  EXPECT_EQ(out[1], "   1         12    255       63      100.0MB  Memory disk");
  EXPECT_EQ(out[3], "Partitions on fixed disk 1 (MBR):");
  // Nothing was formatted: the System column names no content, whatever the types say.
  EXPECT_EQ(out[5], "        1  06  FAT16                           10.0MB              PRIMARY    Yes");
  EXPECT_EQ(out[6], "        2  05                                  48.8MB              EXTENDED");
  EXPECT_EQ(out[7], "        3  83  LINUX                            1.0MB              LOGICAL");
  EXPECT_EQ(out[8], "        -  07  NTFS/HPFS                        1.0MB              LOGICAL            *DELETED*");
  EXPECT_EQ(out[9], "        4  99  UNKNOWN                          2.0MB              LOGICAL");
  EXPECT_EQ(out[10], "        5  17  NTFS/HPFS                        2.0MB              PRIMARY");
  EXPECT_EQ(cap.sink().warnings, "Fixed disk 1 -- The extended boot record at sector 110062 has no 55 AA signature\n");
}

// Sizes count the disk's own sectors: 4096 sectors of 4 KiB are 16 MB.
TEST(Status, SizesOnADiskOf4KiBSectors) {
  FakeDiskTable t;
  FakeLayout& d = t.add(25600, Corvo::Disk::PartitionScheme::Mbr, 4096);
  d.addPrimary(256, 4096, 0x83);
  ScopedCapture cap;
  printDiskStatus(*fixedDisks()[0]);
  auto out = lines(cap.sink().out);
  ASSERT_EQ(out.size(), 6u) << cap.sink().out;
  EXPECT_EQ(out[1], "   1          1    255       63      100.0MB  Memory disk");
  EXPECT_EQ(out[5], "        1  83  LINUX                           16.0MB              PRIMARY");
}

TEST(Status, NtfsVolumeNameFromTheVolumeFileRecord) {
  FakeDiskTable t;
  FakeLayout& d = t.add(4096);
  d.addPrimary(1000, 3000, 0x07);
  Corvo::Disk::RangeBlockDevice partition(*fixedDisks()[0]->drive, 1000, 3000);
  ScopedCapture cap;
  Corvo::Filesystem::NtfsFormatOptions options;
  options.versionCode = 6;
  options.label = "KD\xc3\x89TE";
  Corvo::Filesystem::formatNtfs(partition, options);
  cap.sink().out.clear();
  printDiskStatus(*fixedDisks()[0]);
  EXPECT_NE(cap.sink().out.find("  07  NTFS/HPFS    KD\xc3\x89TE "), std::string::npos) << cap.sink().out;
  EXPECT_NE(cap.sink().out.find("  NTFS/HPFS   PRIMARY"), std::string::npos) << cap.sink().out;
}
