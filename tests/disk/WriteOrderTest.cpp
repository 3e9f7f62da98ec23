// Ordered, durable writes: every change is run on a disk that records its writes and flushes.
// A stop after any write, and any reordering of the writes between two flushes, must leave a
// disk that sfdisk reads as the old layout or the new one; a half-made FAT filesystem must not
// be recognised by blkid.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include "core/Error.h"
#include "disk/DiskDrive.h"
#include "disk/PartitionedDisk.h"
#include "disk/TableBackup.h"
#include "disk/layout/GptDisk.h"
#include "filesystem/fat/Fat.h"
#include "support/TestSupport.h"

namespace {

using namespace Corvo::Disk;
using KdiskTest::MemoryAccess;
using KdiskTest::writeSparseImage;

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// sfdisk's partition lines for an image, or "unreadable" when it finds no table.
std::string sfdiskLayout(const std::string& path) {
  std::string out;
  if (KdiskTest::runCommand("sfdisk --dump '" + path + "' 2>/dev/null", &out) != 0) return "unreadable";
  std::istringstream in(out);
  std::string line, parts;
  while (std::getline(in, line))
    if (line.find(" : start=") != std::string::npos) {
      line = line.substr(line.find(" : "));
      // New GPT entries get random GUIDs; where an entry is and what it is decides.
      const size_t uuid = line.find(", uuid=");
      if (uuid != std::string::npos) line.erase(uuid, line.find(',', uuid + 1) - uuid);
      parts += line + "\n";
    }
  return parts;
}

class WriteOrder : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* tool : {"sfdisk", "blkid", "fsck.fat", "mkfs.fat"})
      if (!KdiskTest::haveTool(tool)) GTEST_SKIP() << tool << " is not installed";
  }

  // Runs the change on a recording copy of the image made by the sfdisk script (and changed
  // first by prepare, when given), then checks every stop point and every crash image against
  // sfdisk's old and new view.
  void check(const std::string& what, const std::string& script, const std::function<void(PartitionedDisk&)>& change,
             const std::function<void(PartitionedDisk&)>& prepare = {}) {
    SCOPED_TRACE(what);
    const std::string path = dir_.file("disk.img");
    ASSERT_EQ(KdiskTest::runCommand("rm -f " + path + " && truncate -s 32M " + path), 0);
    std::string out;
    ASSERT_EQ(KdiskTest::runCommand("printf '" + script + "' | sfdisk -q --no-reread --no-tell-kernel " + path, &out), 0)
        << out;
    std::vector<uint8_t> before = readFile(path);
    if (script.find("label: dos") != std::string::npos) {
      // Every unused sector holds a stale extended boot record (signature and one tiny drive),
      // as left by earlier tables: a link written before the record it reaches shows up.
      for (size_t at = 2048 * 512; at < before.size(); at += 512) {
        if (std::any_of(before.begin() + at, before.begin() + at + 512, [](uint8_t b) { return b != 0; })) continue;
        before[at + 446 + 4] = 0x83;
        before[at + 446 + 8] = 1;
        before[at + 446 + 12] = 1;
        before[at + 510] = 0x55;
        before[at + 511] = 0xAA;
      }
      writeSparseImage(path, before);
    }
    if (prepare) {
      auto owned = std::make_unique<MemoryAccess>(before);
      MemoryAccess& mem = *owned;
      DiskDrive drive(0, std::move(owned));
      prepare(*PartitionedDisk::load(drive));
      before = mem.data;
      writeSparseImage(path, before);
    }
    const std::string oldLayout = sfdiskLayout(path);

    auto owned = std::make_unique<MemoryAccess>(before);
    MemoryAccess& rec = *owned;  // the drive owns it
    rec.recording = true;
    DiskDrive drive(0, std::move(owned));
    change(*PartitionedDisk::load(drive));
    writeSparseImage(path, rec.data);
    const std::string newLayout = sfdiskLayout(path);
    ASSERT_NE(newLayout, oldLayout) << "the change changed nothing";
    ASSERT_NE(newLayout, "unreadable");

    // Writes between flushes may reach the disk in any order: every image a stop can leave
    // holds the old layout or the new one.
    std::set<size_t> seen;
    KdiskTest::forEachCrashImage(before, rec.log, [&](const std::vector<uint8_t>& image) {
      if (!seen.insert(KdiskTest::imageHash(image)).second) return;
      writeSparseImage(path, image);
      const std::string layout = sfdiskLayout(path);
      EXPECT_TRUE(layout == oldLayout || layout == newLayout) << "crash image " << seen.size() << ":\n" << layout;
    });
    // A disk that stops after write k: the change fails and leaves one of those images.
    for (size_t k = 0; k < rec.writes; ++k) {
      auto stopping = std::make_unique<MemoryAccess>(before);
      MemoryAccess& s = *stopping;
      s.stopAfter = k;
      DiskDrive stopped(0, std::move(stopping));
      EXPECT_THROW(change(*PartitionedDisk::load(stopped)), Corvo::Core::Error) << "stop after write " << k;
      if (seen.count(KdiskTest::imageHash(s.data))) continue;
      // Not one of them byte for byte (new GUIDs are random): sfdisk decides.
      writeSparseImage(path, s.data);
      const std::string layout = sfdiskLayout(path);
      EXPECT_TRUE(layout == oldLayout || layout == newLayout) << "stop after write " << k << ":\n" << layout;
    }
  }

  KdiskTest::TempDir dir_;
};

