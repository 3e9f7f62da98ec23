// The GPT driver against tables made and checked by sfdisk on image files (CRCs, header
// defaults and the on-disk GUID layout are proven that way), and the GPT pieces without a disk.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sstream>

#include "core/Crc32.h"
#include "core/Endian.h"
#include "disk/MbrTestSupport.h"
#include "disk/layout/GptDisk.h"
#include "disk/layout/GptFormat.h"
#include "disk/layout/GptGuid.h"

using namespace Corvo::Disk;
using Corvo::Core::ErrorId;
using KdiskTest::runCommand;

namespace {

constexpr uint64_t kSectors = 131072;  // 64 MiB; sfdisk makes usable blocks 2048 to 131038
constexpr uint64_t kLast = kSectors - 1;
const std::string kBasic = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", kLinux = "0FC63DAF-8483-4772-8E79-3D69D8477DE4";
const std::string kThreeParts =
    "label: gpt\nsize=10MiB, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B\nsize=20MiB, type=" + kBasic +
    ", name=\"data\"\ntype=" + kLinux + "\n";

struct Part {
  uint64_t start, size;
  std::string type;
  bool operator==(const Part&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Part& p) { return os << p.start << "+" << p.size << ":" << p.type; }

std::vector<Part> modelParts(const PartitionedDisk& disk) {
  std::vector<Part> parts;
  for (const auto& n : disk.roots()) parts.push_back({n->firstBlock, n->blockCount, guidToText(n->typeGuid)});
  return parts;
}

// The partitions as sfdisk sees them.
std::vector<Part> sfdiskParts(const std::string& path, std::string* dump = nullptr) {
  std::string out;
  EXPECT_EQ(runCommand("sfdisk --dump " + path, &out), 0) << out;
  if (dump) *dump = out;
  std::vector<Part> parts;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    auto s = line.find("start="), z = line.find("size="), t = line.find("type=");
    if (s != std::string::npos && z != std::string::npos && t != std::string::npos)
      parts.push_back({std::stoull(line.substr(s + 6)), std::stoull(line.substr(z + 5)), line.substr(t + 5, 36)});
  }
  return parts;
}

// sfdisk --verify finds nothing wrong with either copy.
void expectVerifyClean(const std::string& path) {
  std::string report;
  EXPECT_TRUE(KdiskTest::sfdiskClean(path, &report)) << report;
}
void patch(const std::string& path, uint64_t offset, const std::vector<uint8_t>& bytes) {
  KdiskTest::patchSector(path, 0, offset, bytes);
}
std::vector<uint8_t> readSector(const std::string& path, uint64_t sector) {
  std::vector<uint8_t> b(512);
  std::ifstream f(path, std::ios::binary);
  f.seekg(static_cast<std::streamoff>(sector * 512));
  f.read(reinterpret_cast<char*>(b.data()), 512);
  return b;
}
// Rewrites one 64-bit field of a header and gives the header a correct CRC again.
void setHeaderField(const std::string& path, uint64_t sector, size_t offset, uint64_t value) {
  auto h = readSector(path, sector);
  Corvo::Core::put64(&h[offset], value);
  Corvo::Core::put32(&h[16], 0);
  Corvo::Core::put32(&h[16], Corvo::Core::crc32(h.data(), 92));
  patch(path, sector * 512, h);
}

class GptImage : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!KdiskTest::haveTool("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
  }
  // A fresh 64 MiB image partitioned by an sfdisk script.
  std::string make(const std::string& script) {
    std::string path = dir_.file("disk" + std::to_string(++images_) + ".img");
    EXPECT_TRUE(KdiskTest::makeImage(path, kSectors / 2048, script));
    return path;
  }
  DiskDrive& drive(const std::string& path) {
    drives_.push_back(std::make_unique<DiskDrive>(0, openImageDisk(path)));
    return *drives_.back();
  }
  std::unique_ptr<PartitionedDisk> load(const std::string& path) { return loadGptDisk(drive(path)); }

  KdiskTest::TempDir dir_;
  int images_ = 0;
  std::vector<std::unique_ptr<DiskDrive>> drives_;
};

