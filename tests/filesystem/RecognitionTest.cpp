// Content recognition over crafted buffers and over filesystems made by the system's tools.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>

#include "core/Endian.h"
#include "disk/DiskDrive.h"
#include "filesystem/Recognition.h"
#include "filesystem/SignatureErase.h"
#include "support/TestSupport.h"

using namespace Corvo::Filesystem;
using KdiskTest::runCommand;
using KdiskTest::TempDir;

namespace {

using Buffer = std::vector<uint8_t>;

void put(Buffer& b, size_t at, const char* text) { std::memcpy(b.data() + at, text, std::strlen(text)); }

Buffer ntfs(uint8_t spc, uint8_t record, uint8_t index) {
  Buffer b(kContentBytes, 0);
  put(b, 3, "NTFS    ");
  b[12] = 2;  // 512 bytes per sector
  b[13] = spc;
  b[64] = record;
  b[68] = index;
  return b;
}

void lvmLabel(Buffer& b, uint64_t sector, uint64_t claimed) {
  put(b, sector * 512, "LABELONE");
  Corvo::Core::put64(b.data() + sector * 512 + 8, claimed);
  put(b, sector * 512 + 24, "LVM2 001");
}

Buffer readImage(const std::string& path) {
  Buffer b(kContentBytes, 0);
  std::ifstream in(path, std::ios::binary);
  in.read(reinterpret_cast<char*>(b.data()), static_cast<std::streamsize>(b.size()));
  return b;
}

}  // namespace

TEST(Recognition, CraftedBuffers) {
  struct Case {
    const char* name;
    std::function<void(Buffer&)> make;
    unsigned mode0, mode1000, mode1001;
  } cases[] = {
      {"empty", [](Buffer&) {}, 0, 0, 0},
      {"NTFS 4K clusters, negative record size", [](Buffer& b) { b = ntfs(8, 0xF6, 1); }, 6, 6, 0},
      {"NTFS index buffer of 2 clusters fails", [](Buffer& b) { b = ntfs(8, 0xF6, 2); }, 0, 0, 0},
      {"NTFS 512-byte clusters", [](Buffer& b) { b = ntfs(1, 2, 8); }, 6, 6, 0},
      {"NTFS record of 4 sectors fails", [](Buffer& b) { b = ntfs(2, 2, 4); }, 0, 0, 0},
      {"NTFS 3-sector clusters need 0xF6", [](Buffer& b) { b = ntfs(3, 0xF6, 0xF4); }, 0, 0, 0},
      {"NTFS 16-sector clusters", [](Buffer& b) { b = ntfs(16, 0xF6, 0xF4); }, 6, 6, 0},
      {"failing NTFS falls through to FAT32",
       [](Buffer& b) { b = ntfs(8, 0xF6, 2), put(b, 82, "FAT32   "); }, 5, 5, 0},
      {"FAT12", [](Buffer& b) { put(b, 54, "FAT12   "); }, 3, 3, 0},
      {"FAT16 without padding", [](Buffer& b) { put(b, 54, "FAT16"); }, 0, 0, 0},
      {"FAT32", [](Buffer& b) { put(b, 82, "FAT32   "); }, 5, 5, 0},
      {"FAT32 string at the FAT16 offset", [](Buffer& b) { put(b, 54, "FAT32   "); }, 0, 0, 0},
      {"OVLM", [](Buffer& b) { put(b, 0, "OVLM"); }, 11, 11, 0},
      {"FAT16 and ext: boot sector wins", [](Buffer& b) { put(b, 54, "FAT16   "), b[1080] = 0x53, b[1081] = 0xEF; },
       4, 4, 8},
      {"swap v1 at 4 KB", [](Buffer& b) { b[1024] = 1, put(b, 4086, "SWAPSPACE2"); }, 7, 0, 7},
      {"swap v1 at 16 KB", [](Buffer& b) { b[1024] = 1, put(b, 16374, "SWAPSPACE2"); }, 7, 0, 7},
      {"SWAPSPACE2 without version 1", [](Buffer& b) { put(b, 4086, "SWAPSPACE2"); }, 0, 0, 0},
      {"old swap needs no version", [](Buffer& b) { put(b, 16374, "SWAP-SPACE"); }, 7, 0, 7},
      {"swap before ext", [](Buffer& b) { put(b, 4086, "SWAP-SPACE"), b[1080] = 0x53, b[1081] = 0xEF; }, 7, 0, 7},
      {"LVM2 label hides ext", [](Buffer& b) { lvmLabel(b, 1, 1), b[1080] = 0x53, b[1081] = 0xEF; }, 0, 0, 0},
      {"LVM2 label in sector 4", [](Buffer& b) { lvmLabel(b, 4, 4), b[1080] = 0x53, b[1081] = 0xEF; }, 0, 0, 0},
      {"LVM2 label with the wrong sector number",
       [](Buffer& b) { lvmLabel(b, 2, 1), b[1080] = 0x53, b[1081] = 0xEF; }, 8, 0, 8},
      {"ext2", [](Buffer& b) { b[1080] = 0x53, b[1081] = 0xEF; }, 8, 0, 8},
      {"ext3", [](Buffer& b) { b[1080] = 0x53, b[1081] = 0xEF, b[1116] = 0x04; }, 9, 0, 9},
      {"magic bytes swapped", [](Buffer& b) { b[1080] = 0xEF, b[1081] = 0x53; }, 0, 0, 0},
      {"Reiser at the last bytes examined", [](Buffer& b) { put(b, 65588, "ReIsEr2Fs"); }, 10, 0, 10},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Buffer b(kContentBytes, 0);
    c.make(b);
    EXPECT_EQ(detectContent(b.data(), b.size(), 0), c.mode0);
    EXPECT_EQ(detectContent(b.data(), b.size(), 1000), c.mode1000);
    EXPECT_EQ(detectContent(b.data(), b.size(), 1001), c.mode1001);
    EXPECT_EQ(detectContent(b.data(), b.size(), 1002), 20012u);
    for (unsigned other : {1u, 999u, 1003u, 0xFFFFFFFFu}) EXPECT_EQ(detectContent(b.data(), b.size(), other), 0u);
  }
  // A short buffer reads as zero-padded; the Reiser signature straddling its end is not seen.
  Buffer shortBoot(512, 0);
  put(shortBoot, 82, "FAT32   ");
  EXPECT_EQ(detectContent(shortBoot.data(), shortBoot.size(), 0), 5u);
  Buffer cut(65590, 0);
  put(cut, 65588, "Re");
  EXPECT_EQ(detectContent(cut.data(), cut.size(), 0), 0u);
  EXPECT_EQ(detectContent(nullptr, 0, 0), 0u);
}

