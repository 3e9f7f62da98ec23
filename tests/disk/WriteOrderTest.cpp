// Ordered, durable writes: every change is run on a disk that records its writes and flushes.
// A stop after any write, and any reordering of the writes between two flushes, must leave a
// disk that sfdisk reads as the old layout or the new one; a half-made FAT filesystem must not
// be recognised by blkid.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iostream>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

#include <map>

#include "app/CmdCreate.h"
#include "core/Crc32.h"
#include "core/Endian.h"
#include "core/Error.h"
#include "core/Interrupt.h"
#include "disk/DiskDrive.h"
#include "disk/PartitionedDisk.h"
#include "disk/Wipe.h"
#include "disk/TableBackup.h"
#include "disk/layout/GptDisk.h"
#include "disk/layout/GptFormat.h"
#include "filesystem/fat/Fat.h"
#include "filesystem/Formatter.h"
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

// A recording disk on which Ctrl-C is pressed right after write number `interruptAfter`.
class InterruptedDiskAccess : public MemoryAccess {
 public:
  explicit InterruptedDiskAccess(std::vector<uint8_t> image) : MemoryAccess(std::move(image)) { recording = true; }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    MemoryAccess::write(first, count, buffer);
    if (writes == interruptAfter) Corvo::Core::requestInterrupt();
  }
  size_t interruptAfter = SIZE_MAX;
};

// Stretches GPT entry `index` over the blocks [first, last] in both copies, CRCs right (sfdisk
// makes no such entries).
void stretchGptEntry(std::vector<uint8_t>& image, uint32_t index, uint64_t first, uint64_t last) {
  for (uint64_t at : {uint64_t{1}, image.size() / 512 - 1}) {
    GptHeader h(image.data() + at * 512);
    uint8_t* entries = image.data() + h.entriesBlock() * 512;
    GptRecord r(entries + size_t{index} * h.entrySize());
    r.setFirstBlock(first);
    r.setLastBlock(last);
    r.copyTo(entries + size_t{index} * h.entrySize());
    h.setEntriesCrc(Corvo::Core::crc32(entries, size_t{h.entryCount()} * h.entrySize()));
    h.updateHeaderCrc();
    h.copyTo(image.data() + at * 512);
  }
}

// A wipe of an entry that covers table structures (the master boot record, the extended boot
// records of the chain, the GPT headers and arrays) never writes them: sfdisk reads the same
// table when Ctrl-C stops the wipe after any of its writes, and after a wipe that completes.
TEST_F(WriteOrder, WipesNeverWriteTheTable) {
  const uint64_t last = 32 * 2048 - 1;
  const struct {
    const char* what;
    const std::string& script;
    unsigned number;  // the partition wiped
    std::function<void(std::vector<uint8_t>&)> patch;
  } cases[] = {
      {"a primary over the master boot record", kPrimaryOnly, 1,
       [](std::vector<uint8_t>& img) { Corvo::Core::put32(img.data() + 446 + 8, 0); }},  // starts at 0
      {"the extended partition with its records", kWithExtended, 2, nullptr},
      {"a GPT entry over the primary header and array", kGpt, 1,
       [](std::vector<uint8_t>& img) { stretchGptEntry(img, 0, 0, 10239); }},
      {"a GPT entry over the backup array and header", kGpt, 2,
       [last](std::vector<uint8_t>& img) { stretchGptEntry(img, 1, 12288, last); }},
  };
  const std::string path = dir_.file("wipe.img");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string out;
    ASSERT_EQ(KdiskTest::runCommand("rm -f " + path + " && truncate -s 32M " + path + " && printf '" + c.script +
                                        "' | sfdisk -q --no-reread --no-tell-kernel " + path,
                                    &out),
              0)
        << out;
    std::vector<uint8_t> before = readFile(path);
    if (c.patch) c.patch(before);
    writeSparseImage(path, before);
    const std::string table = sfdiskLayout(path);
    ASSERT_NE(table, "unreadable");

    // Runs the wipe (three writing passes and a verifying one) with Ctrl-C after write k;
    // returns the disk.
    size_t total = 0;
    auto wipe = [&](size_t k) {
      auto owned = std::make_unique<InterruptedDiskAccess>(before);
      InterruptedDiskAccess& rec = *owned;
      rec.interruptAfter = k;
      DiskDrive drive(0, std::move(owned));
      auto disk = PartitionedDisk::load(drive);
      const PartitionNode& node = nth(*disk, c.number);
      KdiskTest::ScopedCapture quiet;
      try {
        EXPECT_TRUE(wipePartition(*disk, node.firstBlock, node.blockCount, wmCustom, 1).empty());
        EXPECT_GE(k, rec.writes) << "the wipe went on after Ctrl-C";
        EXPECT_NE(quiet.sink().infos.find(" left as "),
                  std::string::npos);
      } catch (const Corvo::Core::Error& e) {
        EXPECT_EQ(e.id(), Corvo::Core::ErrorId::Interrupted) << e.text();
      }
      Corvo::Core::clearInterrupt();
      // No write reaches a sector of the table.
      for (const SectorRange& t : disk->tableSectors()) {
        for (const auto& w : rec.log) {
          const bool apart = w.flush || w.first + w.data.size() / 512 <= t.first || t.first + t.count <= w.first;
          EXPECT_TRUE(apart) << "a write at sector " << w.first << " reaches the table at " << t.first;
        }
      }
      total = std::max<size_t>(total, rec.writes);
      return std::move(rec.data);
    };
    writeSparseImage(path, wipe(SIZE_MAX));
    EXPECT_EQ(sfdiskLayout(path), table) << "after the whole wipe";
    for (size_t k = 1; k <= total; k += std::max<size_t>(1, total / 16)) {
      writeSparseImage(path, wipe(k));
      EXPECT_EQ(sfdiskLayout(path), table) << "Ctrl-C after write " << k;
    }
  }
}

