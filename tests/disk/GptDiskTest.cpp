// The GPT driver against tables made and checked by sfdisk on image files.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "core/Crc32.h"
#include "core/Endian.h"
#include "disk/DiskDrive.h"
#include "disk/layout/GptDisk.h"
#include "disk/layout/GptGuid.h"
#include "support/TestSupport.h"

using namespace Corvo::Disk;
using Corvo::Core::ErrorId;
using KdiskTest::runCommand;

namespace {

constexpr uint64_t kImageSectors = 131072;  // 64 MiB

struct Part {
  uint64_t start, size;
  std::string type;  // type GUID text
  bool operator==(const Part&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Part& p) { return os << p.start << "+" << p.size << ":" << p.type; }

class GptImage : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!KdiskTest::haveTool("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
  }

  // A fresh image of `sectors` sectors partitioned by an sfdisk script.
  std::string make(const std::string& script, uint64_t sectors = kImageSectors) {
    std::string path = dir_.file("disk" + std::to_string(++images_) + ".img");
    std::string out;
    EXPECT_EQ(runCommand("truncate -s " + std::to_string(sectors * 512) + " " + path), 0);
    std::ofstream(dir_.file("script")) << script;
    EXPECT_EQ(runCommand("sfdisk -q --no-reread --no-tell-kernel " + path + " < " + dir_.file("script"), &out), 0)
        << out;
    return path;
  }

  std::unique_ptr<PartitionedDisk> load(const std::string& path) {
    drives_.push_back(std::make_unique<DiskDrive>(0, openImageDisk(path)));
    return loadGptDisk(*drives_.back());
  }

  // The partitions as sfdisk sees them.
  static std::vector<Part> sfdiskParts(const std::string& path) {
    std::string out;
    EXPECT_EQ(runCommand("sfdisk --dump " + path, &out), 0) << out;
    std::vector<Part> parts;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
      auto s = line.find("start="), z = line.find("size="), t = line.find("type=");
      if (s == std::string::npos || z == std::string::npos || t == std::string::npos) continue;
      parts.push_back({std::stoull(line.substr(s + 6)), std::stoull(line.substr(z + 5)), line.substr(t + 5, 36)});
    }
    return parts;
  }

  static std::vector<Part> modelParts(const PartitionedDisk& disk) {
    std::vector<Part> parts;
    for (const auto& n : disk.roots()) parts.push_back({n->firstBlock, n->blockCount, guidToText(n->typeGuid)});
    return parts;
  }

  static void expectVerifyClean(const std::string& path) {
    std::string out;
    EXPECT_EQ(runCommand("sfdisk --verify " + path, &out), 0) << out;
    EXPECT_NE(out.find("No errors detected"), std::string::npos) << out;
    EXPECT_EQ(out.find("corrupt"), std::string::npos) << out;
    EXPECT_EQ(out.find("not on the end"), std::string::npos) << out;
  }

