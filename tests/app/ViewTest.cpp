#include <gtest/gtest.h>

#include "app/Commands.h"
#include "app/FakeDisks.h"
#include "support/TestSupport.h"

using namespace Kdisk;
using namespace KdiskTest;

namespace {

SwitchSet line(std::vector<std::string> args) {
  args.insert(args.begin(), "kdisk");
  return SwitchSet(args);
}

// Answers pauses from a list of keys (end of list: end of input).
class KeySink : public CaptureSink {
 public:
  std::string keys;
  int pauses = 0;
  int readKey() override {
    ++pauses;
    if (keys.empty()) return -1;
    int k = keys[0];
    keys.erase(0, 1);
    return k;
  }
};

struct SinkGuard {
  KeySink* sink;
  SinkGuard() {
    auto s = std::make_unique<KeySink>();
    sink = s.get();
    Corvo::Core::setMessageSink(std::move(s));
  }
  ~SinkGuard() { Corvo::Core::setMessageSink(nullptr); }
};

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
  return n;
}

}  // namespace

TEST(View, RangeChecks) {
  const std::string sectorRange = ".  For this disk, sector must be in the range 0..99\n";
  const std::string numRange = ".  For this disk, sector + sector number must be in the range 0..99\n";
  struct Case {
    std::vector<std::string> args;
    int rc;
    std::string error;
  } cases[] = {
      {{"1", "/VIEW:0"}, 0, ""},
      {{"1", "/VIEW:99", "/NUM:1"}, 0, ""},
      {{"1", "/VIEW:-1"}, 2, "Invalid sector number -- -1" + sectorRange},
      {{"1", "/VIEW:1x"}, 2, "Invalid sector number -- 1x" + sectorRange},
      {{"1", "/VIEW:18446744073709551617"}, 2, "Invalid sector number -- 18446744073709551617" + sectorRange},
      {{"1", "/VIEW:99", "/NUM:2"}, 2, "Invalid number of sectors -- 2" + numRange},
      {{"1", "/VIEW:1", "/NUM:18446744073709551615"}, 2, "Invalid number of sectors -- 18446744073709551615" + numRange},
      {{"1", "/PAGE"}, 2, "Required switch missing -- /VIEW\n"},
      {{"1", "/VIEW:0", "/LBA"}, 2, "Unknown switch -- /LBA\n"},
      {{"2", "/VIEW:0"}, 1, "No such fixed disk -- 2\n"},
  };
  for (const Case& c : cases) {
    FakeDiskTable t;
    t.add(100);
    ScopedCapture cap;
    auto set = line(c.args);
    EXPECT_EQ(commandView(set), c.rc) << c.args[1];
    EXPECT_EQ(cap.sink().errors, c.error) << c.args[1];
  }
}

TEST(View, DumpsSectorInPreferredTransfers) {
  FakeDiskTable t;
  t.add(5000);
  MemoryAccess& disk = *t.lastAccess;
  disk.data[510] = 0x55;
  disk.data[511] = 0xAA;
  std::memcpy(&disk.data[3], "MSDOS5.0", 8);
  ScopedCapture cap;
  auto set = line({"1", "/VIEW:0", "/NUM:5000"});
  disk.reads = 0;
  EXPECT_EQ(commandView(set), 0);
  EXPECT_EQ(disk.reads, 3u);  // 2048 + 2048 + 904 sectors
  const std::string& out = cap.sink().out;
  EXPECT_EQ(out.rfind("\nPhysical Disk 1, Sector 0:\n" + std::string(57, '-') + "\n", 0), 0u);
  EXPECT_NE(out.find("00000000  00 00 00 4d 53 44 4f 53  35 2e 30 00 00 00 00 00  ...MSDOS5.0.....\n"), std::string::npos);
  EXPECT_NE(out.find("000001f0  00 00 00 00 00 00 00 00  00 00 00 00 00 00 55 aa  ..............U.\n"), std::string::npos);
  EXPECT_EQ(count(out, "Physical Disk 1, Sector "), 5000u);
  EXPECT_NE(out.find("Sector 4999:"), std::string::npos);
  EXPECT_EQ(count(out, "Press any key"), 0u);
}

TEST(View, PagingPausesEvery22LinesAndQuitsOnQ) {
  FakeDiskTable t;
  t.add(100);
  SinkGuard g;
  g.sink->keys = "xQ";
  auto set = line({"1", "/VIEW:0", "/NUM:10", "/PAGE"});
  EXPECT_EQ(commandView(set), 0);
  EXPECT_EQ(g.sink->pauses, 2);
  // Header (2) + 20 lines, a pause; then 12 lines, the next header and 8 lines, a pause, quit.
  EXPECT_EQ(count(g.sink->out, "Physical Disk 1, Sector "), 2u);
  EXPECT_EQ(count(g.sink->out, "Press any key to continue or 'q' to quit...\r"), 2u);
  const std::string& out = g.sink->out;
  const std::string tail = "\nPress any key to continue or 'q' to quit...\r";
  ASSERT_GT(out.size(), tail.size() + 80);
  EXPECT_EQ(out.substr(out.size() - tail.size()), tail);
  EXPECT_EQ(out.substr(out.rfind("\n", out.size() - tail.size() - 1) + 1, 8), "00000070");
}

TEST(View, ReadFailureStopsAfterSectorsShown) {
  FakeDiskTable t;
  t.add(5000);
  t.lastAccess->badSectors = {2100};
  ScopedCapture cap;
  auto set = line({"1", "/VIEW:10", "/NUM:4000"});
  EXPECT_EQ(commandView(set), 1);
  EXPECT_EQ(cap.sink().errors, "Failed to read starting at sector 2058 from fixed disk 1\n");
  EXPECT_EQ(count(cap.sink().out, "Physical Disk 1, Sector "), 2048u);
  EXPECT_EQ(fixedDisks()[0]->drive->badMediaErrorCount(), 1u);  // counted for the diagnostic dump
}
