// The disk manager over added images: numbering, failed opens keeping their place, and the
// range and sector-size rules of the drives.
#include <gtest/gtest.h>

#include <fstream>

#include "core/Config.h"
#include "disk/DiskDrive.h"
#include "support/TestSupport.h"

using namespace Corvo;
using Corvo::Core::Error;
using Corvo::Core::ErrorId;

namespace {

TEST(DiskManagerImages, NumbersAddedDisksAndKeepsFailedOnes) {
  KdiskTest::TempDir dir;
  Core::Config::clear();
  Core::Config::setBool("OsDrive::Disable", true);
  std::string a = dir.file("a.img"), missing = dir.file("missing.img"), c = dir.file("c.img");
  {
    std::ofstream(a, std::ios::binary).write(std::string(2048 * 512 + 100, '\0').data(), 2048 * 512 + 100);
    std::ofstream(c, std::ios::binary).write(std::string(4096 * 512, '\x5A').data(), 4096 * 512);
  }
  for (const auto& p : {a, missing, c}) Core::Config::append(Core::Config::kAddDiskKey, p);
  Disk::DiskManager& m = Disk::DiskManager::instance();
  m.enumerate();
  ASSERT_EQ(m.driveCount(), 3u);
  ASSERT_NE(m.getDrive(0), nullptr);
  EXPECT_EQ(m.getDrive(0)->blockCount(), 2048u);  // a trailing partial sector is not part of the disk
  EXPECT_FALSE(m.getDrive(0)->isBootDisk());
  EXPECT_EQ(m.getDrive(1), nullptr);
  ASSERT_TRUE(m.openError(1));
  EXPECT_EQ(m.openError(1)->id(), ErrorId::OpenFailed);
  EXPECT_NE(m.openError(1)->text().find(missing), std::string::npos);
  ASSERT_NE(m.getDrive(2), nullptr);
  EXPECT_EQ(m.getDrive(2)->getNumericId(), 2u);
  EXPECT_EQ(m.getDrive(2)->geometry().heads, 255u);
  // /BOOTDISK=3 makes the third disk the boot disk, and only that one.
  Core::Config::setInt("DiskManager::bootDisk", 3);
  EXPECT_TRUE(m.getDrive(2)->isBootDisk());
  EXPECT_FALSE(m.getDrive(0)->isBootDisk());
  Core::Config::unset("DiskManager::bootDisk");
  EXPECT_FALSE(m.getDrive(2)->isBootDisk());

  Disk::DiskDrive& d = *m.getDrive(2);
  std::vector<uint8_t> buf(2 * 512, 0x11);
  d.write(4094, 2, buf.data());
  EXPECT_THROW(d.write(4095, 2, buf.data()), Error);  // past the end: refused, nothing written
  d.read(4094, 2, buf.data());
  EXPECT_EQ(buf, std::vector<uint8_t>(1024, 0x11));
  EXPECT_NO_THROW(d.verify(0, 4096));
  // Images have no system view: the layout report is a no-op.
  EXPECT_NO_THROW(d.setNativePartitionLayout(Disk::OsLayout{}));
  // The diagnostic dump names every drive, the failed one with its reason.
  const std::string dump = m.diagnostic();
  EXPECT_EQ(dump.rfind("DiskManager diagnostic...\nFixed Drives\n\nDrive 0 (" + a + ")\n  Cylinders: 0\n", 0), 0u) << dump;
  EXPECT_NE(dump.find("Drive 1 (" + missing + ")\n  Last Error: Cannot open " + missing), std::string::npos) << dump;
  EXPECT_NE(dump.find("  Total Sectors: 4096\n  MB: 2.0\n  Successful IO Count: 3\n  Error Count (bad media): 0\n"),
            std::string::npos) << dump;
  m.reset();
  Core::Config::clear();
}

}  // namespace
