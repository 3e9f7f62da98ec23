// FAT formatter: layouts across the size boundaries checked against an integer model of the
// layout rules, and every formatted image checked by fsck.fat and mtools.
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <sstream>

#include "FatTestSupport.h"
#include "app/PartitionCommands.h"
#include "core/Endian.h"
#include "filesystem/Recognition.h"
#include "filesystem/fat/Fat.h"
#include "support/TestSupport.h"

using namespace Corvo;
using Corvo::Core::get16;
using Corvo::Core::get32;
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

const std::string kMtools = "MTOOLS_SKIP_CHECK=1 ";

bool haveFatTools() {
  return KdiskTest::haveTool("fsck.fat") && KdiskTest::haveTool("mcopy") && KdiskTest::haveTool("mdir");
}

// fsck.fat -n must accept the image without a single remark; returns its output.
std::string expectFsckClean(const std::string& image) {
  std::string out;
  EXPECT_EQ(runCommand("fsck.fat -n " + image, &out), 0) << out;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);)
    EXPECT_TRUE(line.rfind("fsck.fat ", 0) == 0 || line.find(" files, ") != std::string::npos)
        << "fsck.fat remark: " << line << "\n" << out;
  return out;
}

// mtools writes a tree of directories and files (long names included) and reads every byte back.
void expectMtoolsTreeRoundTrip(const TempDir& dir, const std::string& image) {
  const std::string tree = dir.file("Tree with a long name"), back = dir.file("back");
  std::string out;
  ASSERT_EQ(runCommand("set -e; mkdir -p '" + tree + "/Second level directory/third.level' '" + tree +
                           "/empty dir' " + back + "; cd '" + tree +
                           "'; head -c 123457 /dev/urandom > 'A file with a long name.data'; : > empty.txt;"
                           " echo short > 'Second level directory/x.y';"
                           " head -c 9000 /dev/urandom > 'Second level directory/third.level/Mixed Case Name.bin';"
                           " for i in $(seq 1 40); do echo $i > \"many files number $i.txt\"; done",
                       &out),
            0)
      << out;
  ASSERT_EQ(runCommand(kMtools + "mcopy -s -i " + image + " '" + tree + "' ::/", &out), 0) << out;
  ASSERT_EQ(runCommand(kMtools + "mcopy -s -i " + image + " '::/Tree with a long name' " + back, &out), 0) << out;
  EXPECT_EQ(runCommand("diff -r '" + tree + "' '" + back + "/Tree with a long name'", &out), 0) << out;
}

const char* typeName(int type) { return type == 0 ? "FAT12" : type == 1 ? "FAT16" : "FAT32"; }

}  // namespace

struct SizeCase {
  int type;
  uint64_t sectors;
  uint32_t spc;  // hand-checked cluster size, 0 when only the model decides
};
void PrintTo(const SizeCase& c, std::ostream* os) { *os << typeName(c.type) << " " << c.sectors; }

class FatSizeSweep : public ::testing::TestWithParam<SizeCase> {};

