// FAT formatter: layouts across the size boundaries checked against an integer model of the
// layout rules, and every formatted image checked by fsck.fat and mtools.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <fstream>
#include <sstream>

#include "FatTestSupport.h"
#include "core/Endian.h"
#include "disk/DiskDrive.h"
#include "filesystem/Recognition.h"
#include "filesystem/fat/Fat.h"
#include "support/TestSupport.h"

using namespace Corvo;
using Corvo::Core::get16;
using Corvo::Core::get32;
using KdiskTest::CaptureSink;
using KdiskTest::ImageFileDevice;
using KdiskTest::runCommand;
using KdiskTest::ScopedCapture;
using KdiskTest::TempDir;

namespace {

// The layout rules restated in exact integer arithmetic (two FAT entries are bits/4 bytes).
struct Expected {
  uint32_t spc = 0, reserved = 0, fatSectors = 0, rootSectors = 0, clusters = 0;
  uint64_t claimedTotal = 0;
};

Expected expectedLayout(int type, uint64_t total) {
  struct Rules {
    unsigned bits;
    uint32_t minSpc, maxSpc, reserved, root;
    uint64_t maxClusters;
  };
  static const Rules kRules[] = {{12, 8, 8, 1, 32, 0xFF7}, {16, 4, 128, 1, 32, 0xFFF7}, {32, 0, 0, 32, 0, 0x0FFFFFF7}};
  const Rules& r = kRules[type];
  const uint64_t T = std::min<uint64_t>(total, 0xFFFFFFFF);
  Expected e;
  auto trial = [&](uint32_t spc, bool align) {
    uint64_t a = (T - r.reserved - r.root) * 512 - r.bits / 4;
    uint64_t c = std::min<uint64_t>(a / (r.bits / 4 + 512ull * spc) + 2, r.maxClusters);
    uint64_t f = (c * r.bits + 4095) / 4096;
    uint32_t res = r.reserved;
    if (align) res += (8 - (res + 2 * f) % 8) % 8;
    uint64_t d = (T - res - 2 * f - r.root) / spc * spc;
    uint64_t n = std::min<uint64_t>(f * 4096 / r.bits, r.maxClusters);
    uint64_t data = std::min(d, (n - 2) * spc);
    e = {spc, res, uint32_t(f), r.root, uint32_t(data / spc), 0};
    return T - res - 2 * f - r.root - data;  // remainder
  };
  uint64_t remainder;
  if (type == 2) {
    const uint64_t gib = 2097152;  // sectors
    uint32_t spc = T <= 8 * gib ? 8 : T <= 16 * gib ? 16 : T <= 32 * gib ? 32 : 64;
    remainder = trial(spc, true);
  } else {
    uint32_t spc = r.minSpc;
    while ((remainder = trial(spc, false)) >= spc && spc * 2 <= r.maxSpc) spc *= 2;
  }
  // Readers decide FAT12/FAT16/FAT32 by the cluster count: stay below 4085 and 65525.
  const uint32_t limit = uint32_t(r.maxClusters - 3);
  if (e.clusters > limit) {
    remainder += uint64_t(e.clusters - limit) * e.spc;
    e.clusters = limit;
  }
  e.claimedTotal = remainder >= e.spc ? T - remainder : T;
  return e;
}

std::string mtoolsEnv() { return "MTOOLS_SKIP_CHECK=1 "; }

std::vector<uint8_t> readFile(const std::string& path, size_t offset, size_t length) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  std::vector<uint8_t> data(length, 0);
  in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(length));
  return data;
}

// Counts transfers so tests can see how the formatter writes.
class CountingDevice : public Disk::BlockDevice {
 public:
  explicit CountingDevice(Disk::BlockDevice& inner) : inner_(inner) {}
  uint64_t blockCount() const override { return inner_.blockCount(); }
  uint64_t writes = 0, sectorsWritten = 0;
  std::vector<uint64_t> firstSectors;

 protected:
  void doRead(uint64_t first, uint64_t count, void* buffer) override { inner_.read(first, count, buffer); }
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override {
    ++writes;
    sectorsWritten += count;
    firstSectors.push_back(first);
    inner_.write(first, count, buffer);
  }

