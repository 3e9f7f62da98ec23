// VMDK backend against images made and checked by qemu-img.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "core/Endian.h"
#include "core/Error.h"
#include "disk/DiskDriveAccess.h"
#include "support/TestSupport.h"

using namespace Corvo::Disk;
using Corvo::Core::Error;
using Corvo::Core::ErrorId;
using Corvo::Core::get32;
using Corvo::Core::get64;
using KdiskTest::runCommand;

namespace {

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void run(const std::string& cmd) {
  std::string out;
  ASSERT_EQ(runCommand(cmd, &out), 0) << cmd << "\n" << out;
}

// qemu-img finds the VMDK sound and holding exactly `expected`.
void expectQemuReads(const KdiskTest::TempDir& dir, const std::string& vmdk, const std::vector<uint8_t>& expected) {
  const std::string raw = dir.file("want.raw");
  std::ofstream(raw, std::ios::binary)
      .write(reinterpret_cast<const char*>(expected.data()), static_cast<std::streamsize>(expected.size()));
  run("qemu-img check -q " + vmdk);
  run("qemu-img compare -q -f vmdk -F raw " + vmdk + " " + raw);
}

std::vector<uint8_t> readAll(DiskDriveAccess& d) {
  std::vector<uint8_t> all(d.totalBlocks() * 512);
  // Odd-sized transfers so reads cross grain boundaries at different offsets.
  for (uint64_t at = 0; at < d.totalBlocks();) {
    uint64_t n = std::min<uint64_t>(77, d.totalBlocks() - at);
    d.read(at, n, all.data() + at * 512);
    at += n;
  }
  return all;
}

class Vmdk : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (!KdiskTest::haveTool("qemu-img")) GTEST_SKIP() << "qemu-img is not installed";
  }
  // A raw image with scattered data, turned into a VMDK of the subformat under test.
  std::string makeVmdk(const std::string& name) {
    std::string raw = dir_.file("seed.raw");
    run("truncate -s 8M " + raw);
    std::ofstream f(raw, std::ios::binary | std::ios::in | std::ios::out);
    for (uint64_t sector : {0ull, 1ull, 130ull, 5000ull, 16383ull}) {
      std::string s(512, static_cast<char>('A' + sector % 26));
      f.seekp(static_cast<std::streamoff>(sector * 512));
      f.write(s.data(), 512);
    }
    f.close();
    std::string vmdk = dir_.file(name);
    run("qemu-img convert -f raw -O vmdk -o subformat=" + std::string(GetParam()) + " " + raw + " " + vmdk);
    return vmdk;
  }
  std::vector<uint8_t> expectedRaw(const std::string& vmdk) {
    std::string raw = dir_.file("expected.raw");
    run("qemu-img convert -O raw " + vmdk + " " + raw);
    return readFile(raw);
  }
  KdiskTest::TempDir dir_;
};

TEST_P(Vmdk, ReadsLikeQemuRawConversion) {
  std::string empty = dir_.file("empty.vmdk");
  run("qemu-img create -q -f vmdk -o subformat=" + std::string(GetParam()) + " " + empty + " 3M");
  for (const std::string& path : {empty, makeVmdk("data.vmdk")}) {
    auto d = openImageDisk(path);
    EXPECT_FALSE(d->supportsOsLayout());
    EXPECT_FALSE(d->isBootDisk());
    EXPECT_EQ(readAll(*d), expectedRaw(path)) << path;
  }
  // qemu-img writes an IDE geometry into the descriptor.
  auto d = openImageDisk(empty);
  EXPECT_EQ(d->getGeometry().heads, 16u);
  EXPECT_EQ(d->getGeometry().sectorsPerTrack, 63u);
  EXPECT_EQ(d->totalBlocks(), 6144u);
}