TEST_P(FatSizeSweep, LayoutMatchesRulesAndToolsAccept) {
  if (!haveFatTools()) GTEST_SKIP() << "needs fsck.fat and mtools (dosfstools, mtools)";
  const SizeCase c = GetParam();
  const Expected e = expectedLayout(c.type, c.sectors);
  ASSERT_TRUE(c.spc == 0 || e.spc == c.spc) << "model disagrees with the hand-checked cluster size " << e.spc;
  TempDir dir;
  const std::string image = dir.file("fat.img");
  ImageFileDevice dev(image, c.sectors);
  std::string printed;
  {
    ScopedCapture capture;
    Filesystem::FormatOptions options;
    options.hiddenSectors = 2048;
    options.label = "TREE TEST";
    printed = capture.sink().out + Kdisk::formatSummaryText(Filesystem::formatFat(dev, Filesystem::FatType(c.type), options));
  }
  // Only the reserved area, the FATs and the root directory are written, each sector once, in
  // long runs, the boot sector last (and cleared first).
  EXPECT_EQ(dev.bytesWritten / 512, uint64_t(e.reserved) + 2 * e.fatSectors + (c.type == 2 ? e.spc : e.rootSectors) + 1);
  EXPECT_EQ(dev.lastWriteFirst, 0u) << "the boot sector is written last";
  EXPECT_LE(dev.writes, 2 * (e.fatSectors / 2048 + 2) + e.reserved + 3);

  std::vector<uint8_t> boot(512);  // FSInfo and the backup copy: fsck.fat checks them
  dev.read(0, 1, boot.data());
  const uint8_t* b = boot.data();
  const size_t ext = c.type == 2 ? 64 : 36;  // drive number, reserved, extended boot signature
  EXPECT_TRUE(b[ext] == 0x80 && b[ext + 1] == 0 && b[ext + 2] == 0x29 && b[510] == 0x55 && b[511] == 0xAA);
  EXPECT_EQ(b[13], e.spc);
  EXPECT_EQ(get16(b + 14), e.reserved);
  EXPECT_EQ(b[16], 2);
  EXPECT_EQ(b[21], 0xF8);
  EXPECT_EQ(get32(b + 28), 2048u);
  EXPECT_EQ(get16(b + 19), e.claimedTotal < 65536 ? e.claimedTotal : 0);
  EXPECT_EQ(get32(b + 32), e.claimedTotal < 65536 ? 0 : e.claimedTotal);
  EXPECT_EQ(get16(b + 17), c.type == 2 ? 0 : 512);
  EXPECT_EQ(get16(b + 22), c.type == 2 ? 0 : e.fatSectors);
  const size_t names = c.type == 2 ? 71 : 43;  // label, then the type string
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b + names), 19), "TREE TEST  " + std::string(typeName(c.type)) + "   ");
  EXPECT_EQ(Filesystem::detectContent(b, 512, 0), unsigned(Filesystem::ctFat12 + c.type));
  if (c.type == 2) {
    EXPECT_EQ(get32(b + 36), e.fatSectors);
    EXPECT_EQ(get32(b + 44), 2u);
    EXPECT_TRUE(get16(b + 40) == 0 && get16(b + 42) == 0 && get16(b + 48) == 1 && get16(b + 50) == 6);
    EXPECT_EQ((uint64_t(e.reserved) + 2 * e.fatSectors) % 8, 0u) << "data area not 4 KB aligned";
  }

  const std::string fsck = expectFsckClean(image);
  EXPECT_NE(fsck.find("/" + std::to_string(e.clusters) + " clusters"), std::string::npos) << fsck;
  expectMtoolsTreeRoundTrip(dir, image);
  std::string out;
  ASSERT_EQ(runCommand(kMtools + "mdir -i " + image + " ::/", &out), 0);
  EXPECT_NE(out.find("Volume in drive : is TREE TEST"), std::string::npos) << out;
  expectFsckClean(image);

  // The summary as /CRE prints it: the counts of the model, right-aligned in one width (the
  // total is the widest), and the serial number as mtools reads it from the boot sector.
  const size_t at = out.find("Volume Serial Number is ");
  ASSERT_NE(at, std::string::npos) << out;
  const uint64_t unit = e.spc * 512ull, free = e.clusters - (c.type == 2 ? 1 : 0);
  const std::string numbers[] = {std::to_string(e.clusters * unit), "0", std::to_string(free * unit),
                                 std::to_string(unit), std::to_string(e.clusters), "0", std::to_string(free)};
  const char* texts[] = {"bytes total disk space", "bytes in bad sectors", "bytes available on disk",
                         "bytes in each allocation unit", "total allocation units on disk",
                         "allocation units containing bad sectors", "available allocation units on disk"};
  std::string summary = "Format complete.\n\nVolume label is TREE TEST\n" + out.substr(at, 33) + "\n";
  for (int i = 0; i < 7; ++i)
    summary += std::string(numbers[0].size() - numbers[i].size(), ' ') + numbers[i] + " " + texts[i] + "\n";
  EXPECT_EQ(printed.rfind("Checking existing disk format.\n", 0), 0u) << printed;
  const size_t done = printed.find("Format complete.");
  ASSERT_NE(done, std::string::npos) << printed;
  EXPECT_EQ(printed.substr(done), summary + "\n");
}