  static void patch(const std::string& path, uint64_t offset, const std::vector<uint8_t>& bytes) {
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(static_cast<std::streamoff>(offset));
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  static std::vector<uint8_t> readSector(const std::string& path, uint64_t sector) {
    std::vector<uint8_t> b(512);
    std::ifstream f(path, std::ios::binary);
    f.seekg(static_cast<std::streamoff>(sector * 512));
    f.read(reinterpret_cast<char*>(b.data()), 512);
    return b;
  }
  // Rewrites one 64-bit field of a header and gives the header a correct CRC again.
  static void setHeaderField(const std::string& path, uint64_t sector, size_t offset, uint64_t value) {
    auto h = readSector(path, sector);
    Corvo::Core::put64(&h[offset], value);
    Corvo::Core::put32(&h[16], 0);
    Corvo::Core::put32(&h[16], Corvo::Core::crc32(h.data(), 92));
    patch(path, sector * 512, h);
  }

  KdiskTest::TempDir dir_;
  int images_ = 0;
  std::vector<std::unique_ptr<DiskDrive>> drives_;
};

const char* kThreeParts =
    "label: gpt\n"
    "size=10MiB, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B, name=\"esp\"\n"
    "size=20MiB, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7, name=\"data\"\n"
    "type=0FC63DAF-8483-4772-8E79-3D69D8477DE4\n";

TEST_F(GptImage, ReadsWhatSfdiskWrote) {
  struct Case {
    const char* script;
    std::vector<int> slots;
    std::vector<std::string> names;
  };
  const Case cases[] = {
      {kThreeParts, {0, 1, 2}, {"EFI System", "Microsoft Basic Data", "{0FC63DAF-8483-4772-8E79-3D69D8477DE4}"}},
      // Entries 2 and 4 only, the later entry placed first on the disk.
      {"label: gpt\n"
       "x2 : start=40960, size=4096, type=E3C9E316-0B5C-4DB8-817D-F92DF00215AE\n"
       "x4 : start=2048, size=8192, type=0657FD6D-A4AB-43C4-84E5-0933C84B4F4F\n",
       {1, 3},
       {"Microsoft Reserved", "Linux Swap"}},
      {"label: gpt\n", {}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    std::string path = make(c.script);
    auto disk = load(path);
    EXPECT_TRUE(disk->facts().problems.empty()) << disk->facts().problems.front();
    EXPECT_EQ(disk->scheme(), PartitionScheme::Gpt);
    EXPECT_EQ(modelParts(*disk), sfdiskParts(path));
    EXPECT_EQ(disk->slotCount(), 128u);
    EXPECT_EQ(disk->primarySlotsInUse(), c.slots.size());
    ASSERT_EQ(disk->roots().size(), c.slots.size());
    for (size_t i = 0; i < c.slots.size(); ++i) {
      const PartitionNode& n = *disk->roots()[i];
      EXPECT_EQ(n.slot, c.slots[i]);
      EXPECT_EQ(n.role, PartitionRole::Primary);
      EXPECT_EQ(n.type, 0);
      EXPECT_EQ(gptTypeName(n.typeGuid), c.names[i]);
      EXPECT_FALSE(isZeroGuid(n.uniqueGuid));
    }
    auto raw = disk->rawTables();
    ASSERT_EQ(raw.size(), 1u);
    EXPECT_EQ(raw[0].block, 0u);
    EXPECT_EQ(raw[0].bytes[446 + 4], 0xEE);
  }
  auto disk = load(make(kThreeParts));
  EXPECT_EQ(disk->roots()[1]->name, u"data");
}

TEST_F(GptImage, DamagedCopies) {
  const uint64_t last = kImageSectors - 1;
  struct Case {
    const char* what;
    std::function<void(const std::string&)> damage;
    size_t partitions;
    std::vector<std::string> problems;  // fragments, one per expected problem sentence
  };
  auto flip = [](uint64_t offset) { return [offset](const std::string& p) { patch(p, offset, {0x5A, 0xA5}); }; };
  const Case cases[] = {
      {"intact", [](const std::string&) {}, 3, {}},
      {"primary header CRC", flip(512 + 16), 3, {"primary GPT header has a wrong header CRC; the backup copy"}},
      {"primary header field", flip(512 + 60), 3, {"primary GPT header has a wrong header CRC"}},
      {"primary signature", flip(512), 3, {"primary GPT header has no GPT signature"}},
      {"primary entry array", flip(2 * 512 + 40), 3, {"primary GPT header has a wrong partition entry array CRC"}},
      {"backup header", flip(last * 512 + 70), 3, {"backup GPT header at block 131071 has a wrong header CRC"}},
      {"both headers",
       [&](const std::string& p) {
         flip(512 + 16)(p);
         flip(last * 512 + 16)(p);
       },
       0,
       {"Neither GPT header can be used"}},
      {"primary points outside",
       [&](const std::string& p) { setHeaderField(p, 1, 48, kImageSectors + 100); },
       3,
       {"primary GPT header points outside the disk: its usable area is blocks 2048 to 131172"}},
      {"both point outside",
       [&](const std::string& p) {
         setHeaderField(p, 1, 72, kImageSectors - 5);
         setHeaderField(p, last, 72, kImageSectors + 7);
       },
       0,
       {"points outside the disk: its entry array starts at block 131067"}},
      {"entry ends before it starts",
       [&](const std::string& p) {
         // Entry 1's last block below its first, with both CRCs made right again.
         auto array = std::vector<uint8_t>(32 * 512);
         std::ifstream f(p, std::ios::binary);
         f.seekg(2 * 512);
         f.read(reinterpret_cast<char*>(array.data()), static_cast<std::streamsize>(array.size()));
         f.close();
         Corvo::Core::put64(&array[128 + 40], 100);
         patch(p, 2 * 512, array);
         patch(p, (last - 32) * 512, array);
         uint32_t crc = Corvo::Core::crc32(array.data(), 128 * 128);
         for (uint64_t s : {uint64_t{1}, last}) {
           auto h = readSector(p, s);
           Corvo::Core::put32(&h[88], crc);
           patch(p, s * 512, h);
           setHeaderField(p, s, 24, s);  // recomputes the header CRC
         }
       },
       2,
       {"GPT entry 2 ends before it starts"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string path = make(kThreeParts);
    c.damage(path);
    std::unique_ptr<PartitionedDisk> disk;
    ASSERT_NO_THROW(disk = load(path));
    EXPECT_EQ(disk->roots().size(), c.partitions);
    ASSERT_EQ(disk->facts().problems.size(), c.problems.size());
    for (size_t i = 0; i < c.problems.size(); ++i)
      EXPECT_NE(disk->facts().problems[i].find(c.problems[i]), std::string::npos) << disk->facts().problems[i];
    if (c.partitions == 3) {
      EXPECT_EQ(modelParts(*disk), sfdiskParts(make(kThreeParts)));
    }
    if (c.partitions == 0) {
      CreationRequest r;
      EXPECT_THROW(disk->createPrimary(r), Corvo::Core::Error);
    }
  }
}

// Every change leaves a table that sfdisk accepts without complaint and reads as we model it.
TEST_F(GptImage, CreateAndRemove) {
  std::string path = make("label: gpt\nstart=20480, size=20480, type=0FC63DAF-8483-4772-8E79-3D69D8477DE4\n");
  auto disk = load(path);
  const std::string basic = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", linuxData = "0FC63DAF-8483-4772-8E79-3D69D8477DE4";
  struct Step {
    uint64_t size;
    bool atEnd;
    int formatKind;
    Part expected;  // size 0: does not fit
  };
  const uint64_t alignedEnd = (kImageSectors - 33) / 2048 * 2048;
  const Step steps[] = {
      {4096, false, 2, {2048, 4096, basic}},
      {10000, true, 4, {alignedEnd - 10240, 10240, linuxData}},  // rounded up to whole MiB
      {80000, false, 0, {0, 0, ""}},                             // the largest gap left is 38 MiB
      {CreationRequest::kLargest, false, 0, {40960, alignedEnd - 10240 - 40960, basic}},
      {2048, false, 0, {6144, 2048, basic}},
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
      EXPECT_EQ(r.largestAvailable, alignedEnd - 10240 - 40960);
      continue;
    }
    ASSERT_NE(n, nullptr);
    EXPECT_EQ((Part{n->firstBlock, n->blockCount, guidToText(n->typeGuid)}), s.expected);
    EXPECT_TRUE(disk->lastWarning().empty());
    expectVerifyClean(path);
    EXPECT_EQ(modelParts(*disk), sfdiskParts(path));
  }
  EXPECT_EQ(disk->primarySlotsInUse(), 5u);
  std::map<uint64_t, GuidBytes> unique;
  for (const auto& n : disk->roots()) unique[n->firstBlock] = n->uniqueGuid;
  disk->remove(*disk->findByFirstBlock(2048));
  unique.erase(2048);
  expectVerifyClean(path);
  EXPECT_EQ(modelParts(*disk), sfdiskParts(path));
  // A reload sees the same, and the entries keep their unique GUIDs.
  disk->reload();
  EXPECT_EQ(modelParts(*disk), sfdiskParts(path));
  EXPECT_EQ(disk->primarySlotsInUse(), 4u);
  std::map<uint64_t, GuidBytes> reloaded;
  for (const auto& n : disk->roots()) reloaded[n->firstBlock] = n->uniqueGuid;
  EXPECT_EQ(reloaded, unique);
  disk->removeAll();
  expectVerifyClean(path);
  EXPECT_TRUE(sfdiskParts(path).empty());
  EXPECT_TRUE(load(path)->roots().empty());
}

TEST_F(GptImage, ChangesRepairTheDamagedCopyAndMoveTheBackupToTheEnd) {
  struct Case {
    const char* what;
    std::function<std::string()> image;
  };
  const Case cases[] = {
      {"damaged primary",
       [&] {
         auto p = make(kThreeParts, kImageSectors * 2);
         patch(p, 512 + 16, {1, 2, 3});
         return p;
       }},
      {"damaged backup",
       [&] {
         auto p = make(kThreeParts, kImageSectors * 2);
         patch(p, (kImageSectors * 2 - 1) * 512 + 16, {1, 2, 3});
         return p;
       }},
      {"grown disk",
       [&] {
         auto p = make(kThreeParts);
         EXPECT_EQ(runCommand("truncate -s " + std::to_string(kImageSectors * 1024) + " " + p), 0);
         return p;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string path = c.image();
    auto disk = load(path);
    EXPECT_EQ(disk->facts().problems.size(), 1u);
    disk->remove(*disk->roots()[1]);
    expectVerifyClean(path);
    EXPECT_EQ(modelParts(*disk), sfdiskParts(path));
    EXPECT_TRUE(load(path)->facts().problems.empty());
  }
}

TEST_F(GptImage, MbrOnlyOperationsAreRefused) {
  auto disk = load(make(kThreeParts));
  PartitionNode& n = *disk->roots()[0];
  CreationRequest r;
  const std::vector<std::pair<std::function<void()>, std::string>> ops = {
      {[&] { disk->createExtended(r); }, "Extended DOS partitions are not supported on GPT disks"},
      {[&] { disk->createLogical(r); }, "Logical DOS drives are not supported on GPT disks"},
      {[&] { disk->setActive(n); }, "Active partitions are not supported on GPT disks"},
      {[&] { disk->clearActive(n); }, "Active partitions are not supported on GPT disks"},
      {[&] { disk->setType(n, 0x17); }, "hiding and unhiding"},
  };
  for (const auto& [op, text] : ops) {
    try {
      op();
      ADD_FAILURE() << "no error for " << text;
    } catch (const Corvo::Core::Error& e) {
      EXPECT_EQ(e.id(), ErrorId::NotSupported);
      EXPECT_NE(e.text().find(text), std::string::npos) << e.text();
    }
  }
}

TEST_F(GptImage, AllEntriesInUse) {
  std::string script = "label: gpt\ntable-length: 4\n";
  for (int i = 0; i < 4; ++i) script += "size=2MiB\n";
  auto disk = load(make(script));
  EXPECT_EQ(disk->slotCount(), 4u);
  CreationRequest r;
  r.sizeBlocks = 2048;
  try {
    disk->createPrimary(r);
    ADD_FAILURE() << "created a fifth partition in a table of four entries";
  } catch (const Corvo::Core::Error& e) {
    EXPECT_EQ(e.id(), ErrorId::NoSpace);
  }
}

}  // namespace
