#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "app/FixedDisks.h"
#include "app/FakeDisks.h"
#include "core/Config.h"
#include "disk/DiskDrive.h"
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

// Whatever goes wrong while one disk is opened or its tables are read (memory running out
// included) becomes that disk's own status; the disks around it keep their numbers and stay
// usable.
TEST(FixedDisks, AnyFailureIsThatDisksOwnStatus) {
  struct ReadRunsOutOfMemory : MemoryAccess {
    using MemoryAccess::MemoryAccess;
    void read(uint64_t, uint64_t, void*) override { throw std::bad_alloc(); }
  };
  struct Case {
    std::string path, status;  // status: empty for a usable disk
  } cases[] = {
      {"good-1", ""},
      {"alloc", "Cannot open alloc -- not enough memory"},
      {"throws", "Cannot open throws -- unexpected error: boom"},
      {"read-alloc", "Cannot read the partition tables -- not enough memory"},
      {"good-5", ""},
  };
  using namespace Corvo;
  Core::Config::clear();
  Core::Config::setBool("OsDrive::Disable", true);
  for (const Case& c : cases) Core::Config::append(Core::Config::kAddDiskKey, c.path);
  Disk::DiskManager& manager = Disk::DiskManager::instance();
  manager.setImageOpener([](const std::string& path) -> std::unique_ptr<Disk::DiskDriveAccess> {
    if (path == "alloc") throw std::bad_alloc();
    if (path == "throws") throw std::runtime_error("boom");
    if (path == "read-alloc") return std::make_unique<ReadRunsOutOfMemory>(2048);
    return std::make_unique<MemoryAccess>(2048);
  });
  manager.enumerate();
  buildFixedDiskTable();
  ASSERT_EQ(fixedDisks().size(), std::size(cases));
  std::string others;
  for (size_t i = 0; i < std::size(cases); ++i) {
    const FixedDisk& d = *fixedDisks()[i];
    EXPECT_EQ(d.index, i);
    EXPECT_EQ(d.ok(), cases[i].status.empty()) << cases[i].path;
    if (!cases[i].status.empty()) {
      EXPECT_EQ(d.status->text(), cases[i].status);
      others += "Cannot access fixed disk " + std::to_string(i + 1) + " -- " + cases[i].status + "\n";
    }
  }
  {
    ScopedCapture cap;
    ASSERT_NE(findDisk(4), nullptr);
    EXPECT_EQ(cap.sink().errors, others);
  }
  releaseFixedDiskTable();
  manager.setImageOpener(nullptr);
  manager.reset();
  Core::Config::clear();
}
