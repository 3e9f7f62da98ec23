#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/Config.h"
#include "core/Endian.h"
#include "disk/PartitionedDisk.h"
#include "disk/layout/BiosBootRecord.h"
#include "disk/layout/PartitionTypes.h"

using namespace Corvo::Disk;
namespace Config = Corvo::Core::Config;

namespace {
class ConfigReset : public ::testing::Test {
 protected:
  void TearDown() override { Config::unset("BiosBootRecord::MaxoutCylinder"); }
};
using BiosBootRecordTest = ConfigReset;
}  // namespace

TEST_F(BiosBootRecordTest, EmptyAndFromBuffer) {
  BiosBootRecord r;
  EXPECT_TRUE(r.hasSignature());
  BiosBootRecord noTable(false, 0);
  EXPECT_EQ(noTable.getBootCode().size(), 0u);
  BiosBootRecord blank(true, 4, nullptr);
  EXPECT_FALSE(blank.hasSignature());
  EXPECT_TRUE(blank.isAllZero());

  uint8_t img[512] = {};
  img[446 + 16 + 4] = 0x83;  // slot 1 type only
  img[446 + 32] = 0x80;      // slot 2: only the status byte
  BiosBootRecord r2(true, 4, img);
  EXPECT_TRUE(r2.isSlotEmpty(0));
  EXPECT_FALSE(r2.isSlotEmpty(1));
  EXPECT_EQ(r2.getType(1), 0x83);
  EXPECT_FALSE(r2.isSlotEmpty(2));
  EXPECT_EQ(r2.getType(2), 0);  // loads as free: type 0
  // Slot 4 and beyond select nothing.
  EXPECT_TRUE(r2.isSlotEmpty(4));
  r2.setType(4, 0x07);
  r2.setActive(7);
  EXPECT_EQ(std::memcmp(r2.data(), img, 512), 0);
}

TEST_F(BiosBootRecordTest, ActivationTouchesOnlyWhatItShould) {
  BiosBootRecord r;
  r.setActive(0);
  EXPECT_TRUE(r.isActive(0));
  r.setActive(2);
  EXPECT_FALSE(r.isActive(0));
  EXPECT_TRUE(r.isActive(2));
  r.data()[446] = 0x80;  // slot 0 active again by hand
  r.deactivate(2);
  EXPECT_TRUE(r.isActive(0));
  EXPECT_FALSE(r.isActive(2));
  BiosBootRecord noTable(false, 4);
  noTable.setActive(1);
  EXPECT_FALSE(noTable.isActive(1));
  EXPECT_EQ(noTable.getStatus(1), 0);
}

TEST_F(BiosBootRecordTest, ChsConversionAndClamping) {
  struct Case {
    uint64_t block;
    uint8_t type;
    Chs chs;
    bool overflow;
  } cases[] = {
      {0, 0x83, {0, 0, 1}, false},
      {62, 0x83, {0, 0, 63}, false},
      {63, 0x83, {0, 1, 1}, false},
      {16065, 0x83, {1, 0, 1}, false},
      {1023ull * 16065 + 16064, 0x06, {1023, 254, 63}, false},
      {1024ull * 16065, 0x06, {1022, 254, 63}, true},  // cylinder-limited: 1022
      {1024ull * 16065, 0x83, {1023, 254, 63}, true},  // others: 1023
      {1024ull * 16065, 0x05, {1023, 254, 63}, true},
  };
  for (const auto& c : cases) {
    bool overflow = false;
    EXPECT_EQ(BiosBootRecord::blockToChs(c.block, c.type, 255, 63, &overflow), c.chs) << c.block;
    EXPECT_EQ(overflow, c.overflow) << c.block;
  }
  Config::setInt("BiosBootRecord::MaxoutCylinder", 1000);
  EXPECT_EQ(BiosBootRecord::blockToChs(2000ull * 16065, 0x06, 255, 63).cylinder, 1000u);
  EXPECT_THROW(BiosBootRecord::blockToChs(5, 0x06, 0, 63), Corvo::Core::Error);
}