 private:
  Disk::BlockDevice& inner_;
};

bool haveFatTools() {
  return KdiskTest::haveTool("fsck.fat") && KdiskTest::haveTool("mcopy") && KdiskTest::haveTool("mdir");
}

// fsck.fat -n must accept the image without a single remark.
void expectFsckClean(const std::string& image) {
  std::string out;
  int rc = runCommand("fsck.fat -n " + image, &out);
  EXPECT_EQ(rc, 0) << out;
  std::istringstream lines(out);
  std::string line;
  while (std::getline(lines, line)) {
    bool expected = line.rfind("fsck.fat ", 0) == 0 || line.find(" files, ") != std::string::npos;
    EXPECT_TRUE(expected) << "fsck.fat remark: " << line << "\n" << out;
  }
}

}  // namespace

struct SizeCase {
  int type;
  uint64_t sectors;
  uint32_t spc;  // hand-checked cluster size, 0 when only the model decides
};

std::string sizeCaseName(const ::testing::TestParamInfo<SizeCase>& i) {
  return std::string(i.param.type == 0 ? "FAT12_" : i.param.type == 1 ? "FAT16_" : "FAT32_") +
         std::to_string(i.param.sectors);
}

class FatSizeSweep : public ::testing::TestWithParam<SizeCase> {};

TEST_P(FatSizeSweep, LayoutMatchesRulesAndToolsAccept) {
  if (!haveFatTools()) GTEST_SKIP() << "needs fsck.fat and mtools (dosfstools, mtools)";
  const SizeCase c = GetParam();
  TempDir dir;
  const std::string image = dir.file("fat.img");
  const Expected e = expectedLayout(c.type, c.sectors);
  if (c.spc) {
    ASSERT_EQ(e.spc, c.spc) << "model disagrees with the hand-checked cluster size";
  }
  {
    ImageFileDevice dev(image, c.sectors);
    CountingDevice counting(dev);
    ScopedCapture capture;
    Filesystem::FatFormatOptions options;
    options.hiddenSectors = 2048;
    Filesystem::formatFat(counting, c.type, options);
    // Only the reserved area, the FATs and the root directory are written, each sector once.
    const uint32_t rootWritten = c.type == 2 ? e.spc : e.rootSectors;
    EXPECT_EQ(counting.sectorsWritten, uint64_t(e.reserved) + 2 * e.fatSectors + rootWritten);
    EXPECT_EQ(counting.firstSectors.back(), 0u) << "the boot sector is written last";
    EXPECT_LE(counting.writes, 2 * (e.fatSectors / 2048 + 2) + e.reserved + 2);
    EXPECT_NE(capture.sink().out.find("Format complete.\n"), std::string::npos);
  }

  const std::vector<uint8_t> boot = readFile(image, 0, 512);
  const uint8_t* b = boot.data();
  EXPECT_EQ(b[13], e.spc);
  EXPECT_EQ(get16(b + 14), e.reserved);
  EXPECT_EQ(b[16], 2);
  EXPECT_EQ(b[21], 0xF8);
  EXPECT_EQ(get32(b + 28), 2048u);
  if (e.claimedTotal < 65536) {
    EXPECT_EQ(get16(b + 19), e.claimedTotal);
    EXPECT_EQ(get32(b + 32), 0u);
  } else {
    EXPECT_EQ(get16(b + 19), 0);
    EXPECT_EQ(get32(b + 32), e.claimedTotal);
  }
  if (c.type == 2) {
    EXPECT_EQ(get16(b + 22), 0);
    EXPECT_EQ(get32(b + 36), e.fatSectors);
    EXPECT_EQ(get16(b + 17), 0);
    EXPECT_EQ(get32(b + 44), 2u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(b + 82), 8), "FAT32   ");
    EXPECT_EQ((uint64_t(e.reserved) + 2 * e.fatSectors) % 8, 0u) << "data area not 4 KB aligned";
    const std::vector<uint8_t> info = readFile(image, 512, 512);
    EXPECT_EQ(get32(info.data() + 488), e.clusters - 1) << "FSInfo free count";
    EXPECT_EQ(readFile(image, 6 * 512, 512), boot) << "backup boot sector";
  } else {
    EXPECT_EQ(get16(b + 22), e.fatSectors);
    EXPECT_EQ(get16(b + 17), 512);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(b + 54), 8), c.type == 0 ? "FAT12   " : "FAT16   ");
  }
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b + (c.type == 2 ? 71 : 43)), 11), "NO NAME    ");
  EXPECT_EQ(Filesystem::detectContent(b, 512, 0), unsigned(Filesystem::ccFat12 + c.type));

  expectFsckClean(image);
  std::string out;
  runCommand("fsck.fat -n " + image, &out);
  EXPECT_NE(out.find("/" + std::to_string(e.clusters) + " clusters"), std::string::npos) << out;

  // mtools writes a file and reads the same bytes back.
  const std::string src = dir.file("in.bin"), back = dir.file("out.bin");
  ASSERT_EQ(runCommand("head -c 70000 /dev/urandom > " + src), 0);
  ASSERT_EQ(runCommand(mtoolsEnv() + "mcopy -i " + image + " " + src + " ::/DATA.BIN", &out), 0) << out;
  ASSERT_EQ(runCommand(mtoolsEnv() + "mcopy -i " + image + " ::/DATA.BIN " + back, &out), 0) << out;
  EXPECT_EQ(runCommand("cmp " + src + " " + back, &out), 0) << out;
  expectFsckClean(image);
}

