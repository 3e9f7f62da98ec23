// GPT structures that do not need a disk: header defaults and GUID linking, GUID text, type
// names, CRC-32.
#include <gtest/gtest.h>

#include "core/Crc32.h"
#include "core/Endian.h"
#include "disk/layout/GptFormat.h"
#include "disk/layout/GptGuid.h"

using namespace Corvo::Disk;

TEST(GptFormat, Crc32CheckValue) {
  EXPECT_EQ(Corvo::Core::crc32("123456789", 9), 0xCBF43926u);
  // Continuing a running CRC gives the CRC of the whole.
  EXPECT_EQ(Corvo::Core::crc32("6789", 4, Corvo::Core::crc32("12345", 5)), 0xCBF43926u);
}

TEST(GptFormat, NewHeaderDefaults) {
  GptHeader h;
  uint8_t b[GptHeader::kSize];
  h.copyTo(b);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(b), 8), "EFI PART");
  EXPECT_EQ(Corvo::Core::get32(b + 8), 0x00010000u);
  EXPECT_EQ(Corvo::Core::get32(b + 12), 92u);
  EXPECT_EQ(Corvo::Core::get32(b + 80), 128u);
  EXPECT_EQ(Corvo::Core::get32(b + 84), 128u);
  for (size_t i : {16, 20, 24, 32, 40, 48, 56, 72, 88}) EXPECT_EQ(b[i], 0) << "offset " << i;
  EXPECT_EQ(GptHeader::size(), 92u);
}

TEST(GptFormat, DiskGuidFollowsTheLinkWhileTheOldGuidMatches) {
  const GuidBytes a = guidFromText("11111111-2222-3333-4444-555555555555");
  const GuidBytes b = guidFromText("AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE");
  const GuidBytes other = guidFromText("01234567-89AB-CDEF-0123-456789ABCDEF");
  struct Case {
    GuidBytes alternateBefore;
    GuidBytes alternateAfter;
  };
  for (const Case& c : {Case{a, b}, Case{other, other}, Case{GuidBytes{}, GuidBytes{}}}) {
    GptHeader primary, alternate;
    primary.setGptUuid(a);
    alternate.setGptUuid(c.alternateBefore);
    primary.linkAlternate(&alternate);
    alternate.linkAlternate(&primary);
    primary.setGptUuid(b);
    EXPECT_EQ(primary.diskGuid(), b);
    EXPECT_EQ(alternate.diskGuid(), c.alternateAfter);
    alternate.setGptUuid(c.alternateAfter);  // unchanged GUID: the loop of links ends
  }
  // Copies take the 92 bytes only, not the link.
  GptHeader linked, partner;
  linked.linkAlternate(&partner);
  GptHeader copy(linked);
  EXPECT_EQ(copy.alternate(), nullptr);
}

TEST(GptFormat, GuidTextAndTypeNames) {
  const GuidBytes esp = guidFromText("C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
  // The on-disk layout: first three fields little-endian.
  EXPECT_EQ(esp[0], 0x28);
  EXPECT_EQ(esp[3], 0xC1);
  EXPECT_EQ(esp[4], 0x1F);
  EXPECT_EQ(esp[7], 0x11);
  EXPECT_EQ(esp[8], 0xBA);
  EXPECT_EQ(esp[15], 0x3B);
  GuidBytes parsed;
  EXPECT_TRUE(parseGuid("{c12a7328-f81f-11d2-ba4b-00a0c93ec93b}", parsed));
  EXPECT_EQ(parsed, esp);
  for (const char* bad : {"", "C12A7328-F81F-11D2-BA4B-00A0C93EC93", "C12A7328F81F-11D2-BA4B-00A0C93EC93BB",
                          "G12A7328-F81F-11D2-BA4B-00A0C93EC93B", "{C12A7328-F81F-11D2-BA4B-00A0C93EC93B"})
    EXPECT_FALSE(parseGuid(bad, parsed)) << bad;

  const std::pair<const char*, const char*> names[] = {
      {"00000000-0000-0000-0000-000000000000", "Unused"},
      {"024DEE41-33E7-11D3-9D69-0008C781F39F", "Legcay MBR"},
      {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft Basic Data"},
      {"48465300-0000-11AA-AA11-00306543ECAC", "Apple HFS+"},
      {"0FC63DAF-8483-4772-8E79-3D69D8477DE4", "{0FC63DAF-8483-4772-8E79-3D69D8477DE4}"},
      // The same bytes as Basic Data but in text byte order: a different GUID.
      {"A2A0D0EB-E5B9-3344-87C0-68B6B72699C7", "{A2A0D0EB-E5B9-3344-87C0-68B6B72699C7}"},
  };
  for (const auto& [text, name] : names) EXPECT_EQ(gptTypeName(guidFromText(text)), name) << text;

  const auto& reserved = gptReservedTypeGuids();
  EXPECT_EQ(reserved.front(), esp);
  EXPECT_EQ(guidToText(reserved.back()), "48465300-0000-11AA-AA11-00306543ECAC");
  for (size_t i = 0; i < reserved.size(); ++i) EXPECT_EQ(reserved[i], gptTypeTable()[i + 1].guid);

  GuidBytes r1 = randomGuid(), r2 = randomGuid();
  EXPECT_NE(r1, r2);
  EXPECT_EQ(guidToText(r1)[14], '4');  // version 4
  EXPECT_TRUE(parseGuid(guidToText(r1), parsed) && parsed == r1);
}
