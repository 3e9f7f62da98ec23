// The wipe engine: passes, pattern, chunking, flushes, the verifying read and the retry of
// failed chunks.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "disk/Wipe.h"
#include "support/TestSupport.h"

using namespace Corvo::Disk;
using KdiskTest::FaultInjectingBlockDevice;
using KdiskTest::MemoryBlockDevice;
using KdiskTest::ScopedCapture;
using Corvo::Core::Error;
using Corvo::Core::ErrorId;

namespace {
// "first+count " for each extent.
std::string extentsText(const std::vector<WipeExtent>& extents) {
  std::string out;
  for (const WipeExtent& e : extents) out += std::to_string(e.first) + "+" + std::to_string(e.count) + " ";
  return out;
}

// Logs every transfer: (first, count, byte), the byte -1 for a read of the medium and -2 for a
// flush (first and count 0).
class RecordingDevice : public MemoryBlockDevice {
 public:
  RecordingDevice(uint64_t blocks, uint32_t chunk) : MemoryBlockDevice(blocks), chunk_(chunk) {}
  uint32_t preferredTransferBlocks() const override { return chunk_; }
  void flush() override { ops.push_back({0, 0, -2}); }
  struct Op {
    uint64_t first, count;
    int byte;
  };
  std::vector<Op> ops;

 protected:
  void doWriteMedium(uint64_t first, uint64_t count, const void* buffer) override {
    ops.push_back({first, count, *static_cast<const uint8_t*>(buffer)});
    MemoryBlockDevice::doWrite(first, count, buffer);
  }
  void doReadMedium(uint64_t first, uint64_t count, void* buffer) override {
    ops.push_back({first, count, -1});
    MemoryBlockDevice::doRead(first, count, buffer);
  }

 private:
  uint32_t chunk_;
};
}  // namespace

// Every writing pass is flushed before the next begins; the last pass of modes 2 and 3 reads
// the medium back.
TEST(Wipe, PassesPatternChunksAndFlushes) {
  EXPECT_EQ(wipePassCount(wmCustom, 100), 301u);
  struct Case {
    int mode;
    unsigned custom, writes;
  } cases[] = {{wmQuick, 0, 1}, {wmDod, 0, 18}, {wmCustom, 1, 3}, {wmCustom, 2, 6}};
  for (const Case& c : cases) {
    ScopedCapture cap;
    RecordingDevice dev(20, 8);
    std::memset(dev.data().data(), 0x77, dev.data().size());
    EXPECT_TRUE(wipeDevice(dev, c.mode, c.custom).empty());
    const bool verifies = c.mode != wmQuick;
    ASSERT_EQ(dev.ops.size(), c.writes * 4 + verifies * 3) << c.mode;
    int r = dev.ops.size() > 8 ? dev.ops[8].byte : 0;
    for (unsigned pass = 0; pass < c.writes + verifies; ++pass) {
      int expected = c.mode == wmQuick ? 0 : pass == c.writes ? -1 : pass % 3 == 0 ? 0x35 : pass % 3 == 1 ? 0xCA : r;
      for (unsigned k = 0; k < 3; ++k) {
        const auto& op = dev.ops[pass * 4 + k];
        EXPECT_EQ(op.byte, expected) << "pass " << pass;
        EXPECT_EQ(op.first, k * 8u);
        EXPECT_EQ(op.count, k == 2 ? 4u : 8u);
      }
      if (pass < c.writes) {
        EXPECT_EQ(dev.ops[pass * 4 + 3].byte, -2) << "no flush after pass " << pass;
      }
    }
  }
}

namespace {
// A device with a write cache in front of its medium: writes land in the cache and reach the
// medium at a flush; read() sees the cache, readMedium() only the medium. Faults: a flush that
// fails, one that reports success but keeps the data in the cache, sectors of the medium that
// never change, and a device that can only be read.
class CachedDevice : public BlockDevice {
 public:
  explicit CachedDevice(uint64_t blocks) : medium(blocks), cache(blocks * kSectorSize), dirty(blocks) {
    // 0x35 is a pattern byte the random last pass never draws, so a sector the wipe never
    // reached always differs from what the verifying pass expects.
    std::memset(medium.data().data(), 0x35, medium.data().size());
  }
  uint64_t blockCount() const override { return dirty.size(); }
  uint32_t preferredTransferBlocks() const override { return 16; }
  void flush() override {
    if (failFlush) throw Error(ErrorId::WriteFailed, "Cannot flush device -- injected");
    if (loseFlush) return;
    for (uint64_t s = 0; s < dirty.size(); ++s)
      if (dirty[s] && !stuck.count(s)) std::memcpy(medium.sector(s), &cache[s * kSectorSize], kSectorSize);
    std::fill(dirty.begin(), dirty.end(), false);
  }
  void requireWritable() const override {
    if (readOnly) throw Error(ErrorId::WriteProtected, "Cannot write device -- read-only");
  }
  MemoryBlockDevice medium;
  std::set<uint64_t> stuck;
  bool failFlush = false, loseFlush = false, readOnly = false;
  uint64_t writes = 0;

