// ext2 formatter: layouts at the size boundaries (block size, inode size, a dropped last group)
// checked by e2fsck and dumpe2fs; the write order (no prefix of the writes is taken for an
// ext2 filesystem); refusals that write nothing; quick zeroing of ranges.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>

#include "FatTestSupport.h"
#include "disk/DiskDrive.h"
#include "filesystem/Recognition.h"
#include "filesystem/ext2/Ext2.h"
#include "filesystem/ext2/Ext2Structures.h"
#include "support/TestSupport.h"

using namespace Corvo;
using Filesystem::computeExt2Layout;
using Filesystem::Ext2FormatOptions;
using Filesystem::formatExt2;
using KdiskTest::MemoryBlockDevice;
using KdiskTest::runCommand;
using KdiskTest::ScopedCapture;
using KdiskTest::TempDir;

namespace {

constexpr uint64_t kMiB = 2048;  // sectors

Ext2FormatOptions fixedOptions() {
  Ext2FormatOptions o;
  o.uuid = Filesystem::Ext2Uuid{1, 2, 3, 4, 5, 6, 0x47, 8, 0x89, 10, 11, 12, 13, 14, 15, 16};
  o.hashSeed = Filesystem::Ext2Uuid{9, 9, 9, 9, 9, 9, 0x49, 9, 0x89, 9, 9, 9, 9, 9, 9, 9};
  o.now = 1700000000;
  return o;
}

// The value of one "Name:   value" line of dumpe2fs -h.
std::string dumpField(const std::string& dump, const std::string& name) {
  const size_t at = dump.find("\n" + name + ":");
  if (at == std::string::npos) return {};
  size_t v = dump.find_first_not_of(" \t", at + name.size() + 2);
  return dump.substr(v, dump.find('\n', v) - v);
}

// The test disk under a drive, recording every write and flush; every write after the first
// `stopAfter` fails.
struct RecordingDisk {
  explicit RecordingDisk(uint64_t sectors, size_t stopAfter = SIZE_MAX)
      : mem(new KdiskTest::MemoryAccess(sectors)), drive(0, std::unique_ptr<KdiskTest::MemoryAccess>(mem)) {
    mem->recording = true;
    mem->stopAfter = stopAfter;
  }
  // "w first count" or "flush" for each event of the log.
  std::vector<std::string> events() const {
    std::vector<std::string> out;
    for (const auto& e : mem->log)
      out.push_back(e.flush ? "flush" : "w " + std::to_string(e.first) + " " + std::to_string(e.data.size() / 512));
    return out;
  }
  KdiskTest::MemoryAccess* mem;  // owned by the drive
  Disk::DiskDrive drive;
};

}  // namespace

