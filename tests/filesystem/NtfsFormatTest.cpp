// NTFS formatter: volumes for every target and across the size rules, each read by the
// independent NTFS tools (ntfsinfo, ntfsls, ntfsfix); the label reader on damaged volumes.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "FatTestSupport.h"
#include "core/Endian.h"
#include "filesystem/Recognition.h"
#include "filesystem/ntfs/Ntfs.h"
#include "support/TestSupport.h"

using namespace Corvo;
using Filesystem::formatNtfs;
using Filesystem::NtfsFormatOptions;
using KdiskTest::ImageFileDevice;
using KdiskTest::runCommand;
using KdiskTest::ScopedCapture;
using KdiskTest::TempDir;

namespace {

constexpr uint64_t kMiB = 2048;  // sectors

bool haveNtfsTools() {
  return KdiskTest::haveTool("ntfsinfo") && KdiskTest::haveTool("ntfsls") && KdiskTest::haveTool("ntfsfix");
}

std::string field(const std::string& text, const std::string& name) {
  std::smatch m;
  if (std::regex_search(text, m, std::regex(name + ":[ \\t]*([^\\n]*)"))) return m[1];
  return "";
}

struct Case {
  const char* what;
  int versionCode;
  uint64_t sectors;
  const char* version;
  uint32_t clusterBytes;
  const char* label;
};

class NtfsVolumes : public ::testing::TestWithParam<Case> {};

// Every target on a few sizes: the tools accept the volume, read its version, cluster size and
// label, and list exactly the metadata files of the version in the root directory.
TEST_P(NtfsVolumes, IndependentToolsAcceptTheVolume) {
  if (!haveNtfsTools()) GTEST_SKIP() << "needs ntfsinfo, ntfsls and ntfsfix (ntfs-3g)";
  const Case& c = GetParam();
  TempDir dir;
  const std::string img = dir.file("vol.img");
  {
    ImageFileDevice device(img, c.sectors);
    ScopedCapture capture;
    NtfsFormatOptions o;
    o.versionCode = c.versionCode;
    o.label = c.label;
    const Filesystem::FormatSummary summary = formatNtfs(device, o);
    EXPECT_EQ(summary.lines.at(2).text, "NTFS version " + std::string(c.version));
    // The primary boot sector is the last thing written.
    EXPECT_EQ(device.lastWriteFirst, 0u);
    std::vector<uint8_t> head(Filesystem::kContentBytes);
    device.read(0, (head.size() + 511) / 512 - 1, head.data());
    EXPECT_EQ(Filesystem::detectContent(head.data(), head.size(), 0), Filesystem::ctNtfs);
    EXPECT_EQ(Filesystem::ntfsVolumeLabel(device), c.label);
  }
  std::string out;
  ASSERT_EQ(runCommand("ntfsinfo -m -f '" + img + "'", &out), 0) << out;
  EXPECT_EQ(field(out, "Volume Version"), c.version) << out;
  EXPECT_EQ(field(out, "Cluster Size"), std::to_string(c.clusterBytes)) << out;
  EXPECT_EQ(field(out, "Volume Name"), c.label) << out;
  EXPECT_EQ(field(out, "Volume Size in Clusters"), std::to_string((c.sectors - 1) * 512 / c.clusterBytes)) << out;

  ASSERT_EQ(runCommand("ntfsls -a -s -f '" + img + "' 2>/dev/null | grep -v '^\\.\\.$' | LC_ALL=C sort", &out), 0) << out;
  const std::string v3 = "$AttrDef\n$BadClus\n$Bitmap\n$Boot\n$Extend\n$LogFile\n$MFT\n$MFTMirr\n$Secure\n$UpCase\n$Volume\n.\n";
  const std::string v1 = "$AttrDef\n$BadClus\n$Bitmap\n$Boot\n$LogFile\n$MFT\n$MFTMirr\n$Quota\n$UpCase\n$Volume\n.\n";
  EXPECT_EQ(out, std::string(c.version) == "1.2" ? v1 : v3);
  if (std::string(c.version) != "1.2") {
    ASSERT_EQ(runCommand("ntfsls -a -s -f -p /\\$Extend '" + img + "' 2>/dev/null | grep -v '^\\.' | LC_ALL=C sort", &out), 0) << out;
    EXPECT_EQ(out, "$ObjId\n$Quota\n$Reparse\n");
  }
  ASSERT_EQ(runCommand("ntfsfix -n '" + img + "'", &out), 0) << out;
  EXPECT_EQ(out.find("FAILED"), std::string::npos) << out;
  EXPECT_EQ(out.find("corrupt"), std::string::npos) << out;
}

INSTANTIATE_TEST_SUITE_P(
    Targets, NtfsVolumes,
    ::testing::Values(Case{"Vista100M", 9, 100 * kMiB, "3.1", 4096, "Data Vol"},
                      Case{"XP20M", 8, 20 * kMiB, "3.1", 4096, "XP"},
                      Case{"W2000at100M", 7, 100 * kMiB, "3.0", 512, ""},
                      Case{"W2000at700M", 7, 700 * kMiB, "3.0", 1024, "W2K"},
                      Case{"W2000at1500M", 7, 1500 * kMiB, "3.0", 2048, "W2K"},
                      Case{"NT4at64M", 6, 64 * kMiB, "1.2", 512, "NT four"},
                      Case{"NT351at3G", 5, 3072 * kMiB, "1.2", 4096, "Old"},
                      Case{"UnicodeLabel", 9, 40 * kMiB, "3.1", 4096, "D\xC3\xBCsseldorf \xE2\x82\xAC"},
                      Case{"LongestLabel", 9, 40 * kMiB, "3.1", 4096, "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345"}),
    [](const auto& info) { return std::string(info.param.what); });

// The smallest volume of each target is accepted and read by the tools; one sector less is
// refused before anything is written.
TEST(NtfsFormat, SmallestVolumeAndOneSectorLess) {
  if (!haveNtfsTools()) GTEST_SKIP() << "needs ntfsinfo and ntfsfix (ntfs-3g)";
  for (int code : {9, 7, 6}) {
    SCOPED_TRACE(code);
    NtfsFormatOptions options;
    options.versionCode = code;
    const uint64_t least = Filesystem::ntfsMinimumSectors(code);
    EXPECT_LT(least, 4 * kMiB);
    TempDir dir;
    const std::string img = dir.file("vol.img");
    {
      ImageFileDevice below(img, least - 1);
      ScopedCapture capture;
      try {
        formatNtfs(below, options);
        ADD_FAILURE() << "a volume one sector below the smallest was formatted";
      } catch (const Core::Error& e) {
        EXPECT_EQ(e.id(), Core::ErrorId::FormatFailed);
        EXPECT_NE(e.text().find("too small"), std::string::npos) << e.text();
      }
      EXPECT_EQ(below.writes, 0u);
    }
    {
      ImageFileDevice device(img, least);
      ScopedCapture capture;
      formatNtfs(device, options);
    }
    std::string out;
    EXPECT_EQ(runCommand("ntfsinfo -m -f '" + img + "'", &out), 0) << out;
    EXPECT_EQ(runCommand("ntfsfix -n '" + img + "'", &out), 0) << out;
  }
}

// Cluster sizes at the rule boundaries, up to the largest volume: 2^32 - 1 clusters of 64 KiB.
TEST(NtfsFormat, ClusterSizesAndTheLargestVolume) {
  const uint64_t TiB = 1024 * 1024 * kMiB;
  const struct {
    int code;
    uint64_t sectors;
    uint32_t clusterBytes;  // 0: refused
  } cases[] = {
      {9, 16 * TiB, 4096},   {9, 16 * TiB + 1, 8192},     {9, 32 * TiB + 2, 16384}, {9, 200 * TiB, 65536},
      {6, 512 * kMiB + 1, 512},  {6, 512 * kMiB + 2, 1024},   {6, 2048 * kMiB + 2, 4096},
      {9, 0xFFFFFFFFull * 128 + 1, 65536}, {9, 0xFFFFFFFFull * 128 + 129, 0}, {5, 0xFFFFFFFFull * 128 + 129, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.code) + " " + std::to_string(c.sectors));
    if (!c.clusterBytes) {
      EXPECT_THROW(Filesystem::planNtfs(c.sectors, c.code), Core::Error);
      continue;
    }
    const auto L = Filesystem::planNtfs(c.sectors, c.code);
    EXPECT_EQ(L.clusterBytes, c.clusterBytes);
    EXPECT_LE(L.clusters, 0xFFFFFFFFull);
    EXPECT_LE(L.secureLcn + 1, L.clusters);
  }
}

