// Size scanning, FAT limits and type choice of /CRE; passes, pattern, chunking and retry of
// the partition wipe.
#include <gtest/gtest.h>

#include <cstring>

#include "app/PartitionCommands.h"
#include "app/Wipe.h"
#include "support/TestSupport.h"

using namespace Kdisk;
using KdiskTest::FaultInjectingBlockDevice;
using KdiskTest::MemoryBlockDevice;
using KdiskTest::ScopedCapture;

TEST(CreateValues, PartitionSize) {
  const uint64_t disk1000MB = 1000 * 2048 + 1024;  // 1000.5 MB
  const struct {
    const char* text;
    SizeStatus status;
    int mb;
  } cases[] = {{"100", SizeStatus::Ok, 100},     {" 7", SizeStatus::Ok, 7},         {"50P", SizeStatus::Ok, 500},
               {"50p", SizeStatus::Ok, 500},     {"33%", SizeStatus::Ok, 330},      {"100P", SizeStatus::Ok, 1000},
               {"101%", SizeStatus::Invalid, 0}, {"0", SizeStatus::Invalid, 0},     {"-5", SizeStatus::Invalid, 0},
               {"50MB", SizeStatus::Invalid, 0}, {"50M", SizeStatus::Invalid, 0},   {"", SizeStatus::Invalid, 0},
               {"P", SizeStatus::Invalid, 0},    {"0P", SizeStatus::Invalid, 0},    {"99999999999", SizeStatus::Ok, 2147483647}};
  for (const auto& c : cases) {
    int mb = 0;
    EXPECT_EQ(parsePartitionSize(c.text, disk1000MB, mb), c.status) << c.text;
    EXPECT_EQ(mb, c.mb) << c.text;
  }
  int mb = 0;  // 1 per cent of 99 MB is below one MB, 2 per cent is one
  EXPECT_EQ(parsePartitionSize("1P", 99 * 2048, mb), SizeStatus::TooSmall);
  EXPECT_TRUE(parsePartitionSize("2P", 99 * 2048, mb) == SizeStatus::Ok && mb == 1);
  for (const char* bad : {"3x", "0", "", "x", "-1"}) EXPECT_FALSE(scanPositiveNumber(bad, mb)) << bad;
  EXPECT_TRUE(scanPositiveNumber(" 3", mb) && mb == 3);
}

// The limits' edges and the type index from the type byte or, for GPT entries, the size; the
// command-line tests prove the messages and the formats.
TEST(CreateValues, FatLimitsAndTypeChoice) {
  EXPECT_EQ(fatLimitMessage(true, 2048, true, false), nullptr);
  EXPECT_NE(fatLimitMessage(true, 2049, true, false), nullptr);
  EXPECT_EQ(fatLimitMessage(true, 4095, false, true), nullptr);
  EXPECT_EQ(fatLimitMessage(true, 0, true, true), nullptr);  // no /SZ: largest possible
  const struct {
    uint8_t type;
    uint64_t blocks;
    bool fat32, nt;
    int index;
  } types[] = {{0x01, 9, true, false, 0},       {0x04, 9, true, false, 1},       {0x06, 9, true, false, 1},
               {0x0E, 9, true, false, 1},       {0x0B, 9, true, false, 2},       {0x0C, 9, true, false, 2},
               {0x00, 32773, true, false, 0},   {0x00, 32774, true, false, 1},   {0x00, 1048576, true, false, 1},
               {0x00, 1048577, true, false, 2}, {0x00, 1048577, true, true, 1},  {0x00, 1048577, false, false, 1},
               {0x00, 8387873, false, true, 2}};
  for (const auto& t : types) EXPECT_EQ(fatTypeIndexFor(t.type, t.blocks, t.fat32, t.nt), t.index) << t.blocks;
}

namespace {
// Logs every transfer: (first, count, byte or -1 for a verify).
class RecordingDevice : public MemoryBlockDevice {
 public:
  RecordingDevice(uint64_t blocks, uint32_t chunk) : MemoryBlockDevice(blocks), chunk_(chunk) {}
  uint32_t preferredTransferBlocks() const override { return chunk_; }
  struct Op {
    uint64_t first, count;
    int byte;
  };
  std::vector<Op> ops;

 protected:
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override {
    ops.push_back({first, count, *static_cast<const uint8_t*>(buffer)});
    MemoryBlockDevice::doWrite(first, count, buffer);
  }
  void doVerify(uint64_t first, uint64_t count) override { ops.push_back({first, count, -1}); }

 private:
  uint32_t chunk_;
};
}  // namespace

TEST(Wipe, PassesPatternAndChunks) {
  EXPECT_EQ(wipePassCount(wmCustom, 100), 301u);
  struct Case {
    int mode;
    unsigned custom, writes;
  } cases[] = {{wmQuick, 0, 1}, {wmDod, 0, 18}, {wmCustom, 1, 3}, {wmCustom, 2, 6}};
  for (const Case& c : cases) {
    ScopedCapture cap;
    RecordingDevice dev(20, 8);
    std::memset(dev.data().data(), 0x77, dev.data().size());
    EXPECT_TRUE(wipeDevice(dev, c.mode, c.custom, 1, 1).empty());
    const bool verifies = c.mode != wmQuick;
    ASSERT_EQ(dev.ops.size(), (c.writes + verifies) * 3) << c.mode;
    int r = dev.ops.size() > 6 ? dev.ops[6].byte : 0;
    for (unsigned pass = 0; pass < c.writes + verifies; ++pass) {
      int expected = c.mode == wmQuick ? 0 : pass == c.writes ? -1 : pass % 3 == 0 ? 0x35 : pass % 3 == 1 ? 0xCA : r;
      for (unsigned k = 0; k < 3; ++k) {
        const auto& op = dev.ops[pass * 3 + k];
        EXPECT_EQ(op.byte, expected) << "pass " << pass;
        EXPECT_EQ(op.first, k * 8u);
        EXPECT_EQ(op.count, k == 2 ? 4u : 8u);
      }
    }
  }
}

TEST(Wipe, FailedChunkIsRetriedSectorBySector) {
  ScopedCapture cap;
  MemoryBlockDevice mem(40);
  std::memset(mem.data().data(), 0x77, mem.data().size());
  FaultInjectingBlockDevice dev(mem);
  dev.badSectors = {5, 6, 30};
  EXPECT_EQ(wipeDevice(dev, wmCustom, 1, 3, 2).size(), 2u);
  EXPECT_EQ(cap.sink().errors,
            "Cannot write sectors 5 to 6 of partition 3 on fixed disk 2\n"
            "Cannot write sectors 30 to 30 of partition 3 on fixed disk 2\n");
  for (uint64_t s = 0; s < 40; ++s) EXPECT_EQ(mem.sector(s)[0], (s == 5 || s == 6 || s == 30) ? 0x77 : mem.sector(0)[0]) << s;
  // One chunk (all 40 sectors) per pass, plus 40 single-sector retries per pass.
  EXPECT_EQ(dev.transfers, 4u * (1 + 40));
}

TEST(Wipe, RandomByteAvoidsPatternBytes) {
  for (unsigned seed = 0; seed < 2000; ++seed) {
    std::srand(seed);
    uint8_t r = drawWipeRandomByte();
    ASSERT_TRUE(r != 0x35 && r != 0xCA) << seed;
  }
}