// A disk over an image file that stays as it is: writes are kept in memory and logged, so
// that a disk of hundreds of MiB costs only what is written.
class OverlayDiskAccess : public Corvo::Disk::DiskDriveAccess {
 public:
  OverlayDiskAccess(const std::string& base, uint64_t blocks) : fd_(::open(base.c_str(), O_RDONLY)), blocks_(blocks) {}
  ~OverlayDiskAccess() override { ::close(fd_); }
  std::string path() const override { return "overlay"; }
  Geometry getGeometry() const override { return {}; }
  uint64_t totalBlocks() const override { return blocks_; }
  void read(uint64_t first, uint64_t count, void* buffer) override {
    auto* out = static_cast<uint8_t*>(buffer);
    if (::pread(fd_, out, count * 512, static_cast<off_t>(first * 512)) != static_cast<ssize_t>(count * 512))
      throw Corvo::Core::Error(Corvo::Core::ErrorId::ReadFailed, "overlay read");
    for (auto it = written_.lower_bound(first); it != written_.end() && it->first < first + count; ++it)
      std::memcpy(out + (it->first - first) * 512, it->second.data(), 512);
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    const auto* in = static_cast<const uint8_t*>(buffer);
    log.push_back({false, first, std::vector<uint8_t>(in, in + count * 512)});
    for (uint64_t s = 0; s < count; ++s) written_[first + s].assign(in + s * 512, in + s * 512 + 512);
  }
  void flush() override { log.push_back({true, 0, {}}); }
  std::vector<MemoryAccess::Event> log;

 private:
  int fd_;
  uint64_t blocks_;
  std::map<uint64_t, std::vector<uint8_t>> written_;
};