// Sizes around every decision of the layout, each formatted into a sparse image and checked by
// e2fsck -fn and dumpe2fs: the block size switches at 512 MiB, small inodes below 3 MiB, a last
// group shorter than its metadata and 50 blocks is dropped (a longer one kept), and sizes that
// are not whole blocks leave the odd sectors unused.
TEST(Ext2Format, LayoutsAtTheBoundariesAreCleanForE2fsck) {
  if (!KdiskTest::haveTool("e2fsck") || !KdiskTest::haveTool("dumpe2fs")) GTEST_SKIP() << "needs e2fsck and dumpe2fs";
  // Group 1 of a 1 KiB filesystem starts at block 8193 and carries a superblock copy, one
  // descriptor block, two bitmaps and the inode table: its overhead with 256-byte inodes.
  const uint64_t twoGroups = 2 * 8192 + 1;  // blocks, the whole of two 1 KiB groups
  struct Case {
    const char* name;
    uint64_t sectors;
    uint32_t blockSize, inodeSize, groups;
    int64_t blocksLost;  // blocks of the device (whole blocks) the filesystem leaves out; -1: any
  } cases[] = {
      {"smallest layout: 20 blocks", 40, 1024, 128, 1, 0},
      {"smallest partition /CRE makes", 1 * kMiB, 1024, 128, 1, 0},
      {"tiny, odd sector count", 2 * kMiB + 1, 1024, 128, 1, 0},
      {"just over 3 MiB", 3 * kMiB, 1024, 256, 1, 0},
      {"exactly two groups", twoGroups * 2, 1024, 256, 2, 0},
      {"two groups and one block", (twoGroups + 1) * 2, 1024, 256, 2, 1},
      {"below 512 MiB", 512 * kMiB - 1, 1024, 256, 64, -1},
      {"512 MiB", 512 * kMiB, 4096, 256, 4, 0},
      {"four groups and 300 blocks", (4 * 32768 + 300) * 8, 4096, 256, 4, 300},
      {"four groups and 1000 blocks", (4 * 32768 + 1000) * 8 + 7, 4096, 256, 5, 0},
      // Bitmap runs that neither start nor end on a byte: the used blocks and the padding past a
      // short last group.
      {"two groups and 701 blocks", (twoGroups + 701) * 2, 1024, 256, 3, 0},
      {"four groups and 1003 blocks", (4 * 32768 + 1003) * 8, 4096, 256, 5, 0},
  };
  TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string image = dir.file("ext2.img");
    {
      KdiskTest::ImageFileDevice device(image, c.sectors);
      ScopedCapture quiet;
      formatExt2(device, fixedOptions());
    }
    std::string out;
    EXPECT_EQ(runCommand("e2fsck -fn " + image, &out), 0) << out;
    ASSERT_EQ(runCommand("dumpe2fs -h " + image + " 2>/dev/null", &out), 0) << out;
    EXPECT_EQ(dumpField(out, "Block size"), std::to_string(c.blockSize));
    EXPECT_EQ(dumpField(out, "Inode size"), std::to_string(c.inodeSize));
    const uint64_t blocks = std::stoull(dumpField(out, "Block count"));
    const uint64_t perGroup = std::stoull(dumpField(out, "Blocks per group"));
    const uint64_t first = std::stoull(dumpField(out, "First block"));
    EXPECT_EQ((blocks - first + perGroup - 1) / perGroup, c.groups);
    if (c.blocksLost >= 0) {
      EXPECT_EQ(c.sectors * 512 / c.blockSize - blocks, uint64_t(c.blocksLost));
    }
  }
}

TEST(Ext2Format, RefusalsWriteNothing) {
  struct Case {
    const char* name;
    uint64_t sectors;
    std::string label;
    Core::ErrorId id;
  } cases[] = {
      {"one block short of the smallest layout", 39, "", Core::ErrorId::FormatFailed},
      {"two sectors", 2, "", Core::ErrorId::FormatFailed},
      {"a label of 17 bytes", 8 * kMiB, "ABCDEFGHIJKLMNOPQ", Core::ErrorId::InvalidArgument},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingDisk disk(c.sectors);
    Ext2FormatOptions options = fixedOptions();
    options.label = c.label;
    ScopedCapture quiet;
    try {
      formatExt2(disk.drive, options);
      ADD_FAILURE() << "formatted";
    } catch (const Core::Error& e) {
      EXPECT_EQ(e.id(), c.id) << e.text();
    }
    EXPECT_TRUE(disk.mem->log.empty());
  }
}