TEST_F(BiosBootRecordTest, SetSlotLbaSwitch) {
  const uint64_t cyl = 16065;
  struct Case {
    uint64_t start, count;
    uint8_t type, stored;
    Chs startChs, endChs;
  } cases[] = {
      // Starts beyond cylinder 1023: cylinder-limited types take the LBA form.
      {1100 * cyl, 100 * cyl, 0x06, 0x0E, {1022, 254, 63}, {1022, 254, 63}},
      {1100 * cyl, 100 * cyl, 0x0B, 0x0C, {1022, 254, 63}, {1022, 254, 63}},
      {1100 * cyl, 100 * cyl, 0x83, 0x83, {1023, 254, 63}, {1023, 254, 63}},
      {1100 * cyl, 100 * cyl, 0x05, 0x05, {1023, 254, 63}, {1023, 254, 63}},  // 0x05 never switches
      // Starts below, ends beyond: type kept, only the end clamped.
      {63, 2000 * cyl, 0x06, 0x06, {0, 1, 1}, {1022, 254, 63}},
      {cyl, 2 * cyl, 0x06, 0x06, {1, 0, 1}, {2, 254, 63}},
  };
  for (const auto& c : cases) {
    BiosBootRecord r;
    r.data()[446 + 16] = 0x80;
    r.setSlot(1, c.start, c.count, c.type, 255, 63);
    EXPECT_EQ(r.getType(1), c.stored);
    EXPECT_EQ(r.getStatus(1), 0);
    EXPECT_EQ(r.getSlotChs(1, false), c.startChs);
    EXPECT_EQ(r.getSlotChs(1, true), c.endChs);
    EXPECT_EQ(r.getStartBlock(1), c.start);
    EXPECT_EQ(r.getBlockCount(1), c.count);
  }
  BiosBootRecord r;
  EXPECT_THROW(r.setSlot(0, 1ull << 32, 10, 0x83, 255, 63), Corvo::Core::Error);
  // Relative start with an absolute CHS base (extended boot records).
  r.setSlot(0, 63, cyl - 63, 0x83, 255, 63, 2 * cyl);
  EXPECT_EQ(r.getSlotChs(0, false), (Chs{2, 1, 1}));
  EXPECT_EQ(r.getStartBlock(0), 63u);
}

