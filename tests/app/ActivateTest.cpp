#include <gtest/gtest.h>

#include "app/Commands.h"
#include "app/FakeDisks.h"
#include "support/TestSupport.h"

using namespace Kdisk;
using namespace KdiskTest;

namespace {

// Display numbers: 1 NTFS active, 2 hidden FAT16, 3 extended (LBA), 4 hidden logical FAT16,
// 5 logical FAT32, 6 Linux, 7 Linux extended, 8 diagnostic (hidden, no visible form).
FakeLayout& standardDisk(FakeDiskTable& t) {
  FakeLayout& d = t.add(8000);
  d.addPrimary(63, 100, 0x07, true);
  d.addPrimary(200, 100, 0x16);
  d.addExtended(400, 4000, 0x0F);
  d.addLogical(463, 100, 0x16);
  d.addLogical(663, 100, 0x0B);
  d.addPrimary(5000, 100, 0x83);
  d.addPrimary(6000, 100, 0x85);
  d.addPrimary(7000, 100, 0xFE);
  return d;
}

}  // namespace

TEST(ActivateHide, RulesInOrder) {
  using Corvo::Core::setPromptMode;
  struct Case {
    CommandCode code;
    std::string p;
    int rc;
    std::string error, warning;
    int writes;
    unsigned number;   // partition to look at afterwards
    uint8_t type;      // its type afterwards
    bool active;       // its active flag afterwards
    std::string marker;
  } cases[] = {
      // What the command-line test cannot reach with sfdisk images: a Linux extended
      // partition, an FAT32 hidden form, a type without a visible form, an int overflow.
      {ccActivate, "/P:7", 1, "The extended partitions may not be set active\n", "", 0, 7, 0x85, false, ""},
      {ccActivate, "/P:99999999999", 2, "Invalid partition number -- 99999999999\n", "", 0, 1, 0x07, true, ""},
      {ccHide, "/P:5", 0, "", "", 1, 5, 0x1B, false, "*HIDDEN*"},
      {ccUnhide, "/P:8", 1, "Cannot unhide partitions of this type\n", "", 0, 8, 0xFE, false, ""},
  };
  for (const Case& c : cases) {
    FakeDiskTable t;
    FakeLayout& d = standardDisk(t);
    setPromptMode(Corvo::Core::pmAnswerYes);  // /Y
    ScopedCapture cap;
    const char* sw = c.code == ccActivate ? "/ACT" : c.code == ccDeactivate ? "/-ACT" : c.code == ccHide ? "/HIDE" : "/-HIDE";
    SwitchSet set({"kdisk", "1", sw, c.p});
    int rc = c.code <= ccDeactivate ? commandActivate(c.code, set) : commandHide(c.code, set);
    std::string what = std::string(sw) + " " + c.p;
    EXPECT_EQ(rc, c.rc) << what;
    EXPECT_EQ(cap.sink().errors, c.error) << what;
    EXPECT_EQ(cap.sink().warnings, c.warning) << what;
    EXPECT_EQ(d.writes, c.writes) << what;
    EXPECT_EQ(d.reloads, c.writes) << what;
    auto* n = d.byDisplayNumber(c.number);
    EXPECT_EQ(n->type, c.type) << what;
    EXPECT_EQ(n->active, c.active) << what;
    if (!c.marker.empty()) {
      EXPECT_NE(cap.sink().out.find(c.marker), std::string::npos) << what;
    }
    setPromptMode(Corvo::Core::pmAsk);
  }
}

TEST(ActivateHide, HidingTheOnlyActivePartitionOfTheBootDiskWarns) {
  for (bool boot : {true, false}) {
    FakeDiskTable t;
    standardDisk(t);
    t.lastAccess->bootDisk = boot;
    ScopedCapture cap;
    SwitchSet set({"kdisk", "1", "/HIDE", "/P:1"});
    EXPECT_EQ(commandHide(ccHide, set), 0);
    EXPECT_EQ(cap.sink().infos.find("No partitions are set active. Fixed disk 1 will not be bootable until a partition "
                                    "is set active") != std::string::npos,
              boot);
  }
}

TEST(ActivateHide, FailedTableWriteNamesTheStep) {
  FakeDiskTable t;
  FakeLayout& d = standardDisk(t);
  d.failWrites = true;
  ScopedCapture cap;
  SwitchSet set({"kdisk", "1", "/HIDE", "/P:1"});
  EXPECT_EQ(commandHide(ccHide, set), 1);
  EXPECT_EQ(cap.sink().errors, "Cannot hide partition -- injected write failure\n");
  EXPECT_EQ(d.reloads, 0);
}
