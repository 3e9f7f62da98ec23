// The master boot code: which images carry a Windows 9x identifier, the bytes /MBR writes
// under /P, /Z and neither, and the order of the writes when /WIPE removes every partition.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <fstream>
#include <string>

#include "MbrTestSupport.h"
#include "core/Endian.h"
#include "core/Md5.h"
#include "disk/layout/BiosBootRecord.h"
#include "disk/layout/MasterBootCode.h"

using namespace Corvo::Disk;

namespace {

std::array<uint8_t, 512> pattern(uint8_t seed) {
  std::array<uint8_t, 512> b;
  for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
  return b;
}

}  // namespace

// Recognition looks at the digest of exactly the image's length, and the identifier counts
// only when bytes 218 and 219 are zero as well.
TEST(KnownBootCode, DigestOfThePrefixAndTheZeroBytes) {
  std::array<uint8_t, 512> image = pattern(3);
  image[218] = image[219] = 0;
  const std::string d169 = Corvo::Core::Md5::hex(Corvo::Core::Md5::of(image.data(), 169));
  const std::string d218 = Corvo::Core::Md5::hex(Corvo::Core::Md5::of(image.data(), 218));
  struct Case {
    const char* what;
    size_t length;
    const std::string& digest;
    int changedByte;  // -1: none
    uint8_t byte218, byte219;
    bool recognised, id9x;
  } cases[] = {
      {"169-byte image", 169, d169, -1, 0, 0, true, true},
      {"byte after the 169 bytes differs", 169, d169, 169, 0, 0, true, true},
      {"last of the 169 bytes differs", 169, d169, 168, 0, 0, false, false},
      {"218-byte image", 218, d218, -1, 0, 0, true, true},
      {"byte 217 differs", 218, d218, 217, 0, 0, false, false},
      {"byte 218 not zero", 218, d218, -1, 1, 0, true, false},
      {"byte 219 not zero", 169, d169, -1, 0, 1, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::vector<KnownBootCode> table = {{c.length, c.digest.c_str()}};
    BiosBootRecord r(true, 4, image.data());
    if (c.changedByte >= 0) r.data()[c.changedByte] ^= 0xFF;
    r.data()[218] = c.byte218;
    r.data()[219] = c.byte219;
    EXPECT_EQ(matchesKnownBootCode(r.data(), table), c.recognised);
    EXPECT_EQ(r.is9xIdAvailable(table), c.id9x);
  }
  // Our own code is none of the known images: it carries no 9x identifier.
  BiosBootRecord ours;
  ours.setBootCode(kMasterBootCode, kMasterBootCodeSize);
  EXPECT_FALSE(ours.isBootCodeRecognised());
}

// /MBR's new record byte for byte: the code over the boot code area, identifiers per switch,
// table and signature of the old record.
TEST(MasterBootCode, ComposeByteForByte) {
  const std::array<uint8_t, 512> old = [] {
    std::array<uint8_t, 512> b = pattern(11);
    b[510] = 0x55;
    b[511] = 0xAA;
    return b;
  }();
  const std::vector<uint8_t> code440(kMasterBootCode, kMasterBootCode + kMasterBootCodeSize);
  std::vector<uint8_t> code512(512), code10(10, 0xC3);
  for (size_t i = 0; i < code512.size(); ++i) code512[i] = static_cast<uint8_t>(200 - i);

  struct Case {
    const char* what;
    const std::vector<uint8_t>& code;
    DiskIdMode mode;
    bool oldSigned;
    uint32_t ntId;  // expected at 440
  } cases[] = {
      {"default, 440 bytes", code440, DiskIdMode::FromCode, true, 0},
      {"/P, 440 bytes", code440, DiskIdMode::Preserve, true, Corvo::Core::get32(old.data() + 440)},
      {"/Z, 440 bytes", code440, DiskIdMode::Clear, true, 0},
      {"default, whole sector", code512, DiskIdMode::FromCode, true, Corvo::Core::get32(code512.data() + 440)},
      {"/P, whole sector", code512, DiskIdMode::Preserve, true, Corvo::Core::get32(old.data() + 440)},
      {"/Z, 10 bytes", code10, DiskIdMode::Clear, true, 0},
      {"default on a record without signature", code440, DiskIdMode::FromCode, false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::array<uint8_t, 512> before = old;
    if (!c.oldSigned) before[510] = 0;
    BiosBootRecord next = composeMasterBootRecord(BiosBootRecord(true, 4, before.data()), c.code, c.mode);

    std::array<uint8_t, 512> want{};
    std::memcpy(want.data(), c.code.data(), std::min<size_t>(c.code.size(), 446));
    Corvo::Core::put32(want.data() + 440, c.ntId);
    if (c.oldSigned) std::memcpy(want.data() + 446, old.data() + 446, 66);  // table and signature
    want[510] = 0x55;
    want[511] = 0xAA;
    for (size_t i = 0; i < 512; ++i) ASSERT_EQ(next.data()[i], want[i]) << "byte " << i;
  }
}

namespace {

// Records the order of writes and flushes.
class LoggingAccess : public KdiskTest::MemoryAccess {
 public:
  using MemoryAccess::MemoryAccess;
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    log.push_back("w" + std::to_string(first));
    MemoryAccess::write(first, count, buffer);
  }
  void flush() override { log.push_back("flush"); }
  std::vector<std::string> log;
};

}  // namespace

// /WIPE: the master boot record reaches the medium before the records it linked to are
// zeroed; partitions are prepared for the change before anything is written; the OS gets the
// empty layout.
TEST(MasterBootCode, WipeWritesInOrder) {
  KdiskTest::TempDir dir;
  struct Case {
    const char* what;
    const char* script;
    std::vector<std::string> log;
  } cases[] = {
      {"MBR with logical drives",
       "label: dos\nstart=2048,size=4096,type=6\nstart=8192,size=16384,type=f\nstart=10240,size=2048,type=6\n"
       "start=14336,size=2048,type=6\n",
       {"w0", "flush", "w8192", "w12288", "flush"}},
      {"GPT", "label: gpt\nstart=2048,size=4096\n", {"w0", "flush", "w1", "w32767", "flush"}},
      {"no partitions", "", {"w0", "flush"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string img = dir.file("disk.img");
    ASSERT_TRUE(KdiskTest::makeImage(img, 16, c.script));
    auto access = std::make_unique<LoggingAccess>(32768);
    access->data = KdiskTest::MemoryAccess::fromImage(img)->data;
    access->osLayout = true;
    LoggingAccess* log = access.get();
    DiskDrive drive(0, std::move(access));
    auto layout = PartitionedDisk::load(drive);
    const size_t partitions = layout->displayList().size();
    const std::vector<uint8_t> code(kMasterBootCode, kMasterBootCode + kMasterBootCodeSize);
    EXPECT_EQ(writeMasterBootCode(*layout, code, DiskIdMode::Preserve, true), "");
    EXPECT_EQ(log->log, c.log);
    EXPECT_EQ(log->prepared.size(), partitions);
    layout = PartitionedDisk::load(drive);
    EXPECT_EQ(layout->scheme(), PartitionScheme::Mbr);
    EXPECT_TRUE(layout->displayList().empty());
    EXPECT_TRUE(layout->facts().problems.empty());
    EXPECT_EQ(std::memcmp(log->data.data(), kMasterBootCode, kMasterBootCodeSize), 0);
    ASSERT_EQ(log->layouts.size(), 1u);
    EXPECT_TRUE(log->layouts[0].entries.empty());
  }
}
