// The boot loaders stored in new FAT volumes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "filesystem/fat/BootCode.h"
#include "support/TestSupport.h"

using namespace Corvo::Filesystem;

namespace {
bool contains(const uint8_t* data, size_t size, const std::string& text) {
  return std::string(reinterpret_cast<const char*>(data), size).find(text) != std::string::npos;
}
}  // namespace

TEST(BootCode, ImagesCarryTheirMessagesAndSignature) {
  const struct {
    const uint8_t* data;
    size_t size;
  } images[] = {{BootCode::kFat16Loader, BootCode::kFat16LoaderSize},
                {BootCode::kFat32Loader, BootCode::kFat32LoaderSize},
                {BootCode::kFat32BootSector, BootCode::kFat32BootSectorSize}};
  for (const auto& image : images) {
    EXPECT_TRUE(contains(image.data, image.size, "Invalid system disk"));
    EXPECT_TRUE(contains(image.data, image.size, "Replace the disk, and then press any key"));
    EXPECT_TRUE(contains(image.data, image.size, "Disk I/O error"));
  }
  // The loaders start right where the boot sector's jump lands (EB 3C / EB 58): cli.
  EXPECT_EQ(BootCode::kFat16Loader[0], 0xFA);
  EXPECT_EQ(BootCode::kFat32Loader[0], 0xFA);
  EXPECT_EQ(BootCode::kFat32BootSector[510], 0x55);
  EXPECT_EQ(BootCode::kFat32BootSector[511], 0xAA);
}

// The committed arrays are exactly what the assembly sources produce.
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
  ASSERT_EQ(KdiskTest::runCommand("bash " + root + "/tools/bootcode/build.sh " + dir.file("BootCode.cpp"), &out), 0)
      << out;
  EXPECT_EQ(KdiskTest::runCommand("cmp " + dir.file("BootCode.cpp") + " " + root + "/filesystem/fat/BootCode.cpp", &out),
            0)
      << out;
}