 protected:
  void doRead(uint64_t first, uint64_t count, void* buffer) override {
    for (uint64_t s = first; s < first + count; ++s)
      std::memcpy(static_cast<uint8_t*>(buffer) + (s - first) * kSectorSize,
                  dirty[s] ? &cache[s * kSectorSize] : medium.sector(s), kSectorSize);
  }
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override {
    requireWritable();
    ++writes;
    std::memcpy(&cache[first * kSectorSize], buffer, count * kSectorSize);
    std::fill(dirty.begin() + first, dirty.begin() + first + count, true);
  }
  void doReadMedium(uint64_t first, uint64_t count, void* buffer) override { medium.read(first, count, buffer); }

 private:
  std::vector<uint8_t> cache;
  std::vector<bool> dirty;
};
}  // namespace

// A wipe is only as good as what reaches the medium: lost flushes and sectors that do not
// change are reported as unwritten, a failed flush stops the wipe, and a read-only device is
// refused before anything is written or shown.
TEST(Wipe, VerifyingPassReadsTheMedium) {
  const struct {
    const char* name;
    int mode;
    std::set<uint64_t> stuck;
    bool failFlush, loseFlush, readOnly;
    ErrorId thrown;  // Internal: nothing thrown
    const char* unwritten;
    uint64_t writes;
  } cases[] = {
      {"sound", wmCustom, {}, false, false, false, ErrorId::Internal, "", 18},
      {"stuck sectors", wmDod, {3, 4, 39}, false, false, false, ErrorId::Internal,
"3+2 39+1 ", 54},
      {"lost flush", wmCustom, {}, false, true, false, ErrorId::Internal,
"0+40 ", 18},
      {"failed flush", wmDod, {}, true, false, false, ErrorId::WriteFailed, "", 3},
      {"read-only", wmQuick, {}, false, false, true, ErrorId::WriteProtected, "", 0},
  };
  for (const auto& c : cases) {
    ScopedCapture cap;
    CachedDevice dev(40);
    dev.stuck = c.stuck;
    dev.failFlush = c.failFlush;
    dev.loseFlush = c.loseFlush;
    dev.readOnly = c.readOnly;
    ErrorId thrown = ErrorId::Internal;
    std::vector<WipeExtent> bad;
    try {
      bad = wipeDevice(dev, c.mode, 2);
    } catch (const Error& e) {
      thrown = e.id();
    }
    EXPECT_EQ(thrown, c.thrown) << c.name;
    EXPECT_EQ(extentsText(bad), c.unwritten) << c.name;
    EXPECT_EQ(dev.writes, c.writes) << c.name;
    if (c.readOnly) {
      EXPECT_EQ(cap.sink().warnings, "") << "a refused wipe announced itself";
    }
    if (c.name == std::string("sound")) {
      // The last pass leaves its random byte everywhere.
      const uint8_t last = dev.medium.sector(0)[0];
      EXPECT_TRUE(last != 0x35 && last != 0xCA);
      for (uint64_t s = 0; s < 40; ++s) EXPECT_EQ(dev.medium.sector(s)[511], last) << s;
    }
  }
  EXPECT_EQ(unwrittenSectorsText({{3, 2}, {39, 1}}), "3 sectors could not be written");
  EXPECT_EQ(unwrittenSectorsText({{7, 1}}), "1 sector could not be written");
}

TEST(Wipe, FailedChunkIsRetriedSectorBySector) {
  ScopedCapture cap;
  MemoryBlockDevice mem(40);
  std::memset(mem.data().data(), 0x77, mem.data().size());
  FaultInjectingBlockDevice dev(mem);
  dev.badSectors = {5, 6, 30};
  EXPECT_EQ(extentsText(wipeDevice(dev, wmCustom, 1)), "5+2 30+1 ");
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