// Slot bytes as other tools write them, read back field by field; the two high bits of the
// sector byte are cylinder bits 8 and 9.
TEST(BiosBootRecordSlot, DecodesStoredBytes) {
  struct {
    uint8_t bytes[16];
    Chs start, end;
  } cases[] = {
      {{0x80, 0x01, 0x01, 0x00, 0x07, 0xFE, 0xFF, 0xFF, 0x3F, 0, 0, 0, 0x41, 0x1F, 0x01, 0}, {0, 1, 1}, {1023, 254, 63}},
      {{0x00, 0x00, 0x41, 0x05, 0x83, 0x10, 0x81, 0x00, 0, 0x08, 0, 0, 0, 0x10, 0, 0}, {261, 0, 1}, {512, 16, 1}},
      {{0x00, 0x00, 0x02, 0x00, 0xEE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, {0, 0, 2}, {1023, 255, 63}},
  };
  for (const auto& c : cases) {
    uint8_t image[512] = {};
    std::memcpy(image + 446 + 16, c.bytes, 16);
    const BiosBootRecord r(true, 4, image);
    EXPECT_EQ(r.getStatus(1), c.bytes[0]);
    EXPECT_EQ(r.getType(1), c.bytes[4]);
    EXPECT_EQ(r.getSlotChs(1, false), c.start);
    EXPECT_EQ(r.getSlotChs(1, true), c.end);
    EXPECT_EQ(r.getStartBlock(1), Corvo::Core::get32(c.bytes + 8));
    EXPECT_EQ(r.getBlockCount(1), Corvo::Core::get32(c.bytes + 12));
    EXPECT_EQ(r.isProtectiveSlot(1, 0xFFFFFFFF), c.bytes[4] == 0xEE);
    // Writing the protective slot gives the stored bytes of the last case exactly.
    BiosBootRecord w(true, 4, image);
    w.setProtectiveSlot(1, 0xFFFFFFFF);
    EXPECT_EQ(std::memcmp(w.data() + 446 + 16, cases[2].bytes, 16), 0);
    EXPECT_EQ(w.getSignature(), 0);  // the signature is the caller's to set
  }
}

TEST_F(BiosBootRecordTest, DiskIdentifiers) {
  BiosBootRecord r;
  r.data()[0] = 0xEB;  // some unrecognised boot code
  EXPECT_FALSE(r.isBootCodeRecognised());
  EXPECT_FALSE(r.is9xIdAvailable());
  Corvo::Core::put32(r.data() + 220, 0x11223344);
  r.setWindows9xId(0xCAFEBABE);
  r.regenerateWindows9xId();
  EXPECT_EQ(Corvo::Core::get32(r.data() + 220), 0x11223344u);
  r.setWindowsNtId(0xA1B2C3D4);
  EXPECT_EQ(r.getWindowsNtId(), 0xA1B2C3D4u);
  r.clearWindowsNtId();
  EXPECT_EQ(r.getWindowsNtId(), 0u);
  std::vector<uint8_t> code(500, 0x90);
  r.setBootCode(code.data(), code.size());
  EXPECT_EQ(r.data()[445], 0x90);
  EXPECT_EQ(r.data()[446], 0);  // the slot table is never touched
}

TEST(PartitionTypesTest, TableRowsAndFallback) {
  auto table = partitionTypeTable();
  for (size_t i = 1; i < table.size(); ++i) EXPECT_LT(table[i - 1].type, table[i].type);
  struct Case {
    uint8_t type;
    const char* name;
    int category;
    bool lba, hidden;
  } cases[] = {
      {0x00, "UNUSED", 6, false, true}, {0x07, "NTFS/HPFS", 3, false, false}, {0x0F, "", 4, true, false},
      {0x1F, "", 5, true, true},        {0x70, "", 1, false, false},           {0xEF, "EFI System", 2, true, false},
      {0xA0, "DIAGNOSTIC", 12, false, true}, {0x99, "UNKNOWN", 6, false, false}, {0xEE, "UNKNOWN", 6, false, false},
  };
  for (const auto& c : cases) {
    PartitionTypeInfo row = lookupPartitionType(c.type);
    EXPECT_EQ(row.type, c.type);
    EXPECT_STREQ(row.name, c.name) << int(c.type);
    EXPECT_EQ(row.category, c.category) << int(c.type);
    EXPECT_EQ(row.lba, c.lba) << int(c.type);
    EXPECT_EQ(row.hidden, c.hidden) << int(c.type);
  }
  EXPECT_STREQ(partitionKindName(21002), "Recovery");
}

TEST(PartitionTypesTest, ClassesAndForms) {
  int hiddenForms = 0;
  for (int t = 0; t < 256; ++t) {
    uint8_t type = static_cast<uint8_t>(t);
    uint8_t hidden = hiddenFormOfType(type);
    if (hidden != type) {
      ++hiddenForms;
      EXPECT_EQ(hidden, type + 0x10);
      EXPECT_EQ(visibleFormOfType(hidden), type);
    }
    // The front end's hidden flag agrees with the node's view.
    PartitionNode n;
    n.type = type;
    EXPECT_EQ(n.isHiddenType(), lookupPartitionType(type).hidden);
  }
  EXPECT_EQ(hiddenForms, 9);
  // The LBA forms and cylinder limits are proven through setSlot above and on sfdisk images.
  EXPECT_EQ(lbaFormOfType(0x1B), 0x1C);
  EXPECT_TRUE(isExtendedClassType(0x85));
}
