// Size scanning, FAT limits and type choice of /CRE.
#include <gtest/gtest.h>

#include "app/PartitionCommands.h"
#include "filesystem/fat/Fat.h"

using namespace Kdisk;

TEST(CreateValues, PartitionSize) {
  const uint64_t disk1000MB = (1000ull << 20) + (1ull << 19);  // 1000.5 MB
  const struct {
    const char* text;
    SizeStatus status;
    int mb;
  } cases[] = {{"100", SizeStatus::Ok, 100},     {" 7", SizeStatus::Ok, 7},         {"50P", SizeStatus::Ok, 500},
               {"50p", SizeStatus::Ok, 500},     {"33%", SizeStatus::Ok, 330},      {"100P", SizeStatus::Ok, 1000},
               {"101%", SizeStatus::Invalid, 0}, {"0", SizeStatus::Invalid, 0},     {"-5", SizeStatus::Invalid, 0},
               {"50MB", SizeStatus::Invalid, 0}, {"50M", SizeStatus::Invalid, 0},   {"", SizeStatus::Invalid, 0},
               {"P", SizeStatus::Invalid, 0},    {"0P", SizeStatus::Invalid, 0},    {"99999999999", SizeStatus::Ok, 2147483647}};
  for (const auto& c : cases) {
    int mb = 0;
    EXPECT_EQ(parsePartitionSize(c.text, disk1000MB, mb), c.status) << c.text;
    EXPECT_EQ(mb, c.mb) << c.text;
  }
  int mb = 0;  // 1 per cent of 99 MB is below one MB, 2 per cent is one
  EXPECT_EQ(parsePartitionSize("1P", 99ull << 20, mb), SizeStatus::TooSmall);
  EXPECT_TRUE(parsePartitionSize("2P", 99ull << 20, mb) == SizeStatus::Ok && mb == 1);
  for (const char* bad : {"3x", "0", "", "x", "-1"}) EXPECT_FALSE(scanPositiveNumber(bad, mb)) << bad;
  EXPECT_TRUE(scanPositiveNumber(" 3", mb) && mb == 3);
}

// The limits' edges and the type index from the type byte or, for GPT entries, the size; the
// command-line tests prove the messages and the formats.
TEST(CreateValues, FatLimitsAndTypeChoice) {
  EXPECT_EQ(fatLimitMessage(true, 2048, true, false), nullptr);
  EXPECT_NE(fatLimitMessage(true, 2049, true, false), nullptr);
  EXPECT_EQ(fatLimitMessage(true, 4095, false, true), nullptr);
  EXPECT_EQ(fatLimitMessage(true, 0, true, true), nullptr);  // no /SZ: largest possible
  const struct {
    uint8_t type;
    uint64_t blocks;
    bool fat32, nt;
    int index;
  } types[] = {{0x01, 9, true, false, 0},       {0x04, 9, true, false, 1},       {0x06, 9, true, false, 1},
               {0x0E, 9, true, false, 1},       {0x0B, 9, true, false, 2},       {0x0C, 9, true, false, 2},
               {0x00, 32773, true, false, 0},   {0x00, 32774, true, false, 1},   {0x00, 1048576, true, false, 1},
               {0x00, 1048577, true, false, 2}, {0x00, 1048577, true, true, 1},  {0x00, 1048577, false, false, 1},
               {0x00, 8387873, false, true, 2}};
  for (const auto& t : types) EXPECT_EQ(int(Corvo::Filesystem::fatTypeIndexFor(t.type, t.blocks, t.fat32, t.nt)), t.index) << t.blocks;
}
