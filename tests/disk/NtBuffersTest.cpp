// Windows device-control buffers, checked byte by byte at their documented offsets.
#include <gtest/gtest.h>

#include <cstring>

#include "core/Endian.h"
#include "core/Error.h"
#include "disk/MbrTestSupport.h"
#include "disk/access/NtBuffers.h"

using namespace Corvo::Disk;
using namespace Corvo::Disk::NtBuffers;
using Corvo::Core::get32;
using Corvo::Core::get64;

namespace {

using KdiskTest::osEntry;

TEST(NtBuffers, BuffersGrowOnlyOnTheRetryCodes) {
  struct Case {
    const char* what;
    bool layout;
    size_t needed;      // the fake succeeds once the buffer is this large
    uint32_t failCode;  // what it returns until then
    std::vector<size_t> sizes;
    uint32_t error;
  } cases[] = {
      {"layout needs 50 entries", true, 48 + 144 * 50, 122, {5808, 6960, 8112}, 0},
      {"layout fits at once", true, 100, 122, {5808}, 0},
      {"layout: other error is final", true, 1u << 20, 5, {5808}, 5},
      {"geometry grows on 234", false, 2000, 234, {40, 1064, 2088}, 0},
      {"geometry grows on 122", false, 1064, 122, {40, 1064}, 0},
      {"geometry gives up after 11 calls", false, 1u << 30, 234,
       {40, 1064, 2088, 3112, 4136, 5160, 6184, 7208, 8232, 9256, 10280}, 234},
  };
  for (const Case& c : cases) {
    IoctlCall fake = [&](std::vector<uint8_t>& b) -> uint32_t {
      for (uint8_t x : b) EXPECT_EQ(x, 0) << c.what << ": buffer not zeroed";
      return b.size() >= c.needed ? 0 : c.failCode;
    };
    GrowResult r = c.layout ? getLayoutEx(fake) : getGeometryEx(fake);
    EXPECT_EQ(r.sizesTried, c.sizes) << c.what;
    EXPECT_EQ(r.error, c.error) << c.what;
  }
}

TEST(NtBuffers, GeometryReplies) {
  NtGeometry g;
  g.cylinders = 1000;
  g.mediaType = 12;
  g.tracksPerCylinder = 255;
  g.sectorsPerTrack = 63;
  g.bytesPerSector = 512;
  g.diskSize = uint64_t{8} << 30;
  auto ex = encodeGeometry(g, true);
  ASSERT_EQ(ex.size(), 40u);
  EXPECT_EQ(get64(ex.data() + 24), uint64_t{8} << 30);
  Geometry out;
  uint64_t total = 0;
  ASSERT_TRUE(toGeometry(*parseGeometryEx(ex.data(), ex.size()), out, total));
  EXPECT_EQ(total, (uint64_t{8} << 30) / 512);  // from the disk size, not C x H x S
  EXPECT_EQ(out.heads, 255u);

  auto old = encodeGeometry(g, false);
  ASSERT_EQ(old.size(), 24u);
  ASSERT_TRUE(toGeometry(*parseGeometry(old.data(), old.size()), out, total));
  EXPECT_EQ(total, 1000u * 255 * 63);

  g.bytesPerSector = 4096;  // a 4K-sector disk: sizes still counted in 512-byte sectors
  old = encodeGeometry(g, false);
  ASSERT_TRUE(toGeometry(*parseGeometry(old.data(), old.size()), out, total));
  EXPECT_EQ(total, 1000u * 255 * 63 * 8);
  EXPECT_EQ(out.bytesPerSector, 4096u);

  g.bytesPerSector = 0;
  old = encodeGeometry(g, false);
  EXPECT_FALSE(toGeometry(*parseGeometry(old.data(), old.size()), out, total));
  EXPECT_FALSE(parseGeometryEx(ex.data(), 31).has_value());
}

TEST(NtBuffers, MbrLayoutWithLogicalDrives) {
  OsLayout l;
  l.signature = 0xA1B2C3D4;
  l.entries = {osEntry(1, 2048, 20480, 0x07), osEntry(2, 22528, 40960, 0x0F, true), osEntry(5, 24576, 8192, 0x0B, false),
               osEntry(6, 34816, 8192, 0x83, false, 32768)};
  l.entries[0].active = true;
  NtLayout nt = toNtLayout(l);
  ASSERT_EQ(nt.partitions.size(), 12u);  // MBR + two extended boot records, four slots each
  auto b = buildLayoutEx(nt);
  ASSERT_EQ(b.size(), 48u + 144 * 12);
  EXPECT_EQ(get32(b.data() + 4), 12u);
  EXPECT_EQ(get32(b.data() + 8), 0xA1B2C3D4u);
  const uint8_t* p1 = b.data() + 48;
  EXPECT_EQ(get64(p1 + 8), 2048u * 512);
  EXPECT_EQ(get64(p1 + 16), 20480u * 512);
  EXPECT_EQ(p1[32], 0x07);
  EXPECT_EQ(p1[33], 1);  // boot indicator
  EXPECT_EQ(get32(p1 + 36), 2048u);
  EXPECT_EQ(b[48 + 144 * 2 + 32], 0);  // slot 3 empty
  const uint8_t* logical1 = b.data() + 48 + 144 * 4;
  EXPECT_EQ(get64(logical1 + 8), 24576u * 512);
  EXPECT_EQ(get32(logical1 + 36), 24576u - 22528);  // hidden sectors: from its boot record
  const uint8_t* link = b.data() + 48 + 144 * 5;
  EXPECT_EQ(link[32], 0x05);
  EXPECT_EQ(get64(link + 8), 32768u * 512);
  EXPECT_EQ(get64(link + 16), (34816u + 8192 - 32768) * 512);
  EXPECT_EQ(get32(link + 36), 32768u - 22528);

  NtLayout back = parseLayoutEx(b.data(), b.size());
  OsLayout os = fromNtLayout(back);
  ASSERT_EQ(os.entries.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(os.entries[i].number, l.entries[i].number);
    EXPECT_EQ(os.entries[i].firstBlock, l.entries[i].firstBlock);
    EXPECT_EQ(os.entries[i].blockCount, l.entries[i].blockCount);
    EXPECT_EQ(os.entries[i].type, l.entries[i].type);
    EXPECT_EQ(os.entries[i].container, l.entries[i].container);
  }
  EXPECT_TRUE(os.entries[0].active);

  // The older request carries the same slots: 8-byte header, 32 bytes each, rewrite set.
  auto old = layoutExToOld(b.data(), b.size());
  ASSERT_EQ(old.size(), 40u + 32 * 11);
  EXPECT_EQ(get32(old.data()), 12u);
  EXPECT_EQ(get32(old.data() + 4), 0xA1B2C3D4u);
  EXPECT_EQ(get64(old.data() + 8 + 32 * 5), 32768u * 512);
  EXPECT_EQ(old[8 + 32 * 5 + 24], 0x05);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(old[8 + 32 * i + 27], 1);
  OsLayout fromOld = fromNtLayout(parseLayoutOld(old.data(), old.size()));
  ASSERT_EQ(fromOld.entries.size(), 4u);
  EXPECT_EQ(fromOld.entries[3].firstBlock, 34816u);

  // Without the boot record positions the chain keeps the first drive's distance.
  l.entries[3].tableBlock = 0;
  NtLayout guessed = toNtLayout(l);
  EXPECT_EQ(guessed.partitions[5].startingOffset, (34816u - 2048) * 512);

  // An empty MBR still sends its four slots; the older form of it is 40 + 32 x 3 bytes.
  NtLayout empty = toNtLayout(OsLayout{});
  EXPECT_EQ(buildLayoutEx(empty).size(), 48u + 144 * 4);
  EXPECT_EQ(buildLayoutOld(empty).size(), 40u + 32 * 3);
}

TEST(NtBuffers, GptLayout) {
  OsLayout l;
  l.style = OsLayout::Gpt;
  l.diskGuid[0] = 0x11;
  l.firstUsableBlock = 34;
  l.usableBlocks = 1000000;
  OsLayoutEntry e = osEntry(1, 2048, 4096, 0);
  e.typeGuid[0] = 0xA2;
  e.uniqueGuid[15] = 0x7E;
  e.attributes = uint64_t{1} << 63;
  e.name = u"Basic data partition";
  OsLayoutEntry third = osEntry(3, 8192, 2048, 0);
  third.typeGuid[0] = 0x0F;
  l.entries = {e, third};
  auto b = buildLayoutEx(toNtLayout(l));
  ASSERT_EQ(b.size(), 48u + 144 * 3);  // slot 2 stays empty so slot 3 keeps its place
  EXPECT_EQ(get32(b.data() + 4), 3u);
  EXPECT_EQ(get64(b.data() + 48 + 144 + 16), 0u);
  EXPECT_EQ(b[48 + 144 * 2 + 32], 0x0F);
  EXPECT_EQ(get32(b.data()), 1u);
  EXPECT_EQ(b[8], 0x11);
  EXPECT_EQ(get64(b.data() + 24), 34u * 512);
  EXPECT_EQ(get32(b.data() + 40), 128u);
  const uint8_t* p = b.data() + 48;
  EXPECT_EQ(get32(p), 1u);
  EXPECT_EQ(p[32], 0xA2);
  EXPECT_EQ(p[48 + 15], 0x7E);
  EXPECT_EQ(get64(p + 64), uint64_t{1} << 63);
  EXPECT_EQ(p[72], 'B');
  EXPECT_EQ(p[74], 'a');
  OsLayout back = fromNtLayout(parseLayoutEx(b.data(), b.size()));
  ASSERT_EQ(back.entries.size(), 2u);
  EXPECT_EQ(back.entries[1].number, 3u);
  EXPECT_EQ(back.entries[0].name, e.name);
  EXPECT_EQ(back.entries[0].typeGuid, e.typeGuid);
  EXPECT_EQ(back.usableBlocks, 1000000u);
  EXPECT_THROW(layoutExToOld(b.data(), b.size()), Corvo::Core::Error);
  // A reply whose count does not fit its size is refused.
  EXPECT_THROW(parseLayoutEx(b.data(), b.size() - 1), Corvo::Core::Error);
}

TEST(NtBuffers, StorageDescriptorAndVolumeExtents) {
  std::vector<uint8_t> d(80, 0);
  Corvo::Core::put32(d.data() + 4, 80);
  d[10] = 1;
  Corvo::Core::put32(d.data() + 12, 40);  // vendor
  Corvo::Core::put32(d.data() + 16, 48);  // product
  Corvo::Core::put32(d.data() + 24, 64);  // serial
  Corvo::Core::put32(d.data() + 28, kBusUsb);
  std::memcpy(d.data() + 40, "ACME   ", 7);
  std::memcpy(d.data() + 48, " Stick 3000 ", 12);
  std::memcpy(d.data() + 64, "  SN42", 6);
  auto s = parseStorageDescriptor(d.data(), d.size());
  ASSERT_TRUE(s);
  EXPECT_EQ(s->busType, 7u);
  EXPECT_TRUE(s->removable);
  EXPECT_EQ(s->vendor, "ACME");
  EXPECT_EQ(s->product, "Stick 3000");
  EXPECT_EQ(s->serial, "SN42");
  EXPECT_EQ(s->revision, "");
  Corvo::Core::put32(d.data() + 24, 500);  // offset outside the reply: ignored
  EXPECT_EQ(parseStorageDescriptor(d.data(), d.size())->serial, "");
  EXPECT_FALSE(parseStorageDescriptor(d.data(), 20));
  // The alignment descriptor of a 512e disk: 512-byte logical, 4096-byte physical sectors.
  EXPECT_EQ(Corvo::Core::get32(buildAlignmentPropertyQuery().data()), 6u);
  std::vector<uint8_t> a(28, 0);
  Corvo::Core::put32(a.data() + 16, 512);
  Corvo::Core::put32(a.data() + 20, 4096);
  EXPECT_EQ(parsePhysicalSectorSize(a.data(), a.size()), 4096u);
  EXPECT_EQ(parsePhysicalSectorSize(a.data(), 20), 0u);

  std::vector<uint8_t> ext(8 + 24 * 2, 0);
  Corvo::Core::put32(ext.data(), 2);
  Corvo::Core::put32(ext.data() + 8 + 24, 3);
  Corvo::Core::put64(ext.data() + 8 + 24 + 8, 1048576);
  auto runs = parseVolumeDiskExtents(ext.data(), ext.size());
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[1].diskNumber, 3u);
  EXPECT_EQ(runs[1].startingOffset, 1048576u);
  EXPECT_EQ(parseVolumeDiskExtents(ext.data(), 8 + 24).size(), 1u);
}

}  // namespace
