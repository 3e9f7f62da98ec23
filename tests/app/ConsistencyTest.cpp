// The partition table checks over hand-made partition trees.
#include <gtest/gtest.h>

#include <functional>

#include "app/Consistency.h"
#include "app/FakeDisks.h"
#include "support/TestSupport.h"

using namespace KdiskTest;
using Corvo::Disk::PartitionScheme;

namespace {

// An extended partition at 50000 with logical drives at 50063 and, through a link entry, at
// 60063 (2000 sectors each).
FakeLayout& chain(FakeLayout& d, bool activeLogical = false) {
  d.addExtended(50000, 20000);
  d.addLogical(50063, 2000, 0x07, activeLogical);
  d.addLogical(60063, 2000, 0x07);
  return d;
}
// The link entry holding the second logical drive of chain().
FakeLayout::Node& link(FakeLayout& d) { return *d.roots().back()->children[1]; }

TEST(Consistency, Findings) {
  struct Case {
    const char* what;
    bool bootDisk;
    PartitionScheme scheme;
    std::function<void(FakeLayout&)> build;
    std::string expected;  // information lines, in order
  };
  const auto mbr = PartitionScheme::Mbr;
  const Case cases[] = {
      {"empty boot disk", true, mbr, [](FakeLayout&) {}, ""},
      {"healthy chain, one active", true, mbr,
       [](FakeLayout& d) {
         d.addPrimary(63, 1000, 0x07, true);
         chain(d);
       },
       ""},
      {"boot disk without active partition", true, mbr, [](FakeLayout& d) { d.addPrimary(63, 1000, 0x07); },
       "Fixed disk 1 does not have an active partition\n"},
      {"other disk without active partition", false, mbr, [](FakeLayout& d) { d.addPrimary(63, 1000, 0x07); }, ""},
      {"GPT boot disk", true, PartitionScheme::Gpt, [](FakeLayout& d) { d.addPrimary(2048, 1000, 0); }, ""},
      {"two active partitions", false, mbr,
       [](FakeLayout& d) {
         d.addPrimary(63, 1000, 0x07, true);
         d.addPrimary(2000, 1000, 0x07, true);
       },
       "Fixed disk 7 has 2 active partitions\n"},
      {"primaries sharing sectors", false, mbr,
       [](FakeLayout& d) {
         d.addPrimary(63, 1000, 0x07);
         d.addPrimary(1000, 1000, 0x07);
       },
       "Fixed disk 1 has overlapping drives\n"},
      {"extended partition over a primary", false, mbr,
       [](FakeLayout& d) {
         d.addPrimary(49000, 2000, 0x07);
         d.addExtended(50000, 20000, 0x05);
       },
       "Fixed disk 1 has overlapping MBR partitions\n"},
      {"past the end", false, mbr, [](FakeLayout& d) { d.addPrimary(90000, 20000, 0x07); },
       "Fixed disk 1 has partition(s) that extend past the end of the disk\n"},
      {"logical drive past the extended partition", false, mbr,
       [](FakeLayout& d) { chain(d).addLogical(69000, 2000, 0x07); },
       "Fixed disk 1 has logical DOS drive(s) that extend past the end of the extended DOS partition\n"},
      {"logical drive past its auxiliary partition", false, mbr,
       [](FakeLayout& d) { link(chain(d)).children[0]->blockCount = 3000; },
       "Fixed disk 1 has logical DOS drive(s) that extend past the end of their auxiliary partitions\n"},
      {"active logical drive", true, mbr, [](FakeLayout& d) { chain(d, true); },
       "Fixed disk 1 has an active partition that is not bootable\n"},
      {"empty auxiliary partition", false, mbr, [](FakeLayout& d) { link(chain(d)).children.clear(); },
       "Fixed disk 1 has empty auxiliary partition(s) that are consuming disk space unnecessarily\n"},
      {"reader facts", false, mbr,
       [](FakeLayout& d) {
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
       [](FakeLayout& d) {
         d.addPrimary(63, 1000, 0x07, true);
         d.addPrimary(500, 1000, 0x07, true);
         link(chain(d, true)).children.clear();
         d.addPrimary(95000, 10000, 0x07);
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
    FakeDiskTable t;
    FakeLayout& disk = t.add(100000, c.scheme);
    c.build(disk);
    ScopedCapture capture;
    const uint32_t index = c.expected.starts_with("Fixed disk 7") ? 6 : 0;  // messages count disks from 1
    bool printed = Kdisk::checkPartitionTables(disk, index, c.bootDisk);
    EXPECT_EQ(capture.sink().infos, c.expected);
    EXPECT_EQ(printed, !c.expected.empty());
    EXPECT_EQ(capture.sink().errors + capture.sink().warnings, "");
  }
}

}  // namespace