// The sizes where a rule changes: FAT12/FAT16 choice (32773/32774), the 16-bit total field
// (65535/65536), FAT16/FAT32 (1048576/1048577, 8387872/8387873), FAT32 cluster sizes at 8, 16
// and 32 GB, the FAT12 cluster limit (32736/32737: tail unused), FAT16 cluster doubling
// (262644/262700), the FAT16 tail at 64 KB clusters, and FAT32 with and without a raised reserve.
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
    [](const ::testing::TestParamInfo<SizeCase>& i) {
      return std::string(typeName(i.param.type)) + "_" + std::to_string(i.param.sectors);
    });

TEST(FatFormat, VolumeSerialFromLocalTime) {
  std::tm t{};
  t.tm_sec = 30, t.tm_min = 45, t.tm_hour = 13, t.tm_mday = 21, t.tm_mon = 10, t.tm_year = 126;
  EXPECT_EQ(Filesystem::fatVolumeSerial(t), 0x29151517u);  // (11+30)<<24 | 21<<16 | 13<<8 | 2071
}

// An invalid label stops the format itself before anything is written, with the label rule's
// message and nothing printed (the label rules are proven through /CRE /FOR with mtools in the
// command-line tests).
TEST(FatFormat, InvalidLabelStopsTheFormat) {
  KdiskTest::MemoryBlockDevice mem(70000);
  ScopedCapture capture;
  Filesystem::FormatOptions options;
  options.label = "lower";
  try {
    Filesystem::formatFat(mem, Filesystem::ftFat16, options);
    ADD_FAILURE() << "format succeeded";
  } catch (const Core::Error& e) {
    EXPECT_EQ(e.text(), "Invalid volume label -- may not contain lower-case letters");
  }
  EXPECT_EQ(mem.writes, 0u);
  EXPECT_EQ(capture.sink().errors, "");
}

// Full format: clusters with unreadable sectors are counted and marked bad in both FATs.
TEST(FatFormat, FullFormatMarksBadClusters) {
  for (auto [type, sectors] : {std::pair<int, uint64_t>{0, 30000}, {1, 300000}, {2, 1100000}}) {
    SCOPED_TRACE(type);
    TempDir dir;
    const std::string image = dir.file("bad.img");
    ImageFileDevice dev(image, sectors);
    KdiskTest::FaultInjectingBlockDevice faulty(dev);
    auto fat = Filesystem::makeFatType(faulty, Filesystem::FatType(type));
    const Filesystem::FatLayout planned = fat->buildBpb({}, std::tm{});
    const uint64_t dataStart = uint64_t(planned.reservedSectors) + planned.fatSectors + planned.rootDirSectors;
    const uint32_t s = planned.sectorsPerCluster;
    // Clusters 5 (two bad sectors), 77 and the last one.
    const uint32_t badClusters[] = {5, 77, planned.totalClusters + 1};
    faulty.badSectors = {dataStart + 3 * s, dataStart + 3 * s + 1, dataStart + 75 * s + s - 1,
                         dataStart + uint64_t(planned.totalClusters - 1) * s};
    ScopedCapture capture;
    Filesystem::FormatOptions options;
    options.verify = true;
    const Filesystem::FormatSummary summary = fat->format(options);
    const Filesystem::FatLayout& L = fat->layout();
    EXPECT_EQ(L.badClusters, 3u);
    EXPECT_EQ(L.freeClusters, L.totalClusters - 3 - (type == 2 ? 1 : 0));
    EXPECT_EQ(summary.lines.at(0).text, "Volume has no label");
    EXPECT_EQ(summary.countOf("bytes in bad sectors"), 3ull * s * 512);
    EXPECT_EQ(summary.countOf("allocation units containing bad sectors"), 3u);
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
    std::vector<uint8_t> boot(512);
    dev.read(0, 1, boot.data());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(boot.data() + (type == 2 ? 71 : 43)), 11), "NO NAME    ");
    if (haveFatTools()) {  // fsck.fat (FSInfo included) and mdir agree on the free space and the label
      expectFsckClean(image);
      std::string dirOut, shown;
      runCommand(kMtools + "mdir -i " + image + " ::/", &dirOut);
      for (char ch : dirOut)
        if (std::isdigit(static_cast<unsigned char>(ch)) || ch == '\n') shown += ch;
      EXPECT_NE(shown.find(std::to_string(uint64_t(L.freeClusters) * s * 512)), std::string::npos) << dirOut;
      EXPECT_NE(dirOut.find("has no label"), std::string::npos) << dirOut;
    }
  }
}