// The sizes where a rule changes: FAT12/FAT16 choice (32773/32774), the 16-bit total field
// (65535/65536), FAT16/FAT32 (1048576/1048577, 8387872/8387873), FAT32 cluster sizes at 8, 16
// and 32 GB, the FAT12 cluster limit, FAT16 cluster doubling and a tail left unused.
INSTANTIATE_TEST_SUITE_P(
    Boundaries, FatSizeSweep,
    ::testing::Values(SizeCase{0, 4000, 8}, SizeCase{0, 32736, 8}, SizeCase{0, 32737, 8}, SizeCase{0, 32773, 8},
                      SizeCase{1, 32774, 4}, SizeCase{1, 65535, 4}, SizeCase{1, 65536, 4}, SizeCase{1, 262644, 0},
                      SizeCase{1, 262645, 0}, SizeCase{1, 262700, 8}, SizeCase{1, 1048576, 16},
                      SizeCase{1, 4194000, 64}, SizeCase{1, 4194304, 128}, SizeCase{1, 8387872, 128}, SizeCase{1, 8387873, 128},
                      SizeCase{1, 16777216, 128}, SizeCase{2, 1048577, 8}, SizeCase{2, 1048583, 8},
                      SizeCase{2, 8387873, 8}, SizeCase{2, 16777216, 8}, SizeCase{2, 16777217, 16},
                      SizeCase{2, 33554432, 16}, SizeCase{2, 33554433, 32}, SizeCase{2, 67108864, 32},
                      SizeCase{2, 67108865, 64}),
    sizeCaseName);

TEST(FatLayoutModel, SweepCoversEveryRule) {
  // The sweep above must actually reach the cases it is meant to: an unused FAT12 tail, a
  // FAT16 doubling step, a FAT16 tail, FAT32 alignment with and without a raised reserve.
  EXPECT_LT(expectedLayout(0, 32773).claimedTotal, 32773u);
  EXPECT_EQ(expectedLayout(1, 262644).spc * 2, expectedLayout(1, 262700).spc);
  EXPECT_LT(expectedLayout(1, 8387873).claimedTotal, 8387873u);
  bool raised = false, plain = false;
  for (uint64_t t : {1048577ull, 1048583ull, 8387873ull, 16777216ull, 16777217ull, 33554432ull, 67108865ull})
    (expectedLayout(2, t).reserved == 32 ? plain : raised) = true;
  EXPECT_TRUE(raised);
  EXPECT_TRUE(plain);
}