// Damage anywhere on the way from the boot sector to $Volume's name gives no label, never a
// crash or a read outside the volume.
TEST(NtfsLabel, DamagedVolumesShowNoLabel) {
  KdiskTest::MemoryBlockDevice pristine(Filesystem::ntfsMinimumSectors(9) + 64);
  {
    ScopedCapture capture;
    NtfsFormatOptions o;
    o.label = "LABEL";
    formatNtfs(pristine, o);
  }
  ASSERT_EQ(Filesystem::ntfsVolumeLabel(pristine), "LABEL");
  const uint8_t* bs = pristine.sector(0);
  const uint64_t spc = bs[13], mft = Core::get64(bs + 48) * spc * 512;
  const uint64_t volume = mft + 3 * 1024;
  const struct {
    const char* what;
    uint64_t offset;
    std::vector<uint8_t> bytes;
  } damage[] = {
      {"signature", 3, {'X'}},
      {"sector size", 11, {0, 4}},
      {"cluster size", 13, {0}},
      {"record size", 64, {0x7F}},
      {"MFT beyond the volume", 48, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}},
      {"record 0 magic", mft, {'B'}},
      {"record 0 torn sector", mft + 510, {0x55}},
      {"record 0 update array outside", mft + 4, {0xF0, 0x03}},
      {"record 0 attribute length", mft + 0x3C, {0xFF, 0xFF, 0xFF, 0x7F}},
      {"record 3 magic", volume, {'X'}},
      {"record 3 first attribute", volume + 0x14, {0xFF, 0x03}},
      {"record 3 not in use", volume + 0x16, {0}},
  };
  for (const auto& d : damage) {
    SCOPED_TRACE(d.what);
    KdiskTest::MemoryBlockDevice copy(pristine.blockCount());
    copy.data() = pristine.data();
    std::memcpy(copy.data().data() + d.offset, d.bytes.data(), d.bytes.size());
    EXPECT_EQ(Filesystem::ntfsVolumeLabel(copy), "");
  }
  // Any one byte of record 0 or record 3 set to 0xFF or 0x00: the reader stays inside its
  // buffers (the sanitizer build watches) and still answers.
  KdiskTest::MemoryBlockDevice copy(pristine.blockCount());
  copy.data() = pristine.data();
  for (uint64_t at : {mft, volume}) {
    for (uint64_t i = 0; i < 1024; ++i) {
      for (uint8_t value : {uint8_t(0xFF), uint8_t(0)}) {
        uint8_t& b = copy.data()[at + i];
        const uint8_t saved = b;
        b = value;
        const std::string label = Filesystem::ntfsVolumeLabel(copy);
        EXPECT_LE(label.size(), 3 * 128u);
        b = saved;
      }
    }
  }
  EXPECT_EQ(Filesystem::ntfsVolumeLabel(copy), "LABEL");
}

// A label is 32 UTF-16 units at most; a character outside the BMP takes two.
TEST(NtfsFormat, LabelLength) {
  const struct {
    std::string label;
    bool ok;
  } cases[] = {{std::string(32, 'A'), true},
               {std::string(33, 'A'), false},
               {std::string(30, 'A') + "\xC3\xBC\xC3\xBC", true},
               {std::string(31, 'A') + "\xF0\x9F\x98\x80", false},
               {std::string(30, 'A') + "\xF0\x9F\x98\x80", true}};
  for (const auto& c : cases) {
    EXPECT_EQ(Filesystem::ntfsLabelProblem(c.label).empty(), c.ok) << c.label;
    KdiskTest::MemoryBlockDevice device(8 * kMiB);
    NtfsFormatOptions o;
    o.label = c.label;
    if (!c.ok) {
      EXPECT_THROW(formatNtfs(device, o), Core::Error);
      EXPECT_EQ(device.writes, 0u);
    }
  }
}

}  // namespace