TEST_P(Vmdk, WritesAreSeenByQemu) {
  std::string vmdk = makeVmdk("w.vmdk");
  std::vector<uint8_t> expected = expectedRaw(vmdk);
  struct Write {
    uint64_t first, count;
  } writes[] = {
      {0, 1},       // inside an allocated grain
      {127, 3},     // across a grain boundary
      {1000, 300},  // several fresh grains
      {16380, 4},   // the last sectors
      {1000, 1},    // again into a grain allocated above
  };
  {
    auto d = openImageDisk(vmdk);
    uint8_t fill = 1;
    for (const Write& w : writes) {
      std::vector<uint8_t> data(w.count * 512, fill++);
      d->write(w.first, w.count, data.data());
      std::copy(data.begin(), data.end(), expected.begin() + static_cast<std::ptrdiff_t>(w.first * 512));
    }
    d->flush();
    EXPECT_EQ(readAll(*d), expected);
  }
  expectQemuReads(dir_, vmdk, expected);
  EXPECT_EQ(readAll(*openImageDisk(vmdk)), expected);
}

INSTANTIATE_TEST_SUITE_P(Subformats, Vmdk, ::testing::Values("monolithicFlat", "monolithicSparse"));

TEST(VmdkFlat, RelativeExtentAndDefaultGeometry) {
  KdiskTest::TempDir dir;
  run("mkdir " + dir.file("sub") + " && truncate -s 1M " + dir.file("sub/data.bin"));
  std::ofstream(dir.file("sub/disk.vmdk")) << "# Disk DescriptorFile\nversion=1\nparentCID=ffffffff\n"
                                              "createType=\"monolithicFlat\"\nRW 1024 FLAT \"data.bin\" 512\n"
                                              "RDONLY 100 ZERO\n";
  auto d = openImageDisk(dir.file("sub/disk.vmdk"));
  EXPECT_EQ(d->totalBlocks(), 1124u);
  EXPECT_EQ(d->getGeometry().heads, 255u);
  EXPECT_EQ(d->getGeometry().sectorsPerTrack, 63u);
  std::vector<uint8_t> s(512, 0x5A);
  d->write(0, 1, s.data());  // lands at sector 512 of data.bin
  EXPECT_EQ(readFile(dir.file("sub/data.bin"))[512 * 512], 0x5A);
  EXPECT_THROW(d->write(1024, 1, s.data()), Error);  // the read-only zero extent
  d->read(1100, 1, s.data());
  EXPECT_EQ(s, std::vector<uint8_t>(512, 0));
}

// A grain directory entry without a table: the first write there makes the table (both
// copies) as well as the grain.
TEST(VmdkSparse, WriteCreatesMissingGrainTable) {
  if (!KdiskTest::haveTool("qemu-img")) GTEST_SKIP() << "qemu-img is not installed";
  KdiskTest::TempDir dir;
  std::string vmdk = dir.file("t.vmdk");
  run("qemu-img create -q -f vmdk " + vmdk + " 64M");  // two grain tables of 32 MiB each
  std::vector<uint8_t> head = readFile(vmdk);
  uint64_t rgd = get64(head.data() + 48), gd = get64(head.data() + 56);
  {
    std::fstream f(vmdk, std::ios::binary | std::ios::in | std::ios::out);
    for (uint64_t dirSector : {gd, rgd}) {
      f.seekp(static_cast<std::streamoff>(dirSector * 512 + 4));
      f.write("\0\0\0\0", 4);
    }
  }
  std::vector<uint8_t> data(2 * 512, 0xC3);
  {
    auto d = openImageDisk(vmdk);
    d->write(70000, 2, data.data());
    std::vector<uint8_t> back(2 * 512);
    d->read(70000, 2, back.data());
    EXPECT_EQ(back, data);
  }
  std::vector<uint8_t> after = readFile(vmdk);
  EXPECT_NE(get32(after.data() + gd * 512 + 4), 0u);
  EXPECT_NE(get32(after.data() + rgd * 512 + 4), 0u);
  EXPECT_NE(get32(after.data() + gd * 512 + 4), get32(after.data() + rgd * 512 + 4));
  std::vector<uint8_t> want(64 << 20, 0);
  std::copy(data.begin(), data.end(), want.begin() + 70000 * 512);
  expectQemuReads(dir, vmdk, want);
}

}  // namespace