TEST_F(GptImage, ReadsWhatSfdiskWrote) {
  struct Case {
    std::string script;
    std::vector<int> slots;
  };
  const Case cases[] = {
      {kThreeParts, {0, 1, 2}},
      // Entries 2 and 4 only, the later entry first on the disk.
      {"label: gpt\nx2 : start=40960, size=4096, type=E3C9E316-0B5C-4DB8-817D-F92DF00215AE\n"
       "x4 : start=2048, size=8192, type=0657FD6D-A4AB-43C4-84E5-0933C84B4F4F\n",
       {1, 3}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    std::string path = make(c.script), dump;
    auto disk = load(path);
    EXPECT_TRUE(disk->facts().problems.empty());
    EXPECT_EQ(modelParts(*disk), sfdiskParts(path, &dump));
    EXPECT_EQ(disk->slotCount(), 128u);
    EXPECT_EQ(disk->primarySlotsInUse(), c.slots.size());
    ASSERT_EQ(disk->roots().size(), c.slots.size());
    for (size_t i = 0; i < c.slots.size(); ++i) {
      const PartitionNode& n = *disk->roots()[i];
      EXPECT_EQ(n.slot, c.slots[i]);
      EXPECT_EQ(n.role, PartitionRole::Primary);
      EXPECT_NE(dump.find("uuid=" + guidToText(n.uniqueGuid)), std::string::npos);
    }
    ASSERT_EQ(disk->rawTables().size(), 1u);
    EXPECT_EQ(disk->rawTables()[0].bytes[446 + 4], 0xEE);
    ASSERT_TRUE(disk->diskGuid());
    EXPECT_NE(dump.find("label-id: " + guidToText(*disk->diskGuid())), std::string::npos);
  }
  EXPECT_EQ(load(make(kThreeParts))->roots()[1]->name, u"data");
}

TEST_F(GptImage, DamagedCopies) {
  struct Case {
    const char* what;
    std::function<void(const std::string&)> damage;
    size_t partitions;
    std::string problem;  // part of the one expected problem sentence
  };
  auto flip = [](uint64_t offset) { return [offset](const std::string& p) { patch(p, offset, {0x5A, 0xA5}); }; };
  const Case cases[] = {
      {"primary header CRC", flip(512 + 16), 3, "primary GPT header has a wrong header CRC; the backup copy"},
      {"primary disk GUID", flip(512 + 60), 3, "primary GPT header has a wrong header CRC"},
      {"primary signature", flip(512), 3, "primary GPT header has no GPT signature"},
      {"primary entry array", flip(2 * 512 + 40), 3, "primary GPT header has a wrong partition entry array CRC"},
      {"backup header", flip(kLast * 512 + 70), 3, "backup GPT header at block 131071 has a wrong header CRC"},
      {"both headers",
       [&](const std::string& p) {
         flip(512 + 16)(p);
         flip(kLast * 512 + 16)(p);
       },
       0, "Neither GPT header can be used"},
      {"primary points outside", [](const std::string& p) { setHeaderField(p, 1, 48, kSectors + 100); }, 3,
       "primary GPT header points outside the disk: its usable area is blocks 2048 to 131172"},
      {"both point outside",
       [](const std::string& p) {
         setHeaderField(p, 1, 72, kSectors - 5);
         setHeaderField(p, kLast, 32, kSectors + 7);
       },
       0, "points outside the disk: its entry array starts at block 131067"},
  };
  const auto intact = sfdiskParts(make(kThreeParts));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string path = make(kThreeParts);
    c.damage(path);
    std::unique_ptr<PartitionedDisk> disk;
    ASSERT_NO_THROW(disk = load(path));
    ASSERT_EQ(disk->facts().problems.size(), 1u);
    EXPECT_NE(disk->facts().problems[0].find(c.problem), std::string::npos) << disk->facts().problems[0];
    EXPECT_EQ(modelParts(*disk), c.partitions ? intact : std::vector<Part>{});
    CreationRequest r;
    if (!c.partitions) {
      EXPECT_THROW(disk->createPrimary(r), Corvo::Core::Error);
    }
  }
}