// A tree of directories and files with long names goes in and comes back byte for byte.
TEST(FatFormat, MtoolsTreeRoundTripOnEachType) {
  if (!haveFatTools()) GTEST_SKIP() << "needs fsck.fat and mtools (dosfstools, mtools)";
  const std::pair<int, uint64_t> cases[] = {{0, 30000}, {1, 300000}, {2, 1100000}};
  for (auto [type, sectors] : cases) {
    SCOPED_TRACE(type);
    TempDir dir;
    const std::string image = dir.file("fat.img");
    {
      ImageFileDevice dev(image, sectors);
      ScopedCapture capture;
      Filesystem::FatFormatOptions options;
      options.label = "TREE TEST";
      Filesystem::formatFat(dev, type, options);
    }
    const std::string tree = dir.file("Tree with a long name");
    std::string script = "set -e; mkdir -p '" + tree + "/Second level directory/third.level' '" + tree +
                         "/empty dir'; cd '" + tree + "'; head -c 123457 /dev/urandom > 'A file with a long name.data';" +
                         " : > empty.txt; echo short > 'Second level directory/x.y';" +
                         " head -c 9000 /dev/urandom > 'Second level directory/third.level/Mixed Case Name.bin';" +
                         " for i in $(seq 1 40); do echo $i > \"many files number $i.txt\"; done";
    std::string out;
    ASSERT_EQ(runCommand(script, &out), 0) << out;
    ASSERT_EQ(runCommand(mtoolsEnv() + "mcopy -s -i " + image + " '" + tree + "' ::/", &out), 0) << out;
    const std::string back = dir.file("back");
    ASSERT_EQ(runCommand("mkdir " + back, &out), 0);
    ASSERT_EQ(runCommand(mtoolsEnv() + "mcopy -s -i " + image + " '::/Tree with a long name' " + back, &out), 0) << out;
    EXPECT_EQ(runCommand("diff -r '" + tree + "' '" + back + "/Tree with a long name'", &out), 0) << out;
    ASSERT_EQ(runCommand(mtoolsEnv() + "mdir -i " + image + " ::/", &out), 0);
    EXPECT_NE(out.find("Volume in drive : is TREE TEST"), std::string::npos) << out;
    expectFsckClean(image);
  }
}

TEST(FatFormat, LabelEntrySummaryAndSerial) {
  TempDir dir;
  for (bool withLabel : {true, false}) {
    ImageFileDevice dev(dir.file("l.img"), 100000);
    ScopedCapture capture;
    Filesystem::FAT16 fat(dev);
    Filesystem::FatFormatOptions options;
    if (withLabel) options.label = "MY DISK";
    fat.format(options);
    const Filesystem::FatLayout& L = fat.layout();
    std::vector<uint8_t> boot(512), root(512);
    dev.read(0, 1, boot.data());
    dev.read(L.reservedSectors + L.fatSectors, 1, root.data());
    EXPECT_EQ(Filesystem::volumeLabelOf(boot.data(), boot.size()), withLabel ? "MY DISK" : "");
    if (withLabel) {
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(root.data()), 11), "MY DISK    ");
      EXPECT_EQ(root[11], 0x08);
      EXPECT_NE(get16(root.data() + 24), 0) << "label entry carries a date";
    } else {
      EXPECT_EQ(root[0], 0) << "no label entry without a label";
    }
    const std::string& out = capture.sink().out;
    EXPECT_EQ(out.rfind("Checking existing disk format.\n", 0), 0u) << out;
    EXPECT_NE(out.find(withLabel ? "Volume label is MY DISK\n" : "Volume has no label\n"), std::string::npos);
    char serial[64];
    std::snprintf(serial, sizeof serial, "Volume Serial Number is %04X-%04X\n", get32(boot.data() + 39) >> 16,
                  get32(boot.data() + 39) & 0xFFFF);
    EXPECT_NE(out.find(serial), std::string::npos) << out;
    // Every number line puts its number right-aligned in one common width.
    const std::string total = std::to_string(uint64_t(L.totalClusters) * L.sectorsPerCluster * 512);
    const std::string unit = std::to_string(L.sectorsPerCluster * 512);
    const std::string pad(total.size() - unit.size(), ' ');
    EXPECT_NE(out.find("\n" + total + " bytes total disk space\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\n" + std::string(total.size() - 1, ' ') + "0 bytes in bad sectors\n"), std::string::npos);
    EXPECT_NE(out.find("\n" + total + " bytes available on disk\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\n" + pad + unit + " bytes in each allocation unit\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" allocation units containing bad sectors\n"), std::string::npos) << out;
    EXPECT_TRUE(out.size() > 2 && out.substr(out.size() - 2) == "\n\n");
  }
  std::tm t{};
  t.tm_sec = 30, t.tm_min = 45, t.tm_hour = 13, t.tm_mday = 21, t.tm_mon = 10, t.tm_year = 126;
  EXPECT_EQ(Filesystem::fatVolumeSerial(t), 0x29151517u);  // (11+30)<<24 | 21<<16 | 13<<8 | 2071
}

