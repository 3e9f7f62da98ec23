// The fuzz targets' seed corpora (made by tools/fuzz-seeds.sh with real tools) reach past the
// first checks of each reader: laid out as the targets lay them out, the GPT seeds read as
// tables with their partitions, the MBR seed as a chain of logical drives, the content seeds
// as the filesystems that made them.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "disk/DiskDrive.h"
#include "disk/PartitionedDisk.h"
#include "disk/layout/GptDisk.h"
#include "filesystem/Recognition.h"

using namespace Corvo::Disk;

namespace {

std::vector<uint8_t> seed(const std::string& name) {
  // This file lies in tests/disk/; the seeds in tests/fuzz/seeds/.
  std::string here = __FILE__;
  std::string tests = here.substr(0, here.rfind("/disk/") + 1);
  std::ifstream in(tests + "fuzz/seeds/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Sector s reads chunk s % chunks.size(), as in the tables target.
class ChunkAccess : public DiskDriveAccess {
 public:
  ChunkAccess(std::vector<std::vector<uint8_t>> chunks, uint64_t blocks) : chunks_(std::move(chunks)), blocks_(blocks) {}
  std::string path() const override { return "seed"; }
  Geometry getGeometry() const override { return {}; }
  uint64_t totalBlocks() const override { return blocks_; }
  void read(uint64_t first, uint64_t count, void* buffer) override {
    for (uint64_t s = first; s < first + count; ++s)
      std::memcpy(static_cast<uint8_t*>(buffer) + (s - first) * 512, chunks_[s % chunks_.size()].data(), 512);
  }
  void write(uint64_t, uint64_t, const void*) override {}

 private:
  std::vector<std::vector<uint8_t>> chunks_;
  uint64_t blocks_;
};

TEST(FuzzSeeds, GptSeedsHoldTheirPartitions) {
  struct Case {
    const char* name;
    size_t partitions;
  } cases[] = {{"gpt/two_entries", 2}, {"gpt/full_table", 3}};
  for (const Case& c : cases) {
    const std::vector<uint8_t> data = seed(c.name);
    ASSERT_FALSE(data.empty()) << c.name;
    // The first half from the first sector of an 8 MiB disk, the second half ending at its end.
    constexpr size_t kDisk = 8u << 20;
    std::vector<std::vector<uint8_t>> sectors(kDisk / 512, std::vector<uint8_t>(512, 0));
    const size_t head = data.size() / 2, tail = data.size() - head;
    for (size_t i = 0; i < head; ++i) sectors[i / 512][i % 512] = data[i];
    for (size_t i = 0; i < tail; ++i) sectors[(kDisk - tail + i) / 512][(kDisk - tail + i) % 512] = data[head + i];
    DiskDrive drive(0, std::make_unique<ChunkAccess>(std::move(sectors), kDisk / 512));
    auto gpt = loadGptDisk(drive);
    EXPECT_EQ(gpt->roots().size(), c.partitions) << c.name;
  }
}

TEST(FuzzSeeds, MbrSeedIsAChainOfLogicalDrives) {
  const std::vector<uint8_t> data = seed("tables/logical_chain");
  ASSERT_GT(data.size(), 4u + 512);
  std::vector<std::vector<uint8_t>> chunks;
  for (size_t off = 4; off < data.size(); off += 512) chunks.emplace_back(data.begin() + off, data.begin() + off + 512);
  DiskDrive drive(0, std::make_unique<ChunkAccess>(std::move(chunks), 409600));
  auto disk = PartitionedDisk::load(drive);
  size_t logical = 0;
  for (PartitionNode* n : disk->displayList()) logical += n->isLogical();
  EXPECT_EQ(logical, 2u);
}

TEST(FuzzSeeds, ContentSeedsAreRecognised) {
  namespace Fs = Corvo::Filesystem;
  struct Case {
    const char* name;
    uint8_t type;
    unsigned content;
  } cases[] = {{"content/fat12", 0x01, Fs::ctFat12},
               {"content/ext2", 0x83, Fs::ctExt2},
               {"content/ntfs", 0x07, Fs::ctNtfs},
               {"content/swap", 0x82, Fs::ctLinuxSwap}};
  for (const Case& c : cases) {
    const std::vector<uint8_t> data = seed(c.name);
    ASSERT_GT(data.size(), 512u) << c.name;
    EXPECT_EQ(data[0], c.type) << c.name;
    EXPECT_EQ(Fs::detectContent(data.data() + 1, data.size() - 1, 0), c.content) << c.name;
  }
  const std::vector<uint8_t> fat = seed("content/fat12");
  EXPECT_EQ(Fs::volumeLabelOf(fat.data() + 1, fat.size() - 1), "SEEDFAT");
}

}  // namespace