TEST(Recognition, LabelGuards) {
  // Labels of real volumes are read in RealFilesystems; here only the guards.
  Buffer b(512, 0);
  put(b, 54, "FAT16   ");
  put(b, 43, "BACKUP     ");
  EXPECT_EQ(volumeLabelOf(b.data(), b.size()), "") << "no extended boot signature: no label field";
  b[38] = 0x29;
  EXPECT_EQ(volumeLabelOf(b.data(), b.size()), "BACKUP");
  EXPECT_EQ(volumeLabelOf(b.data(), 100), "");
}

// Filesystems made by the system's own tools.
TEST(Recognition, RealFilesystems) {
  struct Case {
    const char* tool;
    std::string command;  // %s is the image
    unsigned expected;
    const char* label;
  } cases[] = {
      {"mkfs.fat", "mkfs.fat -F 12 -n FLOPPY %s", 3, "FLOPPY"},
      {"mkfs.fat", "mkfs.fat -F 16 %s", 4, ""},
      {"mkfs.fat", "mkfs.fat -F 32 -n BIG %s", 5, "BIG"},
      {"mke2fs", "mke2fs -q -F -t ext2 %s", 8, ""},
      {"mke2fs", "mke2fs -q -F -t ext3 %s", 9, ""},
      {"mkswap", "mkswap %s", 7, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    if (!KdiskTest::haveTool(c.tool)) {
      std::cout << "skipping " << c.command << ": " << c.tool << " is not installed\n";
      continue;
    }
    TempDir dir;
    const std::string image = dir.file("fs.img");
    std::string cmd = c.command;
    cmd.replace(cmd.find("%s"), 2, image);
    std::string out;
    ASSERT_EQ(runCommand("truncate -s 64M " + image + " && " + cmd, &out), 0) << out;
    Buffer b = readImage(image);
    EXPECT_EQ(detectContent(b.data(), b.size(), 0), c.expected);
    EXPECT_EQ(volumeLabelOf(b.data(), b.size()), c.label);
    bool bootSector = c.expected >= 3 && c.expected <= 6;
    EXPECT_EQ(detectContent(b.data(), b.size(), bootSector ? 1001 : 1000), 0u);
  }
}

// Before a format, the signatures of whatever the partition held are zeroed: afterwards wipefs
// and blkid, which look for every signature they know at every place they know, find nothing.
TEST(Recognition, ErasedSignaturesAreFoundByNoOne) {
  if (!KdiskTest::haveTool("wipefs")) GTEST_SKIP() << "wipefs is not installed";
  const struct {
    const char* tool;
    std::string command;  // %s is the image (300 MiB, sparse)
  } cases[] = {
      {"mke2fs", "mke2fs -q -F -t ext4 %s"},
      {"mkntfs", "mkntfs -q -F -f %s"},
      {"mkswap", "mkswap %s"},
      {"mkswap", "mkswap --pagesize 65536 %s"},
      {"mkfs.fat", "mkfs.fat -F 32 %s"},
      {"mkfs.exfat", "mkfs.exfat %s"},
      {"mkfs.btrfs", "mkfs.btrfs -q -f -K %s"},
      {"mkfs.reiserfs", "mkfs.reiserfs -q -f %s"},
      {"cryptsetup", "printf pw | cryptsetup luksFormat -q --type luks2 --pbkdf pbkdf2 --pbkdf-force-iterations 1000 "
                     "--key-file - %s"},
      {"xorriso", "xorriso -as mkisofs -quiet -o %s /etc/hostname && truncate -s 300M %s"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    if (!KdiskTest::haveTool(c.tool)) {
      std::cout << "skipping " << c.command << ": " << c.tool << " is not installed\n";
      continue;
    }
    TempDir dir;
    const std::string image = dir.file("old.img");
    std::string cmd = c.command;
    for (size_t at; (at = cmd.find("%s")) != std::string::npos;) cmd.replace(at, 2, image);
    std::string out;
    ASSERT_EQ(runCommand("truncate -s 300M " + image + " && " + cmd, &out), 0) << out;
    ASSERT_EQ(runCommand("wipefs --no-act --noheadings -O TYPE " + image, &out), 0);
    ASSERT_NE(out, "") << "the tool made nothing wipefs finds";
    {
      Corvo::Disk::DiskDrive drive(0, Corvo::Disk::openImageDisk(image));
      eraseSignatures(drive);
    }
    runCommand("wipefs --no-act --noheadings -O TYPE,OFFSET " + image, &out);
    EXPECT_EQ(out, "");
    runCommand("blkid -p -o value -s TYPE " + image, &out);
    EXPECT_EQ(out, "");
  }
}
