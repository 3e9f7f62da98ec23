#include <gtest/gtest.h>

#include "app/Commands.h"
#include "app/FakeDisks.h"
#include "app/Status.h"
#include "core/Endian.h"
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
  EXPECT_EQ(out[5], "        1  06  FAT16                           10.0MB  FAT16       PRIMARY    Yes");
  EXPECT_EQ(out[6], "        2  05                                  48.8MB              EXTENDED");
  EXPECT_EQ(out[7], "        3  83  LINUX                            1.0MB  EXT2FS      LOGICAL");
  EXPECT_EQ(out[8], "        -  07  NTFS/HPFS                        1.0MB  NTFS/HPFS   LOGICAL            *DELETED*");
  EXPECT_EQ(out[9], "        4  99  UNKNOWN                          2.0MB              LOGICAL");
  EXPECT_EQ(out[10], "        5  17  NTFS/HPFS                        2.0MB  NTFS/HPFS   PRIMARY");
  EXPECT_EQ(cap.sink().warnings, "Fixed disk 1 -- The extended boot record at sector 110062 has no 55 AA signature\n");
}

TEST(Status, SwitchesAndRawTables) {
  FakeDiskTable t;
  FakeLayout& d = t.add(204800);
  Corvo::Disk::RawBootRecord mbr;
  uint8_t* e = mbr.bytes.data() + 446;
  e[0] = 0x80, e[1] = 32, e[2] = 33, e[3] = 0, e[4] = 0x0C, e[5] = 0xFE, e[6] = 0xFF, e[7] = 0xFF;
  Corvo::Core::put32(e + 8, 2048);
  Corvo::Core::put32(e + 12, 202752);
  mbr.bytes[510] = 0x55, mbr.bytes[511] = 0xAA;
  d.raw = {mbr};
  struct Case {
    std::vector<std::string> args;
    int rc;
    std::string error, outLine;
  } cases[] = {
      {{"/RAW", "/LBA"}, 2, "Conflicting switches. Specify either /RAW or /LBA\n", ""},
      {{"/STAT"}, 2, "Unknown switch -- /STAT\n", ""},
      {{"1", "2"}, 2, "Too many parameters -- 2\n", ""},
      {{"2"}, 1, "No such fixed disk -- 2\n", ""},
      {{"1", "/SER"}, 0, "", "   1         12    255       63      100.0MB  SN-0001"},
      {{"/LBA"}, 0, "", "   1    80    0C          2048        202752"},
      {{"1", "/RAW"}, 0, "", "   1    80    0C          0   32  33       1023  254  63"},
  };
  for (const Case& c : cases) {
    ScopedCapture cap;
    std::vector<std::string> args = {"kdisk"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    SwitchSet set(args);
    EXPECT_EQ(commandStatus(set), c.rc) << c.args[0];
    EXPECT_EQ(cap.sink().errors, c.error) << c.args[0];
    if (!c.outLine.empty()) {
      EXPECT_NE(cap.sink().out.find(c.outLine + "\n"), std::string::npos) << cap.sink().out;
    }
  }
}