// Every change leaves a table that sfdisk accepts without complaint and reads as modelled.
TEST_F(GptImage, CreateAndRemove) {
  std::string path = make("label: gpt\nstart=20480, size=20480, type=" + kLinux + "\n");
  auto disk = load(path);
  const uint64_t end = 131039 / 2048 * 2048;  // the last MiB boundary of the usable area
  struct Step {
    uint64_t size;
    bool atEnd;
    FormatKind formatKind;
    Part expected;  // size 0: does not fit
  };
  const Step steps[] = {
      {4096, false, FormatKind::FatQuick, {2048, 4096, kBasic}},
      {10000, true, FormatKind::Ext2, {end - 10240, 10240, kLinux}},  // rounded up to whole MiB
      {80000, false, FormatKind::None, {0, 0, ""}},                   // the largest gap left is 38 MiB
      {CreationRequest::kLargest, false, FormatKind::None, {40960, end - 10240 - 40960, kBasic}},
      {2048, false, FormatKind::None, {6144, 2048, kBasic}},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.expected);
    CreationRequest r;
    r.sizeBlocks = s.size;
    r.placeAtEnd = s.atEnd;
    r.formatKind = s.formatKind;
    PartitionNode* n = disk->createPrimary(r);
    if (s.expected.size == 0) {
      EXPECT_EQ(n, nullptr);
      EXPECT_EQ(r.largestAvailable, end - 10240 - 40960);
      continue;
    }
    ASSERT_NE(n, nullptr);
    EXPECT_EQ((Part{n->firstBlock, n->blockCount, guidToText(n->typeGuid)}), s.expected);
    expectVerifyClean(path);
    EXPECT_EQ(modelParts(*disk), sfdiskParts(path));
  }
  std::vector<GuidBytes> unique;
  for (const auto& n : disk->roots())
    if (n->firstBlock != 2048) unique.push_back(n->uniqueGuid);
  disk->remove(*disk->findByFirstBlock(2048));
  expectVerifyClean(path);
  disk->reload();  // the entries keep their unique GUIDs, the freed entry stays free
  EXPECT_EQ(modelParts(*disk), sfdiskParts(path));
  EXPECT_EQ(disk->primarySlotsInUse(), 4u);
  for (size_t i = 0; i < unique.size(); ++i) EXPECT_EQ(disk->roots()[i]->uniqueGuid, unique[i]);
  disk->removeAll();
  expectVerifyClean(path);
  EXPECT_TRUE(sfdiskParts(path).empty());
  EXPECT_TRUE(load(path)->roots().empty());
}

TEST_F(GptImage, ChangesRepairTheOtherCopyAndMoveTheBackupToTheEnd) {
  struct Case {
    const char* what;
    uint64_t damagedSector;  // 0: none
    bool grow;
  };
  for (const Case& c : {Case{"primary", 1, false}, Case{"backup", kLast, false}, Case{"grown disk", 0, true}}) {
    SCOPED_TRACE(c.what);
    std::string path = make(kThreeParts);
    if (c.damagedSector) patch(path, c.damagedSector * 512 + 16, {1, 2, 3});
    if (c.grow) {
      ASSERT_EQ(runCommand("truncate -s 128M " + path), 0);
    }
    auto disk = load(path);
    EXPECT_EQ(disk->facts().problems.size(), 1u);
    disk->remove(*disk->roots()[1]);
    expectVerifyClean(path);
    EXPECT_EQ(modelParts(*disk), sfdiskParts(path));
    EXPECT_TRUE(load(path)->facts().problems.empty());
  }
}

TEST_F(GptImage, InitializesBlankAndMbrDisks) {
  for (const char* script : {"label: dos\n", "label: dos\nsize=8MiB, type=7\ntype=5\n"}) {
    SCOPED_TRACE(script);
    std::string path = make(script), dump;
    patch(path, 0, {0xEB, 0x63, 0x90});  // boot code that must survive, as must the disk signature
    const uint32_t signature = Corvo::Core::get32(&readSector(path, 0)[440]);
    auto disk = initializeGptDisk(drive(path));
    EXPECT_TRUE(disk->roots().empty());
    EXPECT_TRUE(disk->facts().problems.empty());
    expectVerifyClean(path);
    sfdiskParts(path, &dump);
    EXPECT_NE(dump.find("label: gpt"), std::string::npos) << dump;
    EXPECT_NE(dump.find("first-lba: 34\nlast-lba: 131038"), std::string::npos) << dump;
    EXPECT_EQ(readSector(path, 0)[0], 0xEB);
    EXPECT_EQ(Corvo::Core::get32(&readSector(path, 0)[440]), signature);
    CreationRequest r;
    r.sizeBlocks = 2048;
    ASSERT_NE(disk->createPrimary(r), nullptr);
    EXPECT_EQ(disk->roots()[0]->firstBlock, 2048u);  // aligned although usable from 34
    expectVerifyClean(path);
  }
}

// (Extended, logical, active and hidden requests on GPT disks are refused: the command-line
// tests prove it on sfdisk images.) A table whose every entry is used takes no more.
TEST_F(GptImage, FullTableIsRefused) {
  auto disk = load(make("label: gpt\ntable-length: 4\nsize=2MiB\nsize=2MiB\nsize=2MiB\nsize=2MiB\n"));
  CreationRequest r;
  r.sizeBlocks = 2048;
  try {
    disk->createPrimary(r);
    ADD_FAILURE() << "a fifth entry was created";
  } catch (const Corvo::Core::Error& e) {
    EXPECT_EQ(e.id(), ErrorId::NoSpace) << e.text();
  }
}