// /CRE /PRI /SZ:600 /FOR /Q (FAT32) over space that held an ext2 volume: from the format's
// first write on, a disk stopped after any write holds nothing blkid takes for ext2.
TEST_F(WriteOrder, FormatOverAnOldFilesystemIsNeverTakenForIt) {
  if (!KdiskTest::haveTool("mkfs.ext2")) GTEST_SKIP() << "mkfs.ext2 is not installed";
  const std::string base = dir_.file("old.img"), work = dir_.file("cut.img");
  const uint64_t blocks = 620 * 2048;
  std::string out;
  ASSERT_EQ(KdiskTest::runCommand("truncate -s 620M " + base + " && mkfs.ext2 -q -F -E offset=1048576 " + base +
                                      " 600M && printf 'label: dos\n' | sfdisk -q --no-reread --no-tell-kernel " + base,
                                  &out),
            0)
      << out;
  auto type = [&](const std::string& path) {
    std::string t;
    KdiskTest::runCommand("blkid -p -O 1048576 -o value -s TYPE " + path + " 2>/dev/null", &t);
    while (!t.empty() && t.back() == '\n') t.pop_back();
    return t;
  };
  ASSERT_EQ(type(base), "ext2");

  auto owned = std::make_unique<OverlayDiskAccess>(base, blocks);
  OverlayDiskAccess& rec = *owned;
  DiskDrive drive(0, std::move(owned));
  {
    auto fixed = std::make_unique<Kdisk::FixedDisk>();
    fixed->drive = &drive;
    fixed->layout = PartitionedDisk::load(drive);
    Kdisk::releaseFixedDiskTable();
    Kdisk::adoptFixedDisk(std::move(fixed));
    CreationRequest request;
    request.sizeBlocks = 600 * 2048;
    request.formatKind = FormatKind::FatQuick;
    request.alignment = CreationRequest::kMegabyteAlignment;
    KdiskTest::ScopedCapture quiet;
    EXPECT_TRUE(Kdisk::createPrimaryDos(*Kdisk::fixedDisks()[0], request)) << quiet.sink().errors;
    Kdisk::releaseFixedDiskTable();
  }
  // The table entry is the first write, the format's writes follow.
  ASSERT_GT(rec.log.size(), 2u);
  ASSERT_EQ(rec.log[0].first, 0u);
  ASSERT_EQ(KdiskTest::runCommand("cp --sparse=always " + base + " " + work), 0);
  const int fd = ::open(work.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  size_t writes = 0;
  for (const auto& e : rec.log) {
    if (e.flush) continue;
    ASSERT_EQ(::pwrite(fd, e.data.data(), e.data.size(), static_cast<off_t>(e.first * 512)),
              static_cast<ssize_t>(e.data.size()));
    if (++writes == 1) continue;  // only the entry: the old volume is whole
    EXPECT_NE(type(work), "ext2") << "stopped after write " << writes;
  }
  ::close(fd);
  EXPECT_EQ(type(work), "vfat");
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
std::string fsUuid(const std::string& path) {
  std::string out;
  KdiskTest::runCommand("blkid -p -o value -s UUID '" + path + "' 2>/dev/null", &out);
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

// Every formatter of the registry, over a filesystem made by the standard tool.
TEST_F(WriteOrder, HalfMadeFilesystemIsNotRecognised) {
  using Corvo::Disk::FormatKind;
  const struct {
    FormatKind kind;
    uint8_t type;      // the partition's type byte (picks the FAT type)
    unsigned mb;
    const char* mkfs;  // the filesystem there before
  } cases[] = {{FormatKind::FatQuick, 0x01, 4, "mkfs.fat -F 12 -i 12345678"},
               {FormatKind::FatQuick, 0x06, 24, "mkfs.fat -F 16 -i 12345678"},
               {FormatKind::FatQuick, 0x0C, 40, "mkfs.fat -F 32 -S 512 -s 1 -i 12345678"},
               {FormatKind::Ext2, 0x83, 8, "mkfs.ext2 -q -F"},
               {FormatKind::Ntfs, 0x07, 16, "mkfs.ntfs -q -F -Q"}};
  const std::string path = dir_.file("fs.img");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mkfs);
    const std::string tool = std::string(c.mkfs).substr(0, std::string(c.mkfs).find(' '));
    if (!KdiskTest::haveTool(tool.c_str())) {
      std::cerr << tool << " is not installed: case left out\n";
      continue;
    }
    std::string out;
    ASSERT_EQ(KdiskTest::runCommand("rm -f " + path + " && truncate -s " + std::to_string(c.mb) + "M " + path +
                                        " && " + c.mkfs + " " + path + " >/dev/null",
                                    &out),
              0)
        << out;
    const std::vector<uint8_t> before = readFile(path);
    const std::string oldUuid = fsUuid(path);
    ASSERT_FALSE(oldUuid.empty());

    auto owned = std::make_unique<MemoryAccess>(before);
    MemoryAccess& rec = *owned;  // the drive owns it
    rec.recording = true;
    DiskDrive drive(0, std::move(owned));
    Corvo::Filesystem::FormatOptions options;
    options.partitionType = c.type;
    {
      KdiskTest::ScopedCapture quiet;
      Corvo::Filesystem::formatterFor(c.kind)->format(drive, options);
    }
    writeSparseImage(path, rec.data);
    const std::string newUuid = fsUuid(path);
    ASSERT_FALSE(newUuid.empty());
    ASSERT_NE(newUuid, oldUuid);

    // Each crash image holds no filesystem, or a whole one: the old one only before the first
    // write, the new one only once everything is written.
    const size_t oldImage = KdiskTest::imageHash(before), newImage = KdiskTest::imageHash(rec.data);
    std::set<size_t> seen;
    KdiskTest::forEachCrashImage(before, rec.log, [&](const std::vector<uint8_t>& image) {
      const size_t hash = KdiskTest::imageHash(image);
      if (!seen.insert(hash).second) return;
      writeSparseImage(path, image);
      const std::string uuid = fsUuid(path);
      EXPECT_TRUE(uuid.empty() || (uuid == oldUuid && hash == oldImage) || (uuid == newUuid && hash == newImage))
          << "crash image " << seen.size() << " is recognised as " << uuid;
    });
  }
}

}  // namespace
