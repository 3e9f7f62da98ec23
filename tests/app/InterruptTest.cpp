// Ctrl-C during a wipe or a format, simulated by a device that raises the request after a
// number of writes: the operation stops at the next chunk, flushes what it wrote, reports
// where it stopped, and writes nothing more (a format never writes its boot sector).
#include <gtest/gtest.h>

#include <algorithm>

#include "core/Interrupt.h"
#include "disk/Wipe.h"
#include "filesystem/Recognition.h"
#include "filesystem/ext2/Ext2.h"
#include "filesystem/fat/Fat.h"
#include "filesystem/ntfs/Ntfs.h"
#include "support/TestSupport.h"

using namespace Corvo;
using KdiskTest::MemoryBlockDevice;
using KdiskTest::ScopedCapture;

namespace {

// Raises the interrupt request once `after` writes have been made; counts flushes and writes
// made after the request.
class CtrlCDevice : public MemoryBlockDevice {
 public:
  CtrlCDevice(uint64_t blocks, uint64_t after, uint32_t transfer) : MemoryBlockDevice(blocks), after_(after), transfer_(transfer) {}
  uint32_t preferredTransferBlocks() const override { return transfer_; }
  void flush() override { ++flushes; }
  uint64_t flushes = 0, writesAfterRequest = 0;

 protected:
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override {
    if (Core::interruptRequested()) ++writesAfterRequest;
    MemoryBlockDevice::doWrite(first, count, buffer);
    if (++count_ == after_) Core::requestInterrupt();
  }

 private:
  uint64_t after_, count_ = 0;
  uint32_t transfer_;
};

}  // namespace

TEST(Interrupt, WipeStopsAtTheNextChunkAndFlushes) {
  // 1000 sectors in chunks of 100: ten writes a pass.
  const struct {
    int mode;
    unsigned custom;
    uint64_t afterWrites;
    const char* text;
  } cases[] = {
      {Corvo::Disk::wmQuick, 0, 3, "Wipe interrupted after 300 of 1000 sectors"},
      {Corvo::Disk::wmDod, 0, 1, "Wipe interrupted after 100 of 1000 sectors in pass 1 of 19"},
      {Corvo::Disk::wmDod, 0, 25, "Wipe interrupted after 500 of 1000 sectors in pass 3 of 19"},
      {Corvo::Disk::wmCustom, 2, 10, "Wipe interrupted after 0 of 1000 sectors in pass 2 of 7"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Core::clearInterrupt();
    CtrlCDevice dev(1000, c.afterWrites, 100);
    ScopedCapture capture;
    try {
      Corvo::Disk::wipeDevice(dev, c.mode, c.custom, 1, 1);
      ADD_FAILURE() << "the wipe ran to its end";
    } catch (const Core::Error& e) {
      EXPECT_EQ(e.id(), Core::ErrorId::Interrupted);
      EXPECT_EQ(e.text(), c.text);
    }
    EXPECT_EQ(dev.writesAfterRequest, 0u);
    EXPECT_GE(dev.flushes, 1u);
  }
  Core::clearInterrupt();
}

TEST(Interrupt, FormatStopsBeforeItsBootSector) {
  // FAT12, FAT16 and FAT32, quick and full; the request comes after the first write.
  for (auto [type, sectors] : {std::pair<int, uint64_t>{0, 20000}, {1, 70000}, {2, 140000}}) {
    for (bool full : {false, true}) {
      SCOPED_TRACE(testing::Message() << "type " << type << (full ? " full" : " quick"));
      Core::clearInterrupt();
      CtrlCDevice dev(sectors, 1, 64);
      ScopedCapture capture;
      Filesystem::FormatOptions options;
      options.verify = full;
      try {
        Filesystem::formatFat(dev, Filesystem::FatType(type), options);
        ADD_FAILURE() << "the format ran to its end";
      } catch (const Core::Error& e) {
        EXPECT_EQ(e.id(), Core::ErrorId::Interrupted);
        EXPECT_EQ(e.text().rfind("Format interrupted after ", 0), 0u) << e.text();
      }
      EXPECT_TRUE(std::all_of(dev.sector(0), dev.sector(1), [](uint8_t b) { return b == 0; }))
          << "the boot sector was written";
      EXPECT_GE(dev.flushes, 1u);
    }
  }
  Core::clearInterrupt();
}

TEST(Interrupt, Ext2AndNtfsFormatsStopBeforeTheyAreRecognisable) {
  const struct {
    const char* name;
    uint64_t afterWrites;
    void (*format)(Disk::BlockDevice&);
  } cases[] = {
      {"ext2, first write", 1, [](Disk::BlockDevice& d) { Filesystem::formatExt2(d, {}); }},
      {"ext2, tenth write", 10, [](Disk::BlockDevice& d) { Filesystem::formatExt2(d, {}); }},
      {"NTFS, first write", 1, [](Disk::BlockDevice& d) { Filesystem::formatNtfs(d, {}); }},
      {"NTFS, tenth write", 10, [](Disk::BlockDevice& d) { Filesystem::formatNtfs(d, {}); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Core::clearInterrupt();
    CtrlCDevice dev(65536, c.afterWrites, 64);  // 32 MiB
    ScopedCapture capture;
    try {
      c.format(dev);
      ADD_FAILURE() << "the format ran to its end";
    } catch (const Core::Error& e) {
      EXPECT_EQ(e.id(), Core::ErrorId::Interrupted);
      EXPECT_EQ(e.text().rfind("Format interrupted after ", 0), 0u) << e.text();
    }
    // ext2 finishes the block group it is writing; NTFS stops at the next transfer.
    if (c.name[0] == 'N') {
      EXPECT_EQ(dev.writesAfterRequest, 0u);
    }
    EXPECT_GE(dev.flushes, 1u);
    std::vector<uint8_t> head((Filesystem::kContentBytes + 511) / 512 * 512);
    dev.read(0, head.size() / 512, head.data());
    EXPECT_EQ(Filesystem::detectContent(head.data(), head.size(), 0), unsigned{Filesystem::ctNothing});
  }
  Core::clearInterrupt();
}