TEST(FatFormat, StepFailuresNameTheirStep) {
  const auto W = Core::ErrorId::WriteFailed, V = Core::ErrorId::VerifyFailed;
  enum Base { Start, LastReserved, SecondFat, Root };  // Root: the root directory, or cluster 2 on FAT32
  struct Case {
    int type;
    uint64_t sectors;
    Base base;
    uint64_t offset;
    bool failReads, failWrites, verify;
    std::string message;
    Core::ErrorId id;
  } cases[] = {
      {1, 100000, Start, 0, true, true, false, "Bad sectors in boot area -- Injected verify fault", V},
      {2, 1100000, LastReserved, 0, true, true, false, "Bad sectors in boot area -- Injected verify fault", V},
      {1, 100000, SecondFat, 3, false, true, false, "Bad sectors in FAT table area -- Injected write fault", W},
      {0, 20000, Root, 5, false, true, false, "Bad sectors in root directory area -- Injected write fault", W},
      {2, 1100000, Root, 1, true, false, true, "Bad sectors in FAT table area -- Injected verify fault", W},
      {2, 1100000, Start, 6, false, true, false, "Bad sectors in boot area -- Injected write fault", W},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    TempDir dir;
    ImageFileDevice dev(dir.file("f.img"), c.sectors);
    KdiskTest::FaultInjectingBlockDevice faulty(dev);
    auto fat = Filesystem::makeFatType(faulty, Filesystem::FatType(c.type));
    const Filesystem::FatLayout& L = fat->buildBpb({}, std::tm{});
    const uint64_t bases[] = {0, L.reservedSectors - 1u, uint64_t(L.reservedSectors) + L.sectorsPerFat, uint64_t(L.reservedSectors) + L.fatSectors};
    faulty.badSectors = {bases[c.base] + c.offset};
    faulty.failReads = c.failReads;
    faulty.failWrites = c.failWrites;
    ScopedCapture capture;
    Filesystem::FormatOptions options;
    options.verify = c.verify;
    try {
      fat->format(options);
      ADD_FAILURE() << "format succeeded";
    } catch (const Core::Error& e) {
      EXPECT_EQ(e.id(), c.id);
      EXPECT_EQ(e.property("step") + " -- " + e.text(), c.message);
    }
    EXPECT_EQ(capture.sink().errors, "");
    std::vector<uint8_t> boot(512);
    dev.read(0, 1, boot.data());
    EXPECT_TRUE(std::all_of(boot.begin(), boot.end(), [](uint8_t v) { return v == 0; })) << "boot sector written";
  }
  // A partition too small for any layout, or with sectors of another size: nothing is written.
  struct SectorSized : KdiskTest::MemoryBlockDevice {
    SectorSized(uint64_t blocks, uint32_t size) : MemoryBlockDevice(blocks), size(size) {}
    uint32_t bytesPerBlock() const override { return size; }
    uint32_t size;
  };
  for (auto [type, blocks, size] : {std::tuple{0, 34, 512u}, {1, 34, 512u}, {2, 30, 512u}}) {
    SectorSized mem(blocks, size);
    ScopedCapture capture;
    try {
      Filesystem::formatFat(mem, Filesystem::FatType(type), {});
      ADD_FAILURE() << "format succeeded";
    } catch (const Core::Error& e) {
      EXPECT_EQ(e.id(), Core::ErrorId::BpbFailed);
      EXPECT_EQ(e.property("step"), "Cannot create BPB for new filesystem");
      EXPECT_EQ(capture.sink().errors, "");
    }
    EXPECT_EQ(mem.writes, 0u);
  }
}
