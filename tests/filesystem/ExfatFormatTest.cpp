// exFAT formatter: the up-case table against its published checksum, the layout at the cluster
// size boundaries, the write order (no prefix of the writes is taken for a volume, the main boot
// sector comes last after a flush), and a volume on 4096-byte sectors checked by fsck.exfat.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "disk/DiskDrive.h"
#include "filesystem/exfat/Exfat.h"
#include "filesystem/exfat/ExfatStructures.h"
#include "support/TestSupport.h"

using namespace Corvo;
using Filesystem::ExfatFormatOptions;
using Filesystem::formatExfat;
using Filesystem::planExfat;
using KdiskTest::MemoryAccess;
using KdiskTest::ScopedCapture;

namespace {

constexpr uint64_t kMiB = 1024 * 1024;

bool hasExfatName(const std::vector<uint8_t>& image) {
  return std::memcmp(image.data() + Filesystem::Exfat::Boot::fileSystemName.offset, "EXFAT   ", 8) == 0;
}

// A disk of 4096-byte sectors held in memory (a drive refuses writes on such disks for now).
class Sector4kDevice : public Disk::BlockDevice {
 public:
  explicit Sector4kDevice(uint64_t sectors) : data(sectors * 4096, 0) {}
  uint64_t blockCount() const override { return data.size() / 4096; }
  uint32_t bytesPerBlock() const override { return 4096; }
  std::vector<uint8_t> data;

 protected:
  void doRead(uint64_t first, uint64_t count, void* buffer) override {
    std::memcpy(buffer, &data[first * 4096], count * 4096);
  }
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override {
    std::memcpy(&data[first * 4096], buffer, count * 4096);
  }
};

}  // namespace

TEST(ExfatUpcase, IsTheRecommendedTable) {
  const std::vector<uint8_t>& table = Filesystem::exfatUpcaseTable();
  EXPECT_EQ(table.size(), 5836u);
  EXPECT_EQ(Filesystem::Exfat::tableChecksum(table.data(), table.size()), 0xE619D30Du);
}

// Cluster sizes switch above 256 MiB and 32 GiB; the FAT and the heap start on the alignment
// unit (the cluster, or 1 MiB with larger clusters); the FAT covers every cluster.
TEST(ExfatLayout, ClusterSizesAndAlignment) {
  struct Case {
    uint64_t bytes;
    uint32_t sectorBytes, clusterBytes, alignBytes;
  } cases[] = {
      {8 * kMiB, 512, 4096, 4096},          {256 * kMiB, 512, 4096, 4096},
      {256 * kMiB + 512, 512, 32768, kMiB}, {32768 * kMiB, 512, 32768, kMiB},
      {32768 * kMiB + 512, 512, 131072, kMiB}, {2 * kMiB << 20, 512, 131072, kMiB},
      {64 * kMiB, 4096, 4096, 4096},        {1024 * kMiB, 4096, 32768, kMiB},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    const Filesystem::ExfatLayout L = planExfat(c.bytes / c.sectorBytes, c.sectorBytes);
    EXPECT_EQ(L.clusterBytes(), c.clusterBytes);
    EXPECT_EQ(uint64_t{L.fatOffset} * c.sectorBytes % c.alignBytes, 0u);
    EXPECT_GE(L.fatOffset, 24u);
    EXPECT_EQ(uint64_t{L.clusterHeapOffset} * c.sectorBytes % c.alignBytes, 0u);
    EXPECT_GE(uint64_t{L.fatLength} * c.sectorBytes, (uint64_t{L.clusterCount} + 2) * 4);
    EXPECT_LE(L.clusterHeapOffset + uint64_t{L.clusterCount} * L.sectorsPerCluster, L.volumeSectors);
    EXPECT_GT(L.clusterHeapOffset + uint64_t{L.clusterCount + 1} * L.sectorsPerCluster, L.volumeSectors);
  }
  EXPECT_THROW(planExfat(kMiB / 512 - 1, 512), Core::Error);       // below 1 MiB
  EXPECT_THROW(planExfat(uint64_t{600} << 31, 512), Core::Error);  // 600 TiB: too many clusters
  EXPECT_THROW(planExfat(4096, 1024 * 8), Core::Error);            // no such sector size
}

// The old boot sector is cleared and flushed first; the backup boot region is flushed before the
// main boot sector, written last and flushed. A disk that stops after any write before the last
// holds no volume; the earlier volume survives only when nothing was written at all.
TEST(ExfatFormat, MainBootSectorComesLast) {
  const uint64_t sectors = 16 * kMiB / 512;
  ExfatFormatOptions options;
  options.label = "ORDER";
  options.serial = 0x12345678;
  auto owned = std::make_unique<MemoryAccess>(sectors);
  MemoryAccess& rec = *owned;
  rec.recording = true;
  Disk::DiskDrive drive(0, std::move(owned));
  {
    ScopedCapture quiet;
    formatExfat(drive, options);
  }
  const auto& log = rec.log;
  ASSERT_GE(log.size(), 6u);
  EXPECT_TRUE(log.back().flush);
  const auto& last = log[log.size() - 2];
  EXPECT_FALSE(last.flush);
  EXPECT_EQ(last.first, 0u);
  EXPECT_EQ(last.data.size(), 512u);
  EXPECT_TRUE(log[log.size() - 3].flush);
  EXPECT_EQ(log[log.size() - 4].first, Filesystem::Exfat::kBackupBootRegion);
  EXPECT_TRUE(log[log.size() - 5].flush);
  EXPECT_EQ(log[0].first, 0u);  // the old boot sector cleared ...
  EXPECT_TRUE(log[1].flush);    // ... and on the medium before anything new
  ASSERT_TRUE(hasExfatName(rec.data));

  for (size_t k = 0; k < rec.writes; ++k) {
    auto stopping = std::make_unique<MemoryAccess>(rec.data);  // an earlier volume is there
    MemoryAccess& s = *stopping;
    s.stopAfter = k;
    Disk::DiskDrive stopped(0, std::move(stopping));
    ScopedCapture quiet;
    EXPECT_THROW(formatExfat(stopped, options), Core::Error) << "stop after write " << k;
    EXPECT_EQ(hasExfatName(s.data), k == 0) << "stop after write " << k;
  }
}

TEST(ExfatFormat, FourKilobyteSectorsAreCleanForFsck) {
  if (!KdiskTest::haveTool("fsck.exfat")) GTEST_SKIP() << "needs fsck.exfat (exfatprogs)";
  Sector4kDevice device(64 * kMiB / 4096);
  ExfatFormatOptions options;
  options.label = "FOURK";
  {
    ScopedCapture quiet;
    formatExfat(device, options);
  }
  EXPECT_EQ(device.data[Filesystem::Exfat::Boot::bytesPerSectorShift.offset], 12);
  KdiskTest::TempDir dir;
  const std::string path = dir.file("4k.img");
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(device.data.data()), device.data.size());
  std::string out;
  EXPECT_EQ(KdiskTest::runCommand("fsck.exfat -n '" + path + "'", &out), 0) << out;
}