PartitionNode& nth(PartitionedDisk& disk, unsigned number) {
  PartitionNode* n = disk.byDisplayNumber(number);
  if (!n) throw std::runtime_error("no partition " + std::to_string(number));
  return *n;
}

// Layouts of a 32 MiB disk: a primary, an extended partition with two logical drives, a GPT.
const std::string kPrimaryOnly = "label: dos\\nstart=2048, size=8192, type=83\\n";
const std::string kWithExtended =
    "label: dos\\nstart=2048, size=8192, type=83\\nstart=10240, size=40960, type=5\\n"
    "start=12288, size=8192, type=83\\nstart=22528, size=8192, type=83\\n";
const std::string kEmptyExtended = "label: dos\\nstart=2048, size=8192, type=83\\nstart=10240, size=40960, type=5\\n";
const std::string kGpt = "label: gpt\\nstart=2048, size=8192\\nstart=12288, size=8192\\n";

TEST_F(WriteOrder, MbrChangesLeaveTheOldOrTheNewTable) {
  auto sized = [](uint64_t blocks) {
    CreationRequest r;
    r.sizeBlocks = blocks;
    r.alignment = 2048;
    return r;
  };
  const struct {
    const char* what;
    const std::string& script;
    std::function<void(PartitionedDisk&)> change;
  } cases[] = {
      {"create primary", kPrimaryOnly, [&](PartitionedDisk& d) { auto r = sized(4096); d.createPrimary(r); }},
      {"create extended", kPrimaryOnly, [&](PartitionedDisk& d) { auto r = sized(20480); d.createExtended(r); }},
      {"create first logical", kEmptyExtended, [&](PartitionedDisk& d) { auto r = sized(4096); d.createLogical(r); }},
      {"create linked logical", kWithExtended, [&](PartitionedDisk& d) { auto r = sized(4096); d.createLogical(r); }},
      {"delete primary", kWithExtended, [](PartitionedDisk& d) { d.remove(nth(d, 1)); }},
      {"delete extended", kWithExtended, [](PartitionedDisk& d) { d.remove(nth(d, 2)); }},
      {"delete first logical", kWithExtended, [](PartitionedDisk& d) { d.remove(nth(d, 3)); }},
      {"delete last logical", kWithExtended, [](PartitionedDisk& d) { d.remove(nth(d, 4)); }},
      {"delete all", kWithExtended, [](PartitionedDisk& d) { d.removeAll(); }},
  };
  for (const auto& c : cases) check(c.what, c.script, c.change);
}

TEST_F(WriteOrder, GptChangesLeaveTheOldOrTheNewTable) {
  check("create entry", kGpt, [](PartitionedDisk& d) {
    CreationRequest r;
    r.sizeBlocks = 4096;
    d.createPrimary(r);
  });
  check("delete entry", kGpt, [](PartitionedDisk& d) { d.remove(nth(d, 2)); });
  check("initialize", kPrimaryOnly, [](PartitionedDisk& d) { initializeGptDisk(d.drive()); });
}