TEST_F(GptImage, TellsTheOsAndRespectsBusyPartitions) {
  std::string path = make(kThreeParts);
  auto owned = KdiskTest::MemoryAccess::fromImage(path);
  KdiskTest::MemoryAccess& access = *owned;
  access.osLayout = true;
  DiskDrive drive(0, std::move(owned));
  auto disk = loadGptDisk(drive);

  // A busy partition: nothing is written and nothing changes.
  access.busy = true;
  PartitionNode& second = *disk->roots()[1];
  EXPECT_THROW(disk->remove(second), Corvo::Core::Error);
  EXPECT_THROW(disk->removeAll(), Corvo::Core::Error);
  EXPECT_EQ(access.writes, 0u);
  EXPECT_EQ(disk->roots().size(), 3u);
  EXPECT_EQ(access.prepared.front(), std::make_pair(second.firstBlock, second.blockCount));

  // A change is reported as a GPT layout; a refusal becomes the warning text.
  access.busy = false;
  access.refuseLayout = true;
  disk->remove(second);
  ASSERT_EQ(access.layouts.size(), 1u);
  const OsLayout& l = access.layouts.back();
  EXPECT_EQ(l.style, OsLayout::Gpt);
  EXPECT_EQ(l.firstUsableBlock, 2048u);
  EXPECT_EQ(l.usableBlocks, 131038u - 2048 + 1);
  ASSERT_EQ(l.entries.size(), 2u);
  EXPECT_EQ(l.entries[1].number, 3u);
  EXPECT_EQ(l.entries[1].firstBlock, disk->roots()[1]->firstBlock);
  EXPECT_EQ(disk->lastWarning(), "The system refused the layout");
  access.refuseLayout = false;
  CreationRequest r;
  r.sizeBlocks = 2048;
  ASSERT_NE(disk->createPrimary(r), nullptr);
  EXPECT_EQ(disk->lastWarning(), "");
  EXPECT_EQ(access.layouts.back().entries[1].number, 2u);  // the freed entry is used again
}

}  // namespace

// Without a disk: the disk GUID link between header copies, GUID text, type names.
TEST(GptFormat, DiskGuidFollowsTheLinkWhileTheOldGuidMatches) {
  const GuidBytes a = guidFromText("11111111-2222-3333-4444-555555555555");
  const GuidBytes b = guidFromText("AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE");
  const GuidBytes other = guidFromText("01234567-89AB-CDEF-0123-456789ABCDEF");
  // The alternate's GUID before and after the primary's changes from a to b.
  for (auto [before, after] : {std::pair{a, b}, std::pair{other, other}, std::pair{GuidBytes{}, GuidBytes{}}}) {
    GptHeader primary, alternate;
    primary.setGptUuid(a);
    alternate.setGptUuid(before);
    primary.linkAlternate(&alternate);
    alternate.linkAlternate(&primary);
    primary.setGptUuid(b);
    EXPECT_EQ(primary.diskGuid(), b);
    EXPECT_EQ(alternate.diskGuid(), after);
    alternate.setGptUuid(after);  // an unchanged GUID ends the walk round the loop of links
  }
  GptHeader linked, partner;
  linked.linkAlternate(&partner);
  EXPECT_EQ(GptHeader(linked).alternate(), nullptr);  // copies take the 92 bytes, not the link
}

TEST(GptFormat, GuidTextAndTypeNames) {
  GuidBytes parsed;
  EXPECT_TRUE(parseGuid("{c12a7328-f81f-11d2-ba4b-00a0c93ec93b}", parsed));
  EXPECT_EQ(guidToText(parsed), "C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
  for (const char* bad : {"", "C12A7328-F81F-11D2-BA4B-00A0C93EC93", "C12A7328F81F-11D2-BA4B-00A0C93EC93BB",
                          "G12A7328-F81F-11D2-BA4B-00A0C93EC93B", "{C12A7328-F81F-11D2-BA4B-00A0C93EC93B"})
    EXPECT_FALSE(parseGuid(bad, parsed)) << bad;

  const std::pair<const char*, const char*> names[] = {
      {"00000000-0000-0000-0000-000000000000", "Unused"},
      {"024DEE41-33E7-11D3-9D69-0008C781F39F", "Legcay MBR"},
      {"0FC63DAF-8483-4772-8E79-3D69D8477DE4", "{0FC63DAF-8483-4772-8E79-3D69D8477DE4}"},
      // Basic Data's bytes in text order are a different GUID.
      {"A2A0D0EB-E5B9-3344-87C0-68B6B72699C7", "{A2A0D0EB-E5B9-3344-87C0-68B6B72699C7}"},
  };
  for (const auto& [text, name] : names) EXPECT_EQ(gptTypeName(guidFromText(text)), name) << text;

  GuidBytes r1 = randomGuid(), r2 = randomGuid();
  EXPECT_NE(r1, r2);
  EXPECT_EQ(guidToText(r1)[14], '4');  // version 4
}
