// GPT pieces without a disk: the disk GUID link between header copies, GUID text, type names.
// (CRCs, header defaults and the on-disk GUID layout are proven by sfdisk in GptDiskTest.)
#include <gtest/gtest.h>

#include "disk/layout/GptFormat.h"
#include "disk/layout/GptGuid.h"

using namespace Corvo::Disk;

TEST(GptFormat, DiskGuidFollowsTheLinkWhileTheOldGuidMatches) {
  const GuidBytes a = guidFromText("11111111-2222-3333-4444-555555555555");
  const GuidBytes b = guidFromText("AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE");
  const GuidBytes other = guidFromText("01234567-89AB-CDEF-0123-456789ABCDEF");
  // The alternate's GUID before and after the primary's changes from a to b.
  for (auto [before, after] : {std::pair{a, b}, std::pair{other, other}, std::pair{GuidBytes{}, GuidBytes{}}}) {
    GptHeader primary, alternate;
    primary.setGptUuid(a);
    alternate.setGptUuid(before);
    primary.linkAlternate(&alternate);
    alternate.linkAlternate(&primary);
    primary.setGptUuid(b);
    EXPECT_EQ(primary.diskGuid(), b);
    EXPECT_EQ(alternate.diskGuid(), after);
    alternate.setGptUuid(after);  // an unchanged GUID ends the walk round the loop of links
  }
  GptHeader linked, partner;
  linked.linkAlternate(&partner);
  EXPECT_EQ(GptHeader(linked).alternate(), nullptr);  // copies take the 92 bytes, not the link
}

TEST(GptFormat, GuidTextAndTypeNames) {
  GuidBytes parsed;
  EXPECT_TRUE(parseGuid("{c12a7328-f81f-11d2-ba4b-00a0c93ec93b}", parsed));
  EXPECT_EQ(guidToText(parsed), "C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
  for (const char* bad : {"", "C12A7328-F81F-11D2-BA4B-00A0C93EC93", "C12A7328F81F-11D2-BA4B-00A0C93EC93BB",
                          "G12A7328-F81F-11D2-BA4B-00A0C93EC93B", "{C12A7328-F81F-11D2-BA4B-00A0C93EC93B"})
    EXPECT_FALSE(parseGuid(bad, parsed)) << bad;

  const std::pair<const char*, const char*> names[] = {
      {"00000000-0000-0000-0000-000000000000", "Unused"},
      {"024DEE41-33E7-11D3-9D69-0008C781F39F", "Legcay MBR"},
      {"48465300-0000-11AA-AA11-00306543ECAC", "Apple HFS+"},
      {"0FC63DAF-8483-4772-8E79-3D69D8477DE4", "{0FC63DAF-8483-4772-8E79-3D69D8477DE4}"},
      // Basic Data's bytes in text order are a different GUID.
      {"A2A0D0EB-E5B9-3344-87C0-68B6B72699C7", "{A2A0D0EB-E5B9-3344-87C0-68B6B72699C7}"},
  };
  for (const auto& [text, name] : names) EXPECT_EQ(gptTypeName(guidFromText(text)), name) << text;
  const auto& reserved = gptReservedTypeGuids();
  for (size_t i = 0; i < reserved.size(); ++i) EXPECT_EQ(reserved[i], gptTypeTable()[i + 1].guid);
  EXPECT_EQ(gptTypeName(reserved.front()), "EFI System");

  GuidBytes r1 = randomGuid(), r2 = randomGuid();
  EXPECT_NE(r1, r2);
  EXPECT_EQ(guidToText(r1)[14], '4');  // version 4
}