// A table backup written back: the sectors go back in an order that leaves, at every stop, the
// changed table or the saved one.
TEST_F(WriteOrder, RestoredBackupLeavesTheChangedOrTheSavedTable) {
  const struct {
    const char* what;
    const std::string& script;
    std::function<void(PartitionedDisk&)> change;
  } cases[] = {
      {"linked logical", kWithExtended,
       [](PartitionedDisk& d) {
         CreationRequest r;
         r.sizeBlocks = 4096;
         r.alignment = 2048;
         d.createLogical(r);
       }},
      {"delete extended", kWithExtended, [](PartitionedDisk& d) { d.remove(nth(d, 2)); }},
      {"delete all", kWithExtended, [](PartitionedDisk& d) { d.removeAll(); }},
      {"delete GPT entry", kGpt, [](PartitionedDisk& d) { d.remove(nth(d, 1)); }},
      {"GPT over MBR", kWithExtended, [](PartitionedDisk& d) { initializeGptDisk(d.drive()); }},
  };
  for (const auto& c : cases) {
    TableBackupContents saved;
    check(
        c.what, c.script, [&](PartitionedDisk& d) { restoreTableBackup(d.drive(), saved); },
        [&](PartitionedDisk& d) {
          TableBackup backup(d, dir_.file("backups"), c.what);
          {
            TableBackup::Watch watch(backup);
            c.change(d);
          }
          saved = readTableBackup(backup.file());
        });
  }
}

// blkid's UUID of a filesystem image ("" when it recognises none).
std::string fatUuid(const std::string& path) {
  std::string out;
  KdiskTest::runCommand("blkid -p -o value -s UUID '" + path + "' 2>/dev/null", &out);
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

TEST_F(WriteOrder, HalfMadeFatFilesystemIsNotRecognised) {
  const struct {
    int type;
    unsigned mb;
    const char* mkfs;  // the filesystem there before
  } cases[] = {{0, 4, "-F 12"}, {1, 24, "-F 16"}, {2, 40, "-F 32 -S 512 -s 1"}};
  const std::string path = dir_.file("fs.img");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    std::string out;
    ASSERT_EQ(KdiskTest::runCommand("rm -f " + path + " && truncate -s " + std::to_string(c.mb) + "M " + path +
                                        " && mkfs.fat " + c.mkfs + " -i 12345678 " + path,
                                    &out),
              0)
        << out;
    const std::vector<uint8_t> before = readFile(path);
    const std::string oldUuid = fatUuid(path);
    ASSERT_EQ(oldUuid, "1234-5678");

    auto owned = std::make_unique<MemoryAccess>(before);
    MemoryAccess& rec = *owned;  // the drive owns it
    rec.recording = true;
    DiskDrive drive(0, std::move(owned));
    {
      KdiskTest::ScopedCapture quiet;
      Corvo::Filesystem::formatFat(drive, Corvo::Filesystem::FatType(c.type), Corvo::Filesystem::FormatOptions{});
    }
    writeSparseImage(path, rec.data);
    const std::string newUuid = fatUuid(path);
    ASSERT_FALSE(newUuid.empty());
    ASSERT_NE(newUuid, oldUuid);
    ASSERT_EQ(KdiskTest::runCommand("fsck.fat -n " + path, &out), 0) << out;

    // Each crash image holds no filesystem, or a whole one: the old one only before the first
    // write, the new one only once everything is written.
    const size_t oldImage = KdiskTest::imageHash(before), newImage = KdiskTest::imageHash(rec.data);
    std::set<size_t> seen;
    KdiskTest::forEachCrashImage(before, rec.log, [&](const std::vector<uint8_t>& image) {
      const size_t hash = KdiskTest::imageHash(image);
      if (!seen.insert(hash).second) return;
      writeSparseImage(path, image);
      const std::string uuid = fatUuid(path);
      EXPECT_TRUE(uuid.empty() || (uuid == oldUuid && hash == oldImage) || (uuid == newUuid && hash == newImage))
          << "crash image " << seen.size() << " is recognised as " << uuid;
    });
  }
}

}  // namespace