// The old superblock is cleared and flushed before new metadata is written, and the new primary
// superblock is written last, after a flush: a format stopped after any number of writes is
// not recognised as ext2, and a finished one is, with its label.
TEST(Ext2Format, NoPrefixOfTheWritesLooksLikeAFilesystem) {
  for (uint64_t sectors : {3 * kMiB, 18 * kMiB}) {
    SCOPED_TRACE(sectors);
    RecordingDisk full(sectors);
    Ext2FormatOptions options = fixedOptions();
    options.label = "ORDER";
    {
      ScopedCapture quiet;
      formatExt2(full.drive, options);
    }
    const auto ev = full.events();
    const std::vector<uint8_t>& image = full.mem->data;
    ASSERT_GE(ev.size(), 6u);
    EXPECT_EQ(ev.front(), "w 0 8");  // the old superblock cleared first
    EXPECT_EQ(ev[1], "flush");
    EXPECT_EQ(ev[ev.size() - 3], "flush");
    EXPECT_EQ(ev[ev.size() - 2], "w 2 2");  // the primary superblock
    EXPECT_EQ(ev.back(), "flush");
    EXPECT_EQ(Filesystem::detectContent(image.data(), image.size(), 0), Filesystem::ctExt2);
    EXPECT_EQ(Filesystem::Ext2::volumeLabelOf(image.data(), image.size()), "ORDER");

    size_t writes = 0;
    for (const auto& e : ev) writes += e[0] == 'w';
    for (size_t allowed = 0; allowed < writes; ++allowed) {
      RecordingDisk cut(sectors, allowed);
      cut.mem->data = image;  // an earlier filesystem lies where the new one is written
      Ext2FormatOptions other = fixedOptions();
      other.now = 1800000000;
      ScopedCapture quiet;
      EXPECT_THROW(formatExt2(cut.drive, other), Core::Error);
      // No write at all leaves the earlier filesystem; any write clears it for good.
      EXPECT_EQ(Filesystem::detectContent(cut.mem->data.data(), cut.mem->data.size(), 0),
                allowed == 0 ? Filesystem::ctExt2 : Filesystem::ctNothing)
          << "after " << allowed << " writes";
    }
  }
}

// writeZeros on a device that only knows plain writes, on a range of a device, and on a disk
// image whose backend punches holes: exactly the range reads as zeros afterwards.
TEST(BlockDeviceZeros, ExactlyTheRangeBecomesZero) {
  TempDir dir;
  const std::string path = dir.file("ff.img");
  constexpr uint64_t kSectors = 8192;
  {
    std::ofstream f(path, std::ios::binary);
    const std::string ones(kSectors * 512, '\xFF');
    f.write(ones.data(), static_cast<std::streamsize>(ones.size()));
  }
  Disk::DiskDrive image(0, Disk::openImageDisk(path));
  MemoryBlockDevice memory(kSectors);
  std::fill(memory.data().begin(), memory.data().end(), 0xFF);
  Disk::RangeBlockDevice range(memory, 100, 5000);
  struct Case {
    const char* name;
    Disk::BlockDevice& device;
    uint64_t offset;  // of the device on the underlying bytes
    uint64_t first, count;
  } cases[] = {
      {"memory, one sector", memory, 0, 7, 1},
      {"memory, more than a transfer", memory, 0, 9, 4100},
      {"range of memory", range, 100, 4000, 1000},
      {"image file, unaligned", image, 0, 3, 3001},
      {"image file, to the end", image, 0, 6000, 2192},
  };
  const std::vector<uint8_t> ones(kSectors * 512, 0xFF);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    memory.data() = ones;
    image.write(0, kSectors, ones.data());
    c.device.writeZeros(c.first, c.count);
    std::vector<uint8_t> back(c.device.blockCount() * 512);
    c.device.read(0, c.device.blockCount(), back.data());
    for (uint64_t s = 0; s < c.device.blockCount(); ++s) {
      const bool inside = s >= c.first && s < c.first + c.count;
      if (back[s * 512] != (inside ? 0 : 0xFF) || back[s * 512 + 511] != (inside ? 0 : 0xFF)) {
        ADD_FAILURE() << "sector " << s << (inside ? " not zeroed" : " changed");
        break;
      }
    }
    EXPECT_THROW(c.device.writeZeros(c.device.blockCount() - 1, 2), Core::Error);
  }
  // Only the image zeros without writing; memory says so and stays unchanged.
  memory.data() = ones;
  EXPECT_FALSE(memory.zeroQuickly(0, 10));
  EXPECT_EQ(memory.data(), ones);
  image.write(0, kSectors, ones.data());
  ASSERT_TRUE(image.zeroQuickly(10, kSectors - 10));
  std::vector<uint8_t> back(kSectors * 512);
  image.read(0, kSectors, back.data());
  EXPECT_EQ(std::count(back.begin(), back.end(), 0), std::ptrdiff_t((kSectors - 10) * 512));
  // The image's zeroed sectors were given back to the file system, not written.
  image.flush();
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_LT(uint64_t(st.st_blocks) * 512, kSectors * 512);
}