TEST(FatFormat, VolumeLabelRules) {
  const std::string chars = "Invalid volume label -- may not contain any of the following characters: "
                            "* ? / \\ | . , ; : + = [ ] ( ) & ^ < > \"\n";
  struct Case {
    std::string label;
    std::string message;  // empty: valid
    bool silentWithoutReport;
  } cases[] = {
      {"DATA", "", false},
      {"MY VOLUME 1", "", false},
      {"A-B_C!#$%~", "", false},
      {"", "", false},
      {"ABCDEFGHIJKL", "Invalid volume label -- maximum of 11 characters\n", true},
      {" DATA", "Invalid volume label -- may not start with whitespace\n", true},
      {"\tDATA", "Invalid volume label -- may not start with whitespace\n", true},
      {"data", "Invalid volume label -- may not contain lower-case letters\n", false},
      {"DATa", "Invalid volume label -- may not contain lower-case letters\n", false},
      {"A\x01", "Invalid volume label -- may not contain unprintable characters\n", false},
      {"A\xE9", "Invalid volume label -- may not contain unprintable characters\n", false},
      {"A\"B", chars, false},
      {"A.B", chars, false},
      {"X*", chars, false},
      {"[X]", chars, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    {
      ScopedCapture capture;
      EXPECT_EQ(Filesystem::validateVolumeLabel(c.label, true), c.message.empty());
      EXPECT_EQ(capture.sink().errors, c.message);
    }
    {
      ScopedCapture capture;
      Filesystem::validateVolumeLabel(c.label, false);
      EXPECT_EQ(capture.sink().errors, c.silentWithoutReport ? "" : c.message);
    }
  }
  // An invalid label stops the format before anything is written.
  KdiskTest::MemoryBlockDevice mem(70000);
  ScopedCapture capture;
  Filesystem::FatFormatOptions options;
  options.label = "lower";
  EXPECT_THROW(Filesystem::formatFat(mem, 1, options), Core::Error);
  EXPECT_EQ(mem.writes, 0u);
  EXPECT_EQ(capture.sink().errors, "Invalid volume label -- may not contain lower-case letters\n");
}

// Full format: clusters with unreadable sectors are counted and marked bad in both FATs.
TEST(FatFormat, FullFormatMarksBadClusters) {
  const std::pair<int, uint64_t> cases[] = {{0, 30000}, {1, 300000}, {2, 1100000}};
  for (auto [type, sectors] : cases) {
    SCOPED_TRACE(type);
    TempDir dir;
    const std::string image = dir.file("bad.img");
    ImageFileDevice dev(image, sectors);
    KdiskTest::FaultInjectingBlockDevice faulty(dev);
    auto fat = Filesystem::makeFatType(faulty, type);
    Filesystem::FatFormatOptions probe;
    std::tm now{};
    now.tm_mday = 1;
    const Filesystem::FatLayout planned = fat->buildBpb(probe, now);
    const uint64_t dataStart = uint64_t(planned.reservedSectors) + planned.fatSectors + planned.rootDirSectors;
    const uint32_t s = planned.sectorsPerCluster;
    // Clusters 5 (two bad sectors), 77 and the last one.
    const uint32_t badClusters[] = {5, 77, planned.totalClusters + 1};
    faulty.badSectors = {dataStart + 3 * s, dataStart + 3 * s + 1, dataStart + 75 * s + s - 1,
                         dataStart + uint64_t(planned.totalClusters - 1) * s};
    ScopedCapture capture;
    Filesystem::FatFormatOptions options;
    options.verify = true;
    fat->format(options);
    const Filesystem::FatLayout& L = fat->layout();
    EXPECT_EQ(L.badClusters, 3u);
    EXPECT_EQ(L.freeClusters, L.totalClusters - 3 - (type == 2 ? 1 : 0));
    const std::string& out = capture.sink().out;
    const std::string badBytes = std::to_string(3ull * s * 512);
    EXPECT_NE(out.find(badBytes + " bytes in bad sectors\n"), std::string::npos) << out;
    EXPECT_NE(out.find("3 allocation units containing bad sectors\n"), std::string::npos) << out;
    // Both FAT copies hold the bad-cluster mark.
    const uint32_t marks[] = {0xFF7, 0xFFF7, 0x0FFFFFF7};
    for (uint32_t copy = 0; copy < 2; ++copy) {
      std::vector<uint8_t> fatBytes(size_t(L.sectorsPerFat) * 512);
      dev.read(L.reservedSectors + uint64_t(copy) * L.sectorsPerFat, L.sectorsPerFat, fatBytes.data());
      for (uint32_t cl : badClusters) {
        uint32_t v = type == 0   ? (get16(&fatBytes[cl * 3 / 2]) >> ((cl & 1) * 4)) & 0xFFF
                     : type == 1 ? get16(&fatBytes[cl * 2])
                                 : get32(&fatBytes[cl * 4]);
        EXPECT_EQ(v, marks[type]) << "copy " << copy << " cluster " << cl;
      }
      EXPECT_EQ(fatBytes[0], 0xF8);
    }
    if (type == 2) {
      std::vector<uint8_t> info(512);
      dev.read(1, 1, info.data());
      EXPECT_EQ(get32(info.data() + 488), L.freeClusters);
    }
    if (haveFatTools()) {
      expectFsckClean(image);
      std::string dirOut;
      runCommand(mtoolsEnv() + "mdir -i " + image + " ::/", &dirOut);
      std::string free = std::to_string(uint64_t(L.freeClusters) * s * 512);
      std::string shown;
      for (char ch : dirOut)
        if (std::isdigit(static_cast<unsigned char>(ch)) || ch == '\n') shown += ch;
      EXPECT_NE(shown.find(free), std::string::npos) << dirOut;
    }
  }
}

TEST(FatFormat, StepFailuresPrintTheirMessage) {
  struct Case {
    const char* name;
    int type;
    uint64_t sectors;
    std::function<uint64_t(const Filesystem::FatLayout&)> badSector;
    bool writesOnly;
    std::string message;
    Core::ErrorId id;
  } cases[] = {
      {"boot area", 1, 100000, [](const Filesystem::FatLayout&) { return 0ull; }, false,
       "Bad sectors in boot area -- Injected verify fault\n", Core::ErrorId::WriteFailed},
      {"FAT32 reserved", 2, 1100000, [](const Filesystem::FatLayout& L) { return uint64_t(L.reservedSectors - 1); },
       false, "Bad sectors in boot area -- Injected verify fault\n", Core::ErrorId::WriteFailed},
      {"second FAT", 1, 100000,
       [](const Filesystem::FatLayout& L) { return uint64_t(L.reservedSectors) + L.sectorsPerFat + 3; }, true,
       "Bad sectors in FAT table area -- Injected write fault\n", Core::ErrorId::WriteFailed},
      {"root directory", 0, 20000,
       [](const Filesystem::FatLayout& L) { return uint64_t(L.reservedSectors) + L.fatSectors + 5; }, true,
       "Bad sectors in root directory area -- Injected write fault\n", Core::ErrorId::WriteFailed},
      {"FAT32 backup boot", 2, 1100000, [](const Filesystem::FatLayout&) { return 6ull; }, true,
       "Bad sectors in boot area -- Injected write fault\n", Core::ErrorId::WriteFailed},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    ImageFileDevice dev(dir.file("f.img"), c.sectors);
    KdiskTest::FaultInjectingBlockDevice faulty(dev);
    auto fat = Filesystem::makeFatType(faulty, c.type);
    std::tm now{};
    now.tm_mday = 1;
    faulty.badSectors = {c.badSector(fat->buildBpb({}, now))};
    faulty.failReads = !c.writesOnly;
    ScopedCapture capture;
    try {
      fat->format({});
      ADD_FAILURE() << "format succeeded";
    } catch (const Core::Error& e) {
      EXPECT_EQ(e.id(), c.id);
    }
    EXPECT_EQ(capture.sink().errors, c.message);
    EXPECT_EQ(capture.sink().out.find("Format complete."), std::string::npos);
    std::vector<uint8_t> boot(512);
    dev.read(0, 1, boot.data());
    EXPECT_TRUE(std::all_of(boot.begin(), boot.end(), [](uint8_t v) { return v == 0; }))
        << "the boot sector is written last";
  }
  // A partition too small for any layout, or with sectors of another size: nothing is written.
  struct SectorSized : KdiskTest::MemoryBlockDevice {
    SectorSized(uint64_t blocks, uint32_t size) : MemoryBlockDevice(blocks), size(size) {}
    uint32_t bytesPerBlock() const override { return size; }
    uint32_t size;
  };
  for (int type : {0, 1, 2, 3}) {
    SectorSized mem(type == 3 ? 100000 : type == 2 ? 30 : 34, type == 3 ? 4096 : 512);
    ScopedCapture capture;
    try {
      Filesystem::formatFat(mem, type % 3, {});
      ADD_FAILURE() << "format succeeded";
    } catch (const Core::Error& e) {
      EXPECT_EQ(e.id(), type == 3 ? Core::ErrorId::UnsupportedSectorSize : Core::ErrorId::BpbFailed);
      EXPECT_EQ(capture.sink().errors, "Cannot create BPB for new filesystem -- " + e.text() + "\n");
    }
    EXPECT_EQ(mem.writes, 0u);
  }
}

// A partition inside a disk image, through the disk layer: the formatter stays inside its
// range and mtools finds the volume at the partition's offset.
TEST(FatFormat, PartitionInsideADiskImage) {
  if (!haveFatTools()) GTEST_SKIP() << "needs fsck.fat and mtools (dosfstools, mtools)";
  TempDir dir;
  const std::string image = dir.file("disk.img");
  ASSERT_EQ(runCommand("truncate -s 64M " + image), 0);
  {
    Disk::DiskDrive drive(1, Disk::openImageDisk(image));
    std::vector<uint8_t> pattern(512, 0xA5), check(512);
    drive.write(2047, 1, pattern.data());
    drive.write(2048 + 100000, 1, pattern.data());
    Disk::RangeBlockDevice partition(drive, 2048, 100000);
    ScopedCapture capture;
    Filesystem::FatFormatOptions options;
    options.hiddenSectors = 2048;
    options.label = "PART ONE";
    Filesystem::formatFat(partition, 1, options);
    for (uint64_t s : {2047ull, 102048ull}) {
      drive.read(s, 1, check.data());
      EXPECT_EQ(check, pattern) << "sector " << s << " outside the partition changed";
    }
  }
  const std::string vol = image + "@@1048576";
  std::string out;
  ASSERT_EQ(runCommand("echo payload > " + dir.file("p.txt") + " && " + mtoolsEnv() + "mcopy -i " + vol + " " +
                           dir.file("p.txt") + " ::/P.TXT && " + mtoolsEnv() + "mdir -i " + vol + " ::/",
                       &out),
            0)
      << out;
  EXPECT_NE(out.find("Volume in drive : is PART ONE"), std::string::npos) << out;
  EXPECT_NE(out.find("P        TXT"), std::string::npos) << out;
}
