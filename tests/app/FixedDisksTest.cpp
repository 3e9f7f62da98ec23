#include <gtest/gtest.h>

#include "app/FixedDisks.h"
#include "app/FakeDisks.h"
#include "support/TestSupport.h"

using namespace Kdisk;
using namespace KdiskTest;

namespace {
SwitchSet line(std::vector<std::string> args) {
  args.insert(args.begin(), "kdisk");
  return SwitchSet(args);
}
}  // namespace

TEST(FixedDisks, ParseDiskNumber) {
  struct Case {
    std::vector<std::string> args;
    uint32_t index;
    std::string error;
  } cases[] = {
      {{"1"}, 0, ""},
      {{"/STATUS", "12"}, 11, ""},
      {{"0"}, kNoDisk, "Invalid fixed disk number -- 0\n"},
      {{"-1"}, kNoDisk, "Invalid fixed disk number -- -1\n"},
      {{"2x"}, kNoDisk, "Invalid fixed disk number -- 2x\n"},
      {{"x"}, kNoDisk, "Invalid fixed disk number -- x\n"},
      {{"99999999999"}, kNoDisk, "Invalid fixed disk number -- 99999999999\n"},
      {{"/STATUS"}, kNoDisk, "Required parameter missing -- fixed disk number\n"},
  };
  for (const Case& c : cases) {
    ScopedCapture cap;
    EXPECT_EQ(parseDiskNumber(line(c.args)), c.index) << c.args[0];
    EXPECT_EQ(cap.sink().errors, c.error) << c.args[0];
  }
}

TEST(FixedDisks, FindDiskReportsOtherInaccessibleDisks) {
  FakeDiskTable t;
  t.add(100);
  t.addBroken("sector 0 unreadable");
  t.add(100);
  {
    ScopedCapture cap;
    FixedDisk* d = findDisk(2);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->index, 2u);
    EXPECT_EQ(cap.sink().errors, "Cannot access fixed disk 2 -- sector 0 unreadable\n");
  }
  {
    ScopedCapture cap;
    EXPECT_EQ(findDisk(1), nullptr);
    EXPECT_EQ(cap.sink().errors, "Cannot access fixed disk 2 -- sector 0 unreadable\n");
  }
  {
    ScopedCapture cap;
    EXPECT_EQ(findDisk(5), nullptr);
    EXPECT_EQ(cap.sink().errors, "No such fixed disk -- 6\n");
  }
}

TEST(FixedDisks, SelectDiskList) {
  struct Case {
    std::vector<std::string> args;
    bool bootDisk;  // the third disk is the boot disk
    int rc;
    std::vector<uint32_t> list;
    std::string error;
  } cases[] = {
      {{"2"}, false, 0, {1}, ""},
      {{"x"}, false, 0, {kNoDisk}, "Invalid fixed disk number -- x\n"},
      {{"/DISKWIPE"}, false, 2, {}, "Required parameter missing -- fixed disk number\n"},
      {{"/DISK:all"}, false, 0, {0, 1, 2}, ""},
      {{"/DISK:ALLX"}, false, 0, {0, 1, 2}, ""},
      {{"/DISK:Systemx"}, true, 0, {2}, ""},
      {{"/DISK:SYSTEM"}, false, 2, {}, "Failed to determine system disk\n"},
      {{"/DISK:AL"}, false, 2, {}, "Invalid disk parameter: AL\n"},
      {{"3", "/DISK:ALL"}, false, 2, {},
       "Conflicting disk parameters. Specify either disk number or disk parameter.\n"},
      {{"x", "/DISK:ALL"}, false, 0, {0, 1, 2}, "Invalid fixed disk number -- x\n"},
  };
  for (const Case& c : cases) {
    FakeDiskTable t;
    t.add(100);
    t.add(100);
    t.add(100);
    t.lastAccess->bootDisk = c.bootDisk;
    ScopedCapture cap;
    std::vector<uint32_t> list;
    EXPECT_EQ(selectDiskList(line(c.args), list), c.rc) << c.args[0];
    EXPECT_EQ(list, c.list) << c.args[0];
    EXPECT_EQ(cap.sink().errors, c.error) << c.args[0];
  }
}
