// The boot loaders stored in new FAT volumes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "FatTestSupport.h"
#include "filesystem/fat/BootCode.h"
#include "filesystem/fat/Fat.h"
#include "support/TestSupport.h"

using namespace Corvo::Filesystem;

// The committed arrays and MBR.BIN are exactly what the assembly sources produce.
TEST(BootCode, ArraysMatchTheirAssemblySource) {
  // The source tree: KDISK_SOURCE, else two levels above this file.
  std::string root = std::getenv("KDISK_SOURCE") ? std::getenv("KDISK_SOURCE") : "";
  if (root.empty()) {
    root = __FILE__;
    for (int i = 0; i < 3 && root.find('/') != std::string::npos; ++i) root.erase(root.rfind('/'));
  }
  if (!KdiskTest::haveTool("as") || !KdiskTest::haveTool("objcopy") || !KdiskTest::haveTool("xxd"))
    GTEST_SKIP() << "needs binutils (as, objcopy) and xxd";
  KdiskTest::TempDir dir;
  std::string out;
  ASSERT_EQ(KdiskTest::runCommand("bash " + root + "/tools/bootcode/build.sh " + dir.file(""), &out), 0) << out;
  const struct {
    const char* generated;
    const char* committed;
  } files[] = {{"BootCode.cpp", "/filesystem/fat/BootCode.cpp"},
               {"MasterBootCode.cpp", "/disk/layout/MasterBootCode.cpp"},
               {"MBR.BIN", "/tools/bootcode/MBR.BIN"}};
  for (const auto& f : files)
    EXPECT_EQ(KdiskTest::runCommand("cmp " + dir.file(f.generated) + " " + root + f.committed, &out), 0) << out;
}

// Boots freshly formatted volumes in an emulator and reads the messages off the text screen.
TEST(BootCode, LoadersRunInAnEmulator) {
  if (!KdiskTest::haveTool("qemu-system-i386")) GTEST_SKIP() << "needs qemu-system-i386 (qemu-system-x86)";
  struct Case {
    int type;
    uint64_t sectors;
    uint32_t hidden;  // the FAT32 loader finds its second sector through this field
    const char* expected;
  } cases[] = {{1, 65536, 0, "Invalid system disk"},
               {2, 1100000, 0, "Invalid system disk"},
               {2, 1100000, 0x7FFFFFF0, "Disk I/O error"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    KdiskTest::TempDir dir;
    const std::string image = dir.file("boot.img"), screen = dir.file("screen.bin");
    {
      KdiskTest::ImageFileDevice dev(image, c.sectors);
      KdiskTest::ScopedCapture capture;
      Corvo::Filesystem::FormatOptions options;
      options.hiddenSectors = c.hidden;
      Corvo::Filesystem::formatFat(dev, Corvo::Filesystem::FatType(c.type), options);
    }
    // Dump the text screen once a second until the loader waits for a key (at most 30 s).
    const std::string script =
        "( for i in $(seq 1 30); do sleep 1; echo 'pmemsave 0xb8000 4000 \"" + screen + "\"'; sleep 0.3;"
        " if [ -f " + screen + " ] && tr -d '\\000\\007' < " + screen + " | grep -q 'press any key'; then break; fi;"
        " done; echo quit ) | qemu-system-i386 -drive file=" + image +
        ",format=raw,if=ide -display none -monitor stdio -no-reboot -m 32 >/dev/null 2>&1; tr -d '\\000\\007' < " +
        screen;
    std::string out;
    KdiskTest::runCommand(script, &out);
    EXPECT_NE(out.find(c.expected), std::string::npos) << out;
    EXPECT_NE(out.find("Replace the disk, and then press any key"), std::string::npos) << out;
  }
}
